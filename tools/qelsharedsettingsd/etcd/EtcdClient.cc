#include "EtcdClient.h"

#include <algorithm>

#include "../Log.h"

namespace QelSS::service::etcd {
namespace {

// Larger answers than this are refused rather than let a damaged or hostile
// store make the service's memory grow: a domain's snapshot is far smaller.
constexpr int kMaxMessage = 64 << 20;
constexpr std::chrono::milliseconds kFirstPause{100};
constexpr std::chrono::milliseconds kLongestPause{2'000};

std::chrono::system_clock::time_point After(std::chrono::milliseconds span) {
  return std::chrono::system_clock::now() + span;
}

std::shared_ptr<grpc::Channel> ChannelTo(const std::string& target) {
  grpc::ChannelArguments arguments;
  arguments.SetMaxReceiveMessageSize(kMaxMessage);
  arguments.SetInt(GRPC_ARG_INITIAL_RECONNECT_BACKOFF_MS, 100);
  arguments.SetInt(GRPC_ARG_MAX_RECONNECT_BACKOFF_MS, 1'000);
  return grpc::CreateCustomChannel(target, grpc::InsecureChannelCredentials(), arguments);
}

// "host:port" of an endpoint URL; empty when it is not one this client speaks.
std::string TargetOf(const std::string& endpoint) {
  constexpr std::string_view kPlain = "http://";
  std::string target = endpoint;
  if (target.starts_with(kPlain)) target.erase(0, kPlain.size());
  if (target.find("://") != std::string::npos || target.empty()) return "";
  while (!target.empty() && target.back() == '/') target.pop_back();
  return target;
}

}  // namespace

Client::Client(const ClientOptions& options) : options_(options) {}

Client::~Client() {
  stopping_ = true;
  {
    std::lock_guard lock(watchMutex_);
    if (watchContext_ != nullptr) watchContext_->TryCancel();
  }
  if (watcher_.joinable()) watcher_.join();
}

std::unique_ptr<Client> Client::Connect(const ClientOptions& options, std::string& error) {
  if (options.endpoints.empty()) {
    error = "no etcd endpoint given";
    return nullptr;
  }
  std::unique_ptr<Client> client(new Client(options));
  std::vector<std::shared_ptr<grpc::Channel>> channels;
  for (const std::string& endpoint : options.endpoints) {
    const std::string target = TargetOf(endpoint);
    if (target.empty()) {
      error = "etcd endpoint '" + endpoint + "' is not http://host:port";
      return nullptr;
    }
    channels.push_back(ChannelTo(target));
    client->kv_.push_back(etcdserverpb::KV::NewStub(channels.back()));
    client->watch_.push_back(etcdserverpb::Watch::NewStub(channels.back()));
  }
  const auto deadline = After(options.dialTimeout);
  bool reached = false;
  for (size_t i = 0; i < channels.size() && !reached; ++i) {
    if (channels[i]->WaitForConnected(deadline)) {
      client->preferred_ = i;
      reached = true;
    }
  }
  if (!reached) {
    error = "no etcd member answered within " + std::to_string(options.dialTimeout.count()) + " ms";
    return nullptr;
  }
  // Reaching a member is not enough: a cluster without a quorum cannot serve.
  etcdserverpb::RangeRequest probe;
  probe.set_key("/");
  probe.set_count_only(true);
  etcdserverpb::RangeResponse answer;
  if (grpc::Status status = client->Range(probe, answer); !status.ok()) {
    error = "the etcd cluster does not serve requests: " + status.error_message();
    return nullptr;
  }
  return client;
}

template <typename Call>
grpc::Status Client::Request(Call&& call) {
  const size_t members = kv_.size();
  const size_t first = preferred_.load();
  grpc::Status status;
  for (size_t i = 0; i < members; ++i) {
    const size_t at = (first + i) % members;
    grpc::ClientContext context;
    context.set_deadline(After(options_.requestTimeout));
    status = call(*kv_[at], context);
    if (status.error_code() != grpc::StatusCode::UNAVAILABLE) {
      preferred_ = at;
      return status;
    }
  }
  return status;
}

grpc::Status Client::Range(const etcdserverpb::RangeRequest& request,
                           etcdserverpb::RangeResponse& response) {
  return Request([&](etcdserverpb::KV::Stub& kv, grpc::ClientContext& context) {
    return kv.Range(&context, request, &response);
  });
}

grpc::Status Client::Txn(const etcdserverpb::TxnRequest& request,
                         etcdserverpb::TxnResponse& response) {
  return Request([&](etcdserverpb::KV::Stub& kv, grpc::ClientContext& context) {
    return kv.Txn(&context, request, &response);
  });
}

void Client::Watch(std::string key, std::string rangeEnd, int64_t startRevision,
                   std::function<void(const etcdserverpb::WatchResponse&)> events,
                   std::function<void()> compacted) {
  watcher_ = std::thread([this, key = std::move(key), rangeEnd = std::move(rangeEnd), startRevision,
                          events = std::move(events), compacted = std::move(compacted)] {
    WatchLoop(key, rangeEnd, startRevision, events, compacted);
  });
}

void Client::WatchLoop(std::string key, std::string rangeEnd, int64_t revision,
                       const std::function<void(const etcdserverpb::WatchResponse&)>& events,
                       const std::function<void()>& compacted) {
  std::chrono::milliseconds pause = kFirstPause;
  while (!stopping_) {
    const int64_t from = revision;
    revision = WatchOnce(key, rangeEnd, revision, events, compacted);
    if (stopping_) return;
    if (revision != from) {
      pause = kFirstPause;
      continue;
    }
    Log(LOG_WARNING, "etcd watch broken; trying again in %lld ms",
        static_cast<long long>(pause.count()));
    preferred_ = (preferred_.load() + 1) % watch_.size();
    for (auto waited = std::chrono::milliseconds(0); waited < pause && !stopping_;
         waited += std::chrono::milliseconds(20)) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    pause = std::min(pause * 2, kLongestPause);
  }
}

int64_t Client::WatchOnce(const std::string& key, const std::string& rangeEnd, int64_t revision,
                          const std::function<void(const etcdserverpb::WatchResponse&)>& events,
                          const std::function<void()>& compacted) {
  grpc::ClientContext context;
  {
    std::lock_guard lock(watchMutex_);
    if (stopping_) return revision;
    watchContext_ = &context;
  }
  auto stream = watch_[preferred_.load() % watch_.size()]->Watch(&context);
  etcdserverpb::WatchRequest request;
  etcdserverpb::WatchCreateRequest* create = request.mutable_create_request();
  create->set_key(key);
  create->set_range_end(rangeEnd);
  create->set_start_revision(revision);
  etcdserverpb::WatchResponse response;
  if (stream->Write(request)) {
    while (stream->Read(&response)) {
      if (response.compact_revision() > 0) {
        Log(LOG_WARNING, "etcd compacted revision %lld away; catching up",
            static_cast<long long>(revision));
        revision = response.compact_revision();
        compacted();
        break;
      }
      if (response.canceled()) break;
      int64_t last = 0;
      for (const auto& event : response.events()) last = std::max(last, event.kv().mod_revision());
      if (last >= revision) revision = last + 1;
      events(response);
    }
  }
  {
    std::lock_guard lock(watchMutex_);
    watchContext_ = nullptr;
  }
  context.TryCancel();
  (void)stream->Finish();
  return revision;
}

}  // namespace QelSS::service::etcd
