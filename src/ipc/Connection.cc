#include "qelss/ipc/Connection.h"

#include <utility>

#include "platform/dispatch/MakeQueue.h"
#include "platform/report/Failure.h"
#include "qelss/platform/ErrorCode.h"
#include "qelss/values/Exceptions.h"
#include "qelss/values/HashFactory.h"

namespace QelSS {
namespace {

constexpr uint32_t kReportTag = QelErrTag("CONN");
constexpr const char* kQueueLabel = "com.qelvarin.clientconnection";
constexpr const char* kCommandKey = "IPCCommand";
constexpr const char* kResponseKey = "IPCResponse";
// How long shutting down waits for the queue to run what is already on it.
constexpr unsigned kShutDownWaitSeconds = 10;

std::error_code Report(const char* operation, const char* message, std::error_code code) {
  return ReportFailure(FailureReport{kReportTag, operation, kQelSharedSettingsErrorDomain, message},
                       code);
}

// The Hash behind a dictionary of a message; kInvalidType when `object` is
// not one.
std::error_code HashOf(xpc_object_t object, std::shared_ptr<IHash>& out) {
  void* const dictionary = object;
  return HashFactory::Create<void*>(out, dictionary);
}

// What a reply hands to the callback.
std::pair<std::error_code, std::shared_ptr<IHash>> ReadReply(xpc_object_t reply) {
  if (xpc_get_type(reply) == XPC_TYPE_ERROR) return {make_error_code(kConnectionError), nullptr};
  xpc_object_t response = xpc_dictionary_get_value(reply, kResponseKey);
  if (response == nullptr) return {make_error_code(kInvalidResponse), nullptr};
  std::shared_ptr<IHash> hash;
  const std::error_code made = HashOf(response, hash);
  if (made != kSuccess) {
    Report("Connection", "Failed to create hash", made);
    return {made, nullptr};
  }
  return {made, hash};
}

}  // namespace

IConnection::~IConnection() = default;

Connection::Connection(xpc_connection_t connection) : connection_(connection) {}

xpc_connection_t Connection::RetainLink() const {
  std::lock_guard lock(linkMutex_);
  return xpc_retain(connection_);
}

Connection::~Connection() { ShutDownConnection(); }

std::error_code Connection::InitConnection() {
  std::shared_ptr<DispatchQueue::IQueue> queue;
  const std::error_code made = DispatchQueue::QueueFactory::Create(
      queue, DispatchQueue::kQueueTypeSerial, kQueueLabel, QOS_CLASS_USER_INTERACTIVE);
  if (made.value() != 0) return made;
  queue_ = std::move(queue);
  xpc_connection_t link = RetainLink();
  if (link == nullptr) return make_error_code(kConnectionError);
  xpc_connection_set_target_queue(link, queue_->GetDispatchQueue());
  // Weak: the service connection must not keep its owner alive.
  std::weak_ptr<Connection> weak = weak_from_this();
  xpc_connection_set_event_handler(link, [weak](xpc_object_t event) {
    if (auto self = weak.lock()) self->HandleEvent(event);
  });
  xpc_connection_resume(link);
  resumed_ = true;
  xpc_release(link);
  return made;
}

void Connection::ShutDownConnection() {
  xpc_connection_t link = nullptr;
  {
    // Sends on other threads either got the link before this or find none.
    std::lock_guard lock(linkMutex_);
    link = std::exchange(connection_, nullptr);
  }
  if (link == nullptr) return;
  xpc_connection_set_event_handler(link, [](xpc_object_t) {});
  if (!resumed_) {
    xpc_connection_resume(link);
    resumed_ = true;
  }
  xpc_connection_cancel(link);
  if (queue_ != nullptr) {
    // From a block on this queue the wait is refused at once: nothing to do.
    (void)queue_->Finish(kShutDownWaitSeconds, DispatchQueue::kFinishRunPending);
  }
  xpc_release(link);
}

void Connection::HandleEvent(void* event) {
  auto* object = static_cast<xpc_object_t>(event);
  if (object != XPC_ERROR_CONNECTION_INVALID && object != XPC_ERROR_TERMINATION_IMMINENT) return;
  InvalidationHandler handler;
  {
    std::lock_guard lock(handlerMutex_);
    handler = invalidationHandler_;
  }
  if (!handler) return;
  std::shared_ptr<IConnection> self = shared_from_this();
  handler(self);
}

std::error_code Connection::BuildEnvelope(const std::shared_ptr<IHash>& message,
                                          xpc_object_t& envelope) {
  if (message == nullptr) return make_error_code(kInvalidArgument);
  xpc_object_t body = nullptr;
  if (std::error_code converted = message->CopyXPCObject(&body); converted != kSuccess) {
    return converted;
  }
  envelope = xpc_dictionary_create(nullptr, nullptr, 0);
  if (envelope == nullptr) {
    xpc_release(body);
    return Report("Connection", "Failed to create xpc dict", make_error_code(kAllocationFailed));
  }
  xpc_dictionary_set_value(envelope, kCommandKey, body);
  xpc_release(body);
  return make_error_code(kSuccess);
}

std::error_code Connection::SendMessage(const std::shared_ptr<IHash>& message) {
  xpc_object_t envelope = nullptr;
  if (std::error_code built = BuildEnvelope(message, envelope); built != kSuccess) return built;
  xpc_connection_t link = RetainLink();
  if (link != nullptr) xpc_connection_send_message(link, envelope);
  xpc_release(link);
  xpc_release(envelope);
  return make_error_code(link != nullptr ? kSuccess : kConnectionError);
}

std::error_code Connection::SendMessageWithReply(const std::shared_ptr<IHash>& message,
                                                 ReplyCallback callback) {
  if (message == nullptr || !callback) return make_error_code(kInvalidArgument);
  xpc_object_t envelope = nullptr;
  if (std::error_code built = BuildEnvelope(message, envelope); built != kSuccess) return built;
  xpc_connection_t link = RetainLink();
  if (link == nullptr) {
    xpc_release(envelope);
    return make_error_code(kConnectionError);
  }
  dispatch_queue_t replyQueue = queue_ != nullptr ? queue_->GetDispatchQueue() : nullptr;
  xpc_connection_send_message_with_reply(link, envelope, replyQueue,
                                         [callback = std::move(callback)](xpc_object_t reply) {
                                           auto [code, hash] = ReadReply(reply);
                                           callback(code, hash);
                                         });
  xpc_release(link);
  xpc_release(envelope);
  return make_error_code(kSuccess);
}

std::error_code Connection::RegisterInvalidationHandler(InvalidationHandler handler) {
  if (!handler) return make_error_code(kInvalidArgument);
  std::lock_guard lock(handlerMutex_);
  invalidationHandler_ = std::move(handler);
  return make_error_code(kSuccess);
}

bool Connection::IsEqual(const std::shared_ptr<IConnection>& other) const {
  const auto* peer = dynamic_cast<const Connection*>(other.get());
  if (peer == nullptr) return false;
  if (peer == this) return true;
  xpc_connection_t mine = RetainLink();
  xpc_connection_t theirs = peer->RetainLink();
  const bool equal = xpc_equal(mine, theirs);
  xpc_release(mine);
  xpc_release(theirs);
  return equal;
}

ClientConnection::ClientConnection()
    : Connection(xpc_connection_create_mach_service(kServiceName, nullptr,
                                                    XPC_CONNECTION_MACH_SERVICE_PRIVILEGED)) {
  if (HasServiceConnection()) return;
  ReportFailure(FailureReport{kReportTag, "ClientConnection", kQelSharedSettingsErrorDomain,
                              "Failed to create client connection"},
                make_error_code(kAllocationFailed));
  throw ConnectionException(make_error_code(kAllocationFailed),
                            "ClientConnection: failed to create xpc client");
}

std::error_code ClientConnection::Create(std::shared_ptr<ClientConnection>& out) {
  try {
    auto made = std::make_shared<ClientConnection>();
    out = std::move(made);
    return make_error_code(kSuccess);
  } catch (const ConnectionException& e) {
    return e.code();
  } catch (const std::bad_alloc&) {
    return make_error_code(kAllocationFailed);
  }
}

void ClientConnection::HandleEvent(void* event) {
  auto* object = static_cast<xpc_object_t>(event);
  if (xpc_get_type(object) == XPC_TYPE_ERROR) {
    Connection::HandleEvent(event);
    return;
  }
  if (xpc_get_type(object) != XPC_TYPE_DICTIONARY) return;
  std::shared_ptr<IHash> hash;
  const std::error_code made = HashOf(xpc_dictionary_get_value(object, kCommandKey), hash);
  if (made != kSuccess) {
    ReportFailure(FailureReport{kReportTag, "HandleEvent", kQelSharedSettingsErrorDomain,
                                "Failed to create hash"},
                  made);
    return;
  }
  MessageHandler handler;
  {
    std::lock_guard lock(handlerMutex_);
    handler = messageHandler_;
  }
  if (handler) handler(hash);
}

std::error_code ClientConnection::RegisterMessageHandler(MessageHandler handler) {
  std::lock_guard lock(handlerMutex_);
  messageHandler_ = std::move(handler);
  return make_error_code(kSuccess);
}

}  // namespace QelSS
