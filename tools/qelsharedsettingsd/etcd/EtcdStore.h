#pragma once

// Domains kept in an etcd cluster that the services of several machines
// share. Per domain, under the prefix:
//
//   domains/<name>/generation        the generation count (decimal)
//   domains/<name>/snapshot          the byte form of the stored root
//   domains/<name>/log/<generation>  the entry of each commit newer than the
//                                    snapshot (20 digits, so keys sort)
//
// Every value is sealed (authenticated and encrypted) under the cluster key
// that every machine's service is given. A commit is one transaction that
// compares the generation key's revision with the one this service last saw
// and then puts the new count and the commit's log entry; a snapshot deletes
// the log entries it holds.

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "../DomainStore.h"
#include "EtcdClient.h"

namespace QelSS::service::etcd {

struct StoreOptions {
  ClientOptions client;
  std::string prefix = "/qelvarin/";
  std::vector<uint8_t> clusterKey;  // 32 bytes
};

class EtcdStore;

class EtcdStores final : public StoreProvider {
 public:
  // Connects and starts watching the prefix. Throws std::runtime_error, with
  // a reason fit for the administrator, when the cluster cannot be used.
  explicit EtcdStores(StoreOptions options);
  ~EtcdStores() override;

  std::unique_ptr<DomainStore> Open(const std::string& name, Listener listener) override;

 private:
  friend class EtcdStore;
  void Heard(const etcdserverpb::WatchResponse& response);
  void Register(const std::string& name, EtcdStore* store);
  void Unregister(const std::string& name, EtcdStore* store);

  const StoreOptions options_;
  std::unique_ptr<Client> client_;
  std::mutex mutex_;  // guards stores_, and each store while it is told of revisions
  std::multimap<std::string, EtcdStore*> stores_;
};

class EtcdStore final : public DomainStore {
 public:
  EtcdStore(EtcdStores& owner, std::string name, StoreProvider::Listener listener);
  ~EtcdStore() override;

  std::error_code Load(bool create, CommitEngine& engine) override;
  std::error_code Append(const StoredEntry& entry, std::vector<StoredEntry>& missed) override;
  std::error_code Since(int64_t after, std::vector<StoredEntry>& entries) override;
  void WhenDurable(std::function<void(std::error_code)> then) override;
  std::error_code Snapshot(const CommitEngine& engine) override;
  bool AppendsLocally() const override { return false; }

 private:
  friend class EtcdStores;
  // Remembers that generation `generation` is the state since `revision`.
  void Saw(int64_t generation, int64_t revision);
  int64_t RevisionOf(int64_t generation);
  std::error_code Read(int64_t after, bool withSnapshot, etcdserverpb::TxnResponse& response);
  std::error_code Create(CommitEngine& engine, bool& created);
  // The entries of the log keys in `range`, in order (those it could open).
  std::vector<StoredEntry> EntriesOf(const etcdserverpb::RangeResponse& range);
  std::error_code Failed(const char* what, const grpc::Status& status) const;
  std::string LogKey(int64_t generation) const;

  EtcdStores& owner_;
  const std::string name_;
  const std::string base_;  // "<prefix>domains/<name>/"
  const StoreProvider::Listener listener_;
  std::mutex mutex_;
  std::map<int64_t, int64_t> revisions_;  // generation -> revision, under mutex_
};

// The key of a "domains/<name>/log/<generation>" key under `prefix`: false
// for any other key.
bool ParseLogKey(const std::string& key, const std::string& prefix, std::string& name,
                 int64_t& generation);

}  // namespace QelSS::service::etcd
