#pragma once

#include <functional>
#include <memory>
#include <string>
#include <system_error>

#include "qelss/Export.h"
#include "qelss/domain/IObserver.h"
#include "qelss/domain/ITransaction.h"
#include "qelss/platform/Dispatch.h"
#include "qelss/values/IValue.h"

namespace QelSS {

// One open settings domain: a tree of values under "/"-separated key paths and
// a generation count that rises by one with every applied transaction.
//
// Domains are opened by the domain factory and always held through
// std::shared_ptr. Every operation is thread-safe: reads and changes of the
// state run one at a time on the domain's own serial queue. Completions and
// observers never run inside that queue, so they may call the domain again.
class QELSS_EXPORT IDomainSetting {
 public:
  // Copies the domain's name, lower-cased. kSuccess; kFailure if copying fails.
  [[nodiscard]] virtual std::error_code GetName(std::string& name) = 0;

  // `value` shares the value at `path` in the committed state. Commits never
  // change a committed state, so a hash read here keeps what it held when it
  // was read; changing it changes every state that shares it, so copy it
  // first. kNotFound when a level of the path is absent or not a hash;
  // kInvalidArgument for a path without components. `value` is untouched on
  // failure.
  [[nodiscard]] virtual std::error_code Get(const std::string& path,
                                            std::shared_ptr<IValue>& value) = 0;

  // A new transaction over the current state. It copies only the hashes on the
  // paths it changes, so its cost follows its changes, not the domain's size.
  [[nodiscard]] virtual std::error_code CreateTransaction(
      std::shared_ptr<ITransaction>& transaction) = 0;

  // Commits the transaction's changes. Returns kSuccess when the commit was
  // started; `done` is then called exactly once with the outcome, possibly
  // before this returns and possibly on another thread, but never from inside
  // the domain's queue:
  //   kSuccess              applied (also for a transaction without changes,
  //                         which applies nothing and leaves the count alone)
  //   kInvalidArgument      null transaction
  //   kTransactionConflict  made from a state too old, or colliding with
  //                         changes committed since: rebuild it from a fresh
  //                         transaction
  //   other                 the failure of the domain's store or service
  // Any other result means the commit did not start and `done` is not called
  // (kInvalidArgument for an empty `done`).
  [[nodiscard]] virtual std::error_code CommitTransaction(
      const std::shared_ptr<ITransaction>& transaction,
      std::function<void(std::error_code)> done) = 0;

  // Registers `observer` (held weakly) to be told of the changes that this
  // domain applies on behalf of others. It is called on `queue` (retained until
  // the entry goes), or on the domain's own observer queue when `queue` is null.
  // An observer added twice is told twice. kInvalidArgument for a null observer.
  [[nodiscard]] virtual std::error_code AddObserver(dispatch_queue_t queue,
                                                    const std::shared_ptr<IObserver>& observer) = 0;

  // Removes every entry of `observer`, and every entry whose observer no longer
  // exists. kSuccess when at least one entry went, kNotFound when none did.
  // Deliveries already queued still run; detach a SettingsObserver to stop them.
  [[nodiscard]] virtual std::error_code RemoveObserver(
      const std::shared_ptr<IObserver>& observer) = 0;

  virtual ~IDomainSetting();
};

}  // namespace QelSS
