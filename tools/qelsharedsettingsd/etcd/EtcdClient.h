#pragma once

// A client of an etcd cluster's v3 API: one channel per member, requests
// that move on to the next member when one cannot be reached, and a watch
// that resumes where it stopped.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <grpcpp/grpcpp.h>

#include "etcd/etcdserver/etcdserverpb/rpc.grpc.pb.h"

namespace QelSS::service::etcd {

struct ClientOptions {
  std::vector<std::string> endpoints;  // "http://host:port" or "host:port"
  std::chrono::milliseconds dialTimeout{5'000};
  std::chrono::milliseconds requestTimeout{5'000};
};

class Client {
 public:
  // Connects to the first member that answers within the dial time-out.
  // nullptr, with the reason in `error`, when none does or an endpoint is
  // not one this client can use.
  static std::unique_ptr<Client> Connect(const ClientOptions& options, std::string& error);
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // One request, each attempt within the request time-out. A member that
  // cannot be reached is left for the next one; a time-out is the answer
  // (the cluster may lack a quorum, and the request may still take effect).
  grpc::Status Range(const etcdserverpb::RangeRequest& request,
                     etcdserverpb::RangeResponse& response);
  grpc::Status Txn(const etcdserverpb::TxnRequest& request, etcdserverpb::TxnResponse& response);

  // Calls `events` on the watch thread with each response of a watch on
  // [key, rangeEnd) from `startRevision`, until the client is destroyed. A
  // broken watch is made again, with a growing pause, from the revision after
  // the last one heard. When etcd has compacted that revision away,
  // `compacted` is called and the watch goes on from the oldest revision kept.
  void Watch(std::string key, std::string rangeEnd, int64_t startRevision,
             std::function<void(const etcdserverpb::WatchResponse&)> events,
             std::function<void()> compacted);

 private:
  explicit Client(const ClientOptions& options);
  template <typename Call>
  grpc::Status Request(Call&& call);
  void WatchLoop(std::string key, std::string rangeEnd, int64_t revision,
                 const std::function<void(const etcdserverpb::WatchResponse&)>& events,
                 const std::function<void()>& compacted);
  // One watch stream until it breaks; the revision to go on from.
  int64_t WatchOnce(const std::string& key, const std::string& rangeEnd, int64_t revision,
                    const std::function<void(const etcdserverpb::WatchResponse&)>& events,
                    const std::function<void()>& compacted);

  const ClientOptions options_;
  std::vector<std::unique_ptr<etcdserverpb::KV::Stub>> kv_;
  std::vector<std::unique_ptr<etcdserverpb::Watch::Stub>> watch_;
  std::atomic<size_t> preferred_{0};
  std::atomic<bool> stopping_{false};
  std::mutex watchMutex_;
  grpc::ClientContext* watchContext_ = nullptr;  // under watchMutex_
  std::thread watcher_;
};

}  // namespace QelSS::service::etcd
