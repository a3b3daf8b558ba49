#pragma once

// Where a served domain's state is kept: this machine's state folder, or a
// store that the services of several machines share. A store is made per
// domain and called on that domain's queue only.

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "StoredEntry.h"
#include "domain/CommitEngine.h"
#include "qelss/values/IHash.h"

namespace QelSS::service {

class DomainStore {
 public:
  virtual ~DomainStore() = default;

  // Loads the stored state into `engine`, a fresh one. When there is none:
  // kDomainNotOpen, or with `create` an empty domain is stored and loaded.
  [[nodiscard]] virtual std::error_code Load(bool create, CommitEngine& engine) = 0;

  // Stores `entry`, the commit that makes the state's next generation.
  // kSuccess: stored (durable once WhenDurable says so). kTransactionConflict:
  // another machine's commits came first; `missed` holds them in order (the
  // caller's own entry among them when an earlier attempt did land after
  // all), to apply before validating again. Other codes: not stored, or not
  // known to be (the state then learns the outcome from `missed` later).
  [[nodiscard]] virtual std::error_code Append(const StoredEntry& entry,
                                               std::vector<StoredEntry>& missed) = 0;

  // The entries after generation `after`, in order. kNotFound when they are
  // no longer all kept (a newer snapshot replaced them): the caller loads
  // the state again.
  [[nodiscard]] virtual std::error_code Since(int64_t after, std::vector<StoredEntry>& entries) = 0;

  // Calls `then` once everything appended so far is durable, in call order.
  virtual void WhenDurable(std::function<void(std::error_code)> then) = 0;

  // Keeps `engine`'s state as the snapshot that the entries up to its
  // generation are no longer needed beside. kTransactionConflict when the
  // store has moved on since (another machine then snapshots its own).
  [[nodiscard]] virtual std::error_code Snapshot(const CommitEngine& engine) = 0;

  // Whether Append only writes to this machine, so that a commit may run on
  // the I/O thread rather than wait for the domain's queue.
  virtual bool AppendsLocally() const = 0;
};

// Makes the stores of a service's domains.
class StoreProvider {
 public:
  // Called, on any thread, with commits that other machines made to a
  // domain, in order; may be called again with entries already seen. No
  // entries: some may have been missed, ask the store (Since).
  using Listener = std::function<void(std::vector<StoredEntry>)>;

  virtual ~StoreProvider() = default;
  // The store of domain `name` (validated and canonical); `listener` hears
  // of other machines' commits until the store is destroyed. Throws when
  // the store cannot be made.
  virtual std::unique_ptr<DomainStore> Open(const std::string& name, Listener listener) = 0;
};

}  // namespace QelSS::service
