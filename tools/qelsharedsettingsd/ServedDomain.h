#pragma once

// One domain that the service keeps: its state and rules (the library's
// commit engine), the store that keeps it, and the connections that follow
// it. Everything runs on the domain's own serial queue, so commits to
// different domains never wait for each other.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "DomainStore.h"
#include "Session.h"
#include "domain/CommitEngine.h"
#include "qelss/platform/Dispatch.h"
#include "qelss/values/IHash.h"

namespace QelSS::service {

struct StoreSettings {
  std::shared_ptr<StoreProvider> stores;
  // A snapshot is written once a domain has had no commit for this long.
  std::chrono::milliseconds quiet{10'000};
};

class ServedDomain : public std::enable_shared_from_this<ServedDomain> {
 public:
  // `name` is already validated and canonical. Throws when the queue cannot
  // be made.
  ServedDomain(std::string name, const StoreSettings& settings);
  ~ServedDomain();
  ServedDomain(const ServedDomain&) = delete;
  ServedDomain& operator=(const ServedDomain&) = delete;

  // Queues the command `command` (the "IPCCommand" dictionary, owned) of
  // `session` for the domain queue and returns at once. `request` is the
  // number to answer under, or kNoRequest.
  void Handle(std::shared_ptr<Session> session, uint64_t request, xpc_object_t command);
  // Sets each value at its key path in one commit, as a client's transaction
  // would (creating the domain when missing), journalled as the service's own
  // and pushed to every follower. Waits at most `limit` for it to be durable
  // (kTimeout). kSuccess without a commit when every value is already there.
  [[nodiscard]] std::error_code Import(
      const std::vector<std::pair<std::string, std::shared_ptr<IValue>>>& values,
      std::chrono::milliseconds limit);
  // Writes a snapshot when the state is newer than the last one and empties
  // the journal. Waits for the domain queue.
  void SaveNow();

 private:
  struct Command;
  struct Committer;

  // ---- On the domain queue.
  void Run(const std::shared_ptr<Session>& session, uint64_t request, xpc_object_t command);
  void Fetch(const std::shared_ptr<Session>& session, uint64_t request, bool create);
  void Commit(const std::shared_ptr<Session>& session, uint64_t request, const Command& command,
              xpc_object_t recordObject);
  // Validates, stores and applies `record` (also as `recordObject`), pushes
  // it to the followers but the committer, and calls `done` once, when it is
  // durable or refused.
  void Apply(const std::shared_ptr<IHash>& record, xpc_object_t recordObject,
             const Committer& committer, std::function<void(std::error_code)> done);
  // Stores `entry`, first taking in what other machines committed before it.
  // kSuccess with `landed` set when the entry turned out to be stored already
  // and was applied as such (done was called).
  std::error_code Store(StoredEntry& entry, const std::shared_ptr<IHash>& record,
                        const Committer& committer, std::function<void(std::error_code)>& done,
                        bool& landed);
  // Applies the stored `entry` of `record`, pushes it and calls `done`.
  void Finish(const StoredEntry& entry, const std::shared_ptr<IHash>& record,
              const Committer& committer, std::function<void(std::error_code)> done);
  // Another machine's commits: applied in order, pushed to every follower.
  void TakeIn(const std::vector<StoredEntry>& entries);
  bool TakeInOne(const StoredEntry& entry);
  // Fetches what the state misses from the store; loads it again when the
  // store no longer keeps the steps between.
  void CatchUp();
  void Reload();
  std::error_code EnsureLoaded(bool create);
  void Follow(const std::shared_ptr<Session>& session);
  std::vector<std::shared_ptr<Session>> FollowersBut(const Session* committer);
  void Push(const std::vector<std::shared_ptr<Session>>& followers, const std::string& client,
            bool create, const std::shared_ptr<IHash>& record);
  void ScheduleSnapshot();
  void SnapshotIfQuiet();
  void WriteSnapshot();

  const std::string name_;
  const StoreSettings settings_;
  std::shared_ptr<DispatchQueue::IQueue> queue_;
  // On the domain queue only.
  std::unique_ptr<CommitEngine> engine_;
  // Set once engine_ is loaded from a store that appends locally, for the
  // I/O thread's look before a commit.
  std::atomic<bool> quickCommits_{false};
  std::unique_ptr<DomainStore> store_;
  std::vector<std::weak_ptr<Session>> followers_;
  bool dirty_ = false;
  std::chrono::steady_clock::time_point lastCommit_;
  dispatch_source_t snapshotTimer_ = nullptr;
  bool timerArmed_ = false;
};

// Whether `name` may name a domain file: not empty, at most 200 bytes, no
// "/", no "..", no control characters.
bool IsValidDomainName(const std::string& name);
// The name as every comparison and file name uses it: ASCII lower case.
std::string CanonicalDomainName(std::string name);

}  // namespace QelSS::service
