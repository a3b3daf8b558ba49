#include "Service.h"

#include "Log.h"
#include "domain/RecordKeys.h"
#include "qelss/ipc/DomainUtil.h"
#include "qelss/platform/ErrorCode.h"
#include "qelss/values/XPCObject.h"

namespace QelSS::service {
namespace {

// As long as a client waits for its synchronous commit.
constexpr std::chrono::seconds kImportLimit{30};

// The answer to a message that never reaches a domain.
void Refuse(const std::shared_ptr<Session>& session, uint64_t request, ErrorCode code) {
  if (request == platform::ipc::kNoRequest) return;
  XPCObject response(xpc_dictionary_create(nullptr, nullptr, 0), false);
  xpc_dictionary_set_int64(response.Get(), RecordKeys::kResponse, code);
  XPCObject envelope(xpc_dictionary_create(nullptr, nullptr, 0), false);
  xpc_dictionary_set_value(envelope.Get(), "IPCResponse", response.Get());
  auto frame = std::make_shared<std::vector<uint8_t>>();
  if (platform::ipc::EncodeFrame(request, envelope.Get(), *frame) == kSuccess) {
    session->Send(std::move(frame));
  }
}

}  // namespace

Service::Service(asio::io_context& io, StoreSettings settings, std::chrono::seconds idleExit)
    : io_(io), settings_(std::move(settings)), idleExit_(idleExit), idleTimer_(io) {
  ArmIdleTimer();
}

void Service::Serve(asio::local::stream_protocol::acceptor& acceptor) { Accept(acceptor); }

void Service::Accept(asio::local::stream_protocol::acceptor& acceptor) {
  acceptor.async_accept(
      [this, &acceptor](const std::error_code& error, asio::local::stream_protocol::socket socket) {
        if (error == asio::error::operation_aborted) return;
        if (!error) {
          auto session = std::make_shared<Session>(
              std::move(socket),
              [this](const std::shared_ptr<Session>& s, uint64_t request, xpc_object_t message) {
                OnFrame(s, request, message);
              },
              [this](const Session& s) { OnClose(s); });
          sessions_.insert(session);
          idleTimer_.cancel();
          session->Start();
        } else {
          Log(LOG_WARNING, "accept failed: %s", error.message().c_str());
        }
        Accept(acceptor);
      });
}

void Service::OnFrame(const std::shared_ptr<Session>& session, uint64_t request,
                      xpc_object_t message) {
  XPCObject owned(message, false);
  xpc_object_t command = xpc_dictionary_get_value(message, "IPCCommand");
  const char* name = xpc_dictionary_get_string(command, RecordKeys::kDomainName);
  if (xpc_get_type(command) != XPC_TYPE_DICTIONARY || name == nullptr) {
    Log(LOG_WARNING, "message without a command from uid %u pid %d", session->Peer().uid,
        session->Peer().pid);
    Refuse(session, request, kInvalidCommand);
    return;
  }
  if (!IsValidDomainName(name)) {
    Log(LOG_WARNING, "bad domain name from uid %u pid %d", session->Peer().uid,
        session->Peer().pid);
    Refuse(session, request, kInvalidArgument);
    return;
  }
  std::shared_ptr<ServedDomain> domain = DomainNamed(CanonicalDomainName(name));
  if (domain == nullptr) {
    Refuse(session, request, kFailure);
    return;
  }
  domain->Handle(session, request, xpc_retain(command));
}

std::shared_ptr<ServedDomain> Service::DomainNamed(const std::string& name) {
  std::lock_guard lock(mutex_);
  auto& domain = domains_[name];
  if (domain == nullptr) {
    try {
      domain = std::make_shared<ServedDomain>(name, settings_);
    } catch (const std::exception& e) {
      Log(LOG_ERR, "%s", e.what());
      domains_.erase(name);
      return nullptr;
    }
  }
  return domain;
}

void Service::OnClose(const Session& session) {
  for (auto it = sessions_.begin(); it != sessions_.end(); ++it) {
    if (it->get() == &session) {
      sessions_.erase(it);
      break;
    }
  }
  if (sessions_.empty()) ArmIdleTimer();
}

void Service::ArmIdleTimer() {
  if (idleExit_.count() == 0) return;
  idleTimer_.expires_after(idleExit_);
  idleTimer_.async_wait([this](const std::error_code& error) {
    if (error || !sessions_.empty()) return;
    Log(LOG_INFO, "no client for %lld s: exiting", static_cast<long long>(idleExit_.count()));
    io_.stop();
  });
}

std::error_code Service::Import(
    const std::string& name,
    const std::vector<std::pair<std::string, std::shared_ptr<IValue>>>& values) {
  if (!IsValidDomainName(name)) return kInvalidArgument;
  std::shared_ptr<ServedDomain> domain = DomainNamed(CanonicalDomainName(name));
  if (domain == nullptr) return kFailure;
  return domain->Import(values, kImportLimit);
}

void Service::SaveAll() {
  for (const auto& session : std::set(sessions_)) session->Close();
  std::map<std::string, std::shared_ptr<ServedDomain>> domains;
  {
    std::lock_guard lock(mutex_);
    domains = domains_;
  }
  for (auto& [name, domain] : domains) domain->SaveNow();
}

}  // namespace QelSS::service
