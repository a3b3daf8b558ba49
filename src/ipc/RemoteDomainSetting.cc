#include "ipc/RemoteDomainSetting.h"

#include <algorithm>
#include <utility>

#include "domain/RecordKeys.h"
#include "platform/dispatch/MakeQueue.h"
#include "qelss/ipc/DomainUtil.h"
#include "qelss/platform/ErrorCode.h"
#include "qelss/values/Exceptions.h"
#include "values/ValueCast.h"

namespace QelSS {

// One entry of the fetch group, left exactly once: when the last copy of the
// work that holds it is done or dropped unrun. It keeps the group alive for
// work that outlives the domain.
class RemoteDomainSetting::GroupRef {
 public:
  explicit GroupRef(dispatch_group_t group) : group_(group) {
    dispatch_retain(group_);
    dispatch_group_enter(group_);
  }
  ~GroupRef() {
    dispatch_group_leave(group_);
    dispatch_release(group_);
  }
  GroupRef(const GroupRef&) = delete;
  GroupRef& operator=(const GroupRef&) = delete;

 private:
  dispatch_group_t const group_;
};

namespace {

using Self = std::weak_ptr<RemoteDomainSetting>;

uint64_t Nanoseconds(std::chrono::milliseconds delay) {
  return static_cast<uint64_t>(std::chrono::nanoseconds(delay).count());
}

// The stored root of a fetch reply: kSuccess and `root`, the service's own
// refusal, or kInvalidData for a reply without one.
std::error_code RootOf(const std::shared_ptr<IHash>& reply, std::shared_ptr<IHash>& root) {
  if (std::error_code status = DomainUtil::GetResponseStatus(reply); status != kSuccess) {
    return status;
  }
  std::shared_ptr<IValue> value;
  if (reply->Get(RecordKeys::kSettings, value) != kSuccess || !value ||
      value->GetType() != kValueTypeHash) {
    return make_error_code(kInvalidData);
  }
  root = AsHash(value);
  return root ? make_error_code(kSuccess) : make_error_code(kInvalidData);
}

}  // namespace

RemoteDomainSetting::RemoteDomainSetting(const std::string& name, bool create,
                                         const std::string& client)
    : DomainSetting(name, create, /*remote=*/true), client_(client) {
  std::shared_ptr<ClientConnection> connection;
  if (std::error_code made = ClientConnection::Create(connection); made != kSuccess) {
    throw QelSharedSettingsException(made, "RemoteDomainSetting: Failed to init");
  }
  std::error_code made =
      platform::MakeQueue(reconnectQueue_, DispatchQueue::kQueueTypeSerial,
                          "com.qelvarin.remotedomainsetting.reconnect", QOS_CLASS_DEFAULT);
  if (made != kSuccess)
    throw QelSharedSettingsException(made, "RemoteDomainSetting: Failed to init");
  fetchGroup_ = dispatch_group_create();
  if (fetchGroup_ == nullptr) {
    throw QelSharedSettingsException(make_error_code(kAllocationFailed),
                                     "RemoteDomainSetting: Failed to init group");
  }
  retryTimer_ =
      dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 0, 0, reconnectQueue_->GetDispatchQueue());
  if (retryTimer_ == nullptr) {
    dispatch_release(fetchGroup_);
    throw QelSharedSettingsException(make_error_code(kAllocationFailed),
                                     "RemoteDomainSetting: Failed to init");
  }
  dispatch_source_set_timer(retryTimer_, DISPATCH_TIME_FOREVER, 0, 0);
  dispatch_resume(retryTimer_);
  platform::MutexLock lock(connectionMutex_);
  connection_ = std::move(connection);
}

RemoteDomainSetting::~RemoteDomainSetting() {
  // The last reference may go inside a block on the domain queue.
  if (OnDomainQueue()) {
    state_ = kClosed;
  } else {
    (void)RunOnDomainQueue("~RemoteDomainSetting", [this] {
      state_ = kClosed;
      return make_error_code(kSuccess);
    });
  }
  dispatch_source_cancel(retryTimer_);
  dispatch_release(retryTimer_);
  std::shared_ptr<IConnection> connection = CurrentConnection();
  SetMessageHandler(connection, false);
  connection->ShutDownConnection();
  dispatch_release(fetchGroup_);
}

std::shared_ptr<IConnection> RemoteDomainSetting::CurrentConnection() {
  platform::MutexLock lock(connectionMutex_);
  return connection_;
}

RemoteDomainSetting::State RemoteDomainSetting::CurrentState() {
  State state = kClosed;
  (void)RunOnDomainQueue("CurrentState", [&] {
    state = state_;
    return make_error_code(kSuccess);
  });
  return state;
}

bool RemoteDomainSetting::WaitUntilSettled(std::chrono::milliseconds timeout) {
  return dispatch_group_wait(
             fetchGroup_,
             dispatch_time(DISPATCH_TIME_NOW, static_cast<int64_t>(Nanoseconds(timeout)))) == 0;
}

std::error_code RemoteDomainSetting::StartConnection(
    const std::shared_ptr<IConnection>& connection) {
  // The handler goes in before the link starts: a service that refuses the
  // connection ends it at once, and that end must not go unheard.
  Self weak = std::static_pointer_cast<RemoteDomainSetting>(weak_from_this().lock());
  if (std::error_code registered =
          connection->RegisterInvalidationHandler([weak](std::shared_ptr<IConnection>& lost) {
            if (auto self = weak.lock()) self->OnConnectionLost(lost);
          });
      registered != kSuccess) {
    return registered;
  }
  // The connection reports success as 0, unlike everything else here.
  if (std::error_code started = connection->InitConnection(); started.value() != 0) return started;
  return make_error_code(kSuccess);
}

void RemoteDomainSetting::SetMessageHandler(const std::shared_ptr<IConnection>& connection,
                                            bool deliver) {
  IConnection::MessageHandler handler;
  if (deliver) {
    Self weak = std::static_pointer_cast<RemoteDomainSetting>(weak_from_this().lock());
    handler = [weak](const std::shared_ptr<IHash>& message) {
      if (auto self = weak.lock()) self->OnPushedMessage(message);
    };
  }
  (void)connection->RegisterMessageHandler(std::move(handler));
}

std::error_code RemoteDomainSetting::FetchSettings(Done done) {
  if (!done) return make_error_code(kInvalidArgument);
  const std::shared_ptr<IConnection> connection = CurrentConnection();
  if (std::error_code started = StartConnection(connection); started != kSuccess) {
    done(started);
    return make_error_code(kSuccess);
  }
  Fetch(connection, std::move(done));
  return make_error_code(kSuccess);
}

void RemoteDomainSetting::Fetch(const std::shared_ptr<IConnection>& connection, Done done) {
  std::shared_ptr<IHash> command;
  if (std::error_code made = DomainUtil::CreateCommand(Name(), client_, DomainUtil::kCommandFetch,
                                                       CreateWhenMissing(), command);
      made != kSuccess) {
    done(made);
    return;
  }
  auto entry = std::make_shared<GroupRef>(fetchGroup_);
  Self weak = std::static_pointer_cast<RemoteDomainSetting>(weak_from_this().lock());
  // Holds the connection weakly: the connection keeps this callback.
  std::weak_ptr<IConnection> via = connection;
  const std::error_code sent = connection->SendMessageWithReply(
      command,
      [weak, via, entry, done](std::error_code transport, const std::shared_ptr<IHash>& reply) {
        auto self = weak.lock();
        if (!self || self->CurrentState() == kClosed || transport != kSuccess) {
          done(transport);
          return;
        }
        const std::error_code installed = self->InstallFetched(reply);
        if (installed == kSuccess) {
          if (auto used = via.lock()) self->SetMessageHandler(used, true);
        }
        done(installed);
      });
  if (sent != kSuccess) done(sent);
}

std::error_code RemoteDomainSetting::InstallFetched(const std::shared_ptr<IHash>& reply) {
  std::shared_ptr<IHash> root;
  if (std::error_code read = RootOf(reply, root); read != kSuccess) return read;
  return RunOnDomainQueue("FetchSettings", [&] {
    if (state_ == kClosed) return make_error_code(kSuccess);
    // The first copy has no observers to tell; a later one replaces a copy
    // that they have seen.
    const std::error_code replaced = ReplaceSettings(root, /*notify=*/state_ != kNew);
    if (replaced != kSuccess) return replaced;
    state_ = kReady;
    nextRetry_ = kFirstRetry;
    return replaced;
  });
}

std::error_code RemoteDomainSetting::CommitTransaction(
    const std::shared_ptr<ITransaction>& transaction, Done done) {
  if (!done) return make_error_code(kInvalidArgument);
  std::shared_ptr<IHash> record;
  if (std::error_code built = RecordForCommit(transaction, record); built != kSuccess || !record) {
    done(built);
    return make_error_code(kSuccess);
  }
  std::error_code rc =
      RunOnDomainQueue("CommitTransaction", [&] { return Engine().IsTransactionValid(record); });
  std::shared_ptr<IHash> command;
  if (rc == kSuccess) {
    rc = DomainUtil::CreateCommand(Name(), client_, DomainUtil::kCommandCommit, CreateWhenMissing(),
                                   command);
  }
  if (rc == kSuccess) rc = command->Set(RecordKeys::kTransaction, record);
  if (rc == kSuccess) {
    Self weak = std::static_pointer_cast<RemoteDomainSetting>(weak_from_this().lock());
    rc = CurrentConnection()->SendMessageWithReply(
        command,
        [weak, record, done](std::error_code transport, const std::shared_ptr<IHash>& reply) {
          std::error_code outcome = transport;
          if (outcome == kSuccess) outcome = DomainUtil::GetResponseStatus(reply);
          auto self = weak.lock();
          if (outcome == kSuccess && self) {
            // The service keeps the commit either way; a copy that cannot
            // take it no longer matches and is fetched again.
            (void)self->RunOnDomainQueue("CommitTransaction", [&] {
              if (self->state_ == kReady &&
                  self->ApplyTransaction(record, /*notify=*/false) != kSuccess) {
                self->Refetch();
              }
              return make_error_code(kSuccess);
            });
          }
          done(outcome);
        });
  }
  if (rc != kSuccess) done(rc);
  return make_error_code(kSuccess);
}

void RemoteDomainSetting::OnPushedMessage(const std::shared_ptr<IHash>& message) {
  auto entry = std::make_shared<GroupRef>(fetchGroup_);
  Self weak = std::static_pointer_cast<RemoteDomainSetting>(weak_from_this().lock());
  // Dropped unrun when the domain queue has closed; the entry leaves then.
  (void)PostToDomainQueue([weak, message, entry] {
    if (auto self = weak.lock()) self->ApplyPushed(message);
  });
}

void RemoteDomainSetting::ApplyPushed(const std::shared_ptr<IHash>& message) {
  if (state_ != kReady) return;
  std::string name;
  std::string client;
  bool create = false;
  std::shared_ptr<IHash> record;
  if (DomainUtil::GetCommandInfo(message, name, client, create) != kSuccess ||
      DomainUtil::GetTransactionInfo(message, record) != kSuccess) {
    return;
  }
  std::error_code applied = Engine().IsTransactionValid(record);
  if (applied == kSuccess) applied = ApplyTransaction(record, /*notify=*/true);
  // The copy missed something or no longer matches: take the service's whole.
  if (applied != kSuccess) Refetch();
}

void RemoteDomainSetting::Refetch() {
  state_ = kStale;
  const std::shared_ptr<IConnection> connection = CurrentConnection();
  SetMessageHandler(connection, false);
  Fetch(connection, RetryUnlessFetched());
}

RemoteDomainSetting::Done RemoteDomainSetting::RetryUnlessFetched() {
  Self weak = std::static_pointer_cast<RemoteDomainSetting>(weak_from_this().lock());
  // A copy left stale with nothing under way would stay so for good: a fetch
  // the service refused, or one sent on a connection that had already ended,
  // is tried again on a new connection.
  return [weak](std::error_code fetched) {
    if (fetched == kSuccess) return;
    if (auto self = weak.lock()) {
      (void)self->PostToDomainQueue([weak] {
        if (auto domain = weak.lock()) domain->ScheduleReconnect();
      });
    }
  };
}

// ---- Losing the service and finding it again

void RemoteDomainSetting::OnConnectionLost(const std::shared_ptr<IConnection>& lost) {
  Self weak = std::static_pointer_cast<RemoteDomainSetting>(weak_from_this().lock());
  const IConnection* which = lost.get();
  (void)PostToDomainQueue([weak, which] {
    auto self = weak.lock();
    // An older connection's end means nothing now.
    if (self && self->CurrentConnection().get() == which) self->ScheduleReconnect();
  });
}

void RemoteDomainSetting::ScheduleReconnect() {
  // Before the first fetch the opener hears of the failure and gives up.
  if (state_ == kNew || state_ == kClosed) return;
  state_ = kStale;
  // A loss and the failed fetch it causes both land here: one attempt.
  if (reconnectPending_) return;
  reconnectPending_ = true;
  Self weak = std::static_pointer_cast<RemoteDomainSetting>(weak_from_this().lock());
  dispatch_source_set_event_handler(retryTimer_, [weak] {
    if (auto domain = weak.lock()) domain->Reconnect();
  });
  dispatch_source_set_timer(
      retryTimer_, dispatch_time(DISPATCH_TIME_NOW, static_cast<int64_t>(Nanoseconds(nextRetry_))),
      0, 0);
  nextRetry_ = std::min(nextRetry_ * 2, kLongestRetry);
}

void RemoteDomainSetting::Reconnect() {
  bool closed = true;
  (void)RunOnDomainQueue("Reconnect", [&] {
    reconnectPending_ = false;
    closed = state_ == kClosed;
    return make_error_code(kSuccess);
  });
  if (closed) return;
  std::shared_ptr<ClientConnection> made;
  if (ClientConnection::Create(made) != kSuccess) {
    RetryUnlessFetched()(make_error_code(kConnectionError));
    return;
  }
  // The new connection is the current one before it starts, so that its end,
  // however soon, is taken for the loss it is.
  std::shared_ptr<IConnection> fresh = std::move(made);
  std::shared_ptr<IConnection> old;
  {
    platform::MutexLock lock(connectionMutex_);
    old = std::exchange(connection_, fresh);
  }
  SetMessageHandler(old, false);
  old->ShutDownConnection();
  if (std::error_code started = StartConnection(fresh); started != kSuccess) {
    RetryUnlessFetched()(started);
    return;
  }
  Fetch(fresh, RetryUnlessFetched());
}

std::shared_ptr<DomainSetting> MakeRemoteDomain(const std::string& name, bool create,
                                                const std::string& client) {
  return std::make_shared<RemoteDomainSetting>(name, create, client);
}

}  // namespace QelSS
