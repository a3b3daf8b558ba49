#pragma once

// A domain kept in this machine's state folder: its snapshot (a domain file,
// under "domains/") and its journal (under "journals/") of the commits newer
// than the snapshot.

#include <memory>
#include <string>

#include "DomainStore.h"
#include "Journal.h"

namespace QelSS::service {

class LocalStore final : public DomainStore {
 public:
  LocalStore(std::string name, std::string stateDir, SyncMode sync);

  std::error_code Load(bool create, CommitEngine& engine) override;
  std::error_code Append(const StoredEntry& entry, std::vector<StoredEntry>& missed) override;
  std::error_code Since(int64_t after, std::vector<StoredEntry>& entries) override;
  void WhenDurable(std::function<void(std::error_code)> then) override;
  std::error_code Snapshot(const CommitEngine& engine) override;
  bool AppendsLocally() const override { return true; }

 private:
  std::error_code Replay(CommitEngine& engine);

  const std::string name_;
  const std::string snapshotPath_;
  const std::string journalPath_;
  const SyncMode sync_;
  std::unique_ptr<Journal> journal_;
};

class LocalStores final : public StoreProvider {
 public:
  LocalStores(std::string stateDir, SyncMode sync) : stateDir_(std::move(stateDir)), sync_(sync) {}
  std::unique_ptr<DomainStore> Open(const std::string& name, Listener listener) override;

 private:
  const std::string stateDir_;
  const SyncMode sync_;
};

}  // namespace QelSS::service
