#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <system_error>

#include "domain/ChangeHistory.h"
#include "domain/ChangeRecord.h"
#include "domain/IDomainSettingInternal.h"
#include "domain/ObserverList.h"
#include "qelss/domain/IDomainSetting.h"
#include "qelss/platform/Dispatch.h"
#include "qelss/platform/FunctionRef.h"
#include "qelss/values/IArray.h"
#include "qelss/values/IHash.h"

namespace QelSS {

// The in-memory state of one open domain and the engine that changes it: the
// stored root (generation count and settings tree), the history of the paths
// that recent generations changed, and the observers.
//
// Subclasses supply where the state comes from and where commits go:
//   FetchSettings      load the state, install it with ReplaceSettings or
//                      ReplaceSettingsTree (on the domain queue), then call
//                      `done`.
//   CommitTransaction  turn the transaction into a record (RecordForCommit),
//                      then on the domain queue check and apply it
//                      (ValidateAndApply, or IsTransactionValid and
//                      ApplyTransaction when something must happen in
//                      between), and call `done` exactly once, after the
//                      block on the domain queue has ended (`done` may call
//                      the domain again).
// A subclass for a domain kept by another process passes `remote` true to the
// constructor.
//
// Locking: the stored root and the history are touched only on the domain
// queue. The public operations enter it synchronously; the engine operations
// below do not, and must be called from a block running on it (RunOnDomainQueue
// or PostToDomainQueue). The observer list has its own mutex, which is never
// held while the domain queue is entered or an observer runs; observers are
// called asynchronously, on their own queue or the observer queue, so a commit
// never waits for one.
class DomainSetting : public IDomainSetting,
                      public IDomainSettingInternal,
                      public std::enable_shared_from_this<DomainSetting> {
 public:
  ~DomainSetting() override;

  std::error_code GetName(std::string& name) override;
  std::error_code Get(const std::string& path, std::shared_ptr<IValue>& value) override;
  std::error_code CreateTransaction(std::shared_ptr<ITransaction>& transaction) override;
  std::error_code AddObserver(dispatch_queue_t queue,
                              const std::shared_ptr<IObserver>& observer) override;
  std::error_code RemoveObserver(const std::shared_ptr<IObserver>& observer) override;
  std::error_code CopySettings(std::shared_ptr<IHash>& settings) override;
  std::error_code CopySettingsTree(std::shared_ptr<IHash>& tree) override;
  // A domain whose commits are stored as they are made: nothing to wait for.
  std::error_code SaveSettings(unsigned waitSeconds) override;
  std::error_code DamagedFileKept(std::string& path) override;

  // Loads the domain's state and calls `done` with the outcome. Returns
  // kSuccess when `done` will be called.
  [[nodiscard]] virtual std::error_code FetchSettings(
      std::function<void(std::error_code)> done) = 0;

 protected:
  // Lower-cases `name` (byte-wise, C locale) and starts with an empty tree at
  // generation 0. `remote`: the domain is kept by another process, whose
  // records may be ahead of this copy. Throws QelSharedSettingsException
  // ("DomainSettings: Failed to init") when a queue or the tree cannot be made.
  DomainSetting(const std::string& name, bool createWhenMissing, bool remote = false);

  // ---- Constant after construction; readable from any thread.
  const std::string& Name() const noexcept { return name_; }
  // The name as every comparison and file name uses it: ASCII lower case.
  static std::string CanonicalName(std::string name);
  bool CreateWhenMissing() const noexcept { return createWhenMissing_; }
  bool IsRemote() const noexcept { return isRemote_; }

  // The serial queue that guards the state, for timer sources and hops.
  DispatchQueue::IQueue& DomainQueue() const noexcept { return *domainQueue_; }
  // True inside a block running on the domain queue, where RunOnDomainQueue
  // must not be called.
  bool OnDomainQueue() const noexcept;

  // Runs `body` synchronously on the domain queue and returns its result;
  // kFailure when the queue no longer runs blocks. An exception escaping `body`
  // is reported under `operation` and becomes kFailure. Not from the domain
  // queue itself.
  std::error_code RunOnDomainQueue(const char* operation, FunctionRef<std::error_code()> body);

  // Queues `body` on the domain queue and returns at once; false when the queue
  // no longer runs blocks. `body` must not throw.
  bool PostToDomainQueue(std::function<void()> body);

  // The record to commit for `transaction`:
  //   kInvalidArgument  null transaction
  //   kInvalidData      not a transaction made by this library
  //   kSuccess          `record` holds the record, or is left null when the
  //                     transaction has no changes: commit nothing, report
  //                     kSuccess
  //   other             the failure of building the record
  [[nodiscard]] static std::error_code RecordForCommit(
      const std::shared_ptr<ITransaction>& transaction, std::shared_ptr<IHash>& record);

  // ---- Engine operations: call on the domain queue only.

  // Whether `record` may be applied to the current state:
  //   kSuccess              made from the current generation, or from a recent
  //                         one and touching nothing changed since
  //   kInvalidData          another domain's record (reported as malformed), or
  //                         a name or count of the wrong type
  //   kTransactionConflict  too old, ahead of a local domain, or colliding
  // Refusals are reported.
  [[nodiscard]] std::error_code IsTransactionValid(const std::shared_ptr<IHash>& record);

  // The merge test of IsTransactionValid for a record whose generation differs
  // from the domain's: kTransactionConflict when one of its changes touches a
  // path changed by the generations in between, or when the history no longer
  // reaches back to the record's generation; kInvalidData for a malformed record.
  [[nodiscard]] std::error_code TransactionCanBeMerged(const std::shared_ptr<IHash>& record) const;

  // Applies every change of `record` to the tree, raises the generation count,
  // remembers the changed paths, and when `notify` is set tells the observers.
  // A malformed record (kInvalidArgument for null, kInvalidData for a change
  // array or change record of the wrong shape) changes nothing. A change that
  // the tree refuses stops the walk with its code; the changes before it stay
  // applied and the count does not move.
  [[nodiscard]] std::error_code ApplyTransaction(const std::shared_ptr<IHash>& record, bool notify);

  // A deep copy of the whole stored root (CopySettings for a caller already on
  // the domain queue). kInvalidData when the copy is not a hash.
  [[nodiscard]] std::error_code CloneSettings(std::shared_ptr<IHash>& copy) const;

  // IsTransactionValid, then ApplyTransaction.
  [[nodiscard]] std::error_code ValidateAndApply(const std::shared_ptr<IHash>& record, bool notify);

  // Raises the stored generation count by one (an absent count counts as 0).
  // Failures are reported.
  [[nodiscard]] std::error_code IncrementGCCount();

  // Adds the paths of `record` to the history as the changes of the current
  // generation. Failures are reported.
  [[nodiscard]] std::error_code UpdateGCChanges(const std::shared_ptr<IHash>& record);

  // Posts the changes of `changes` (an array of change records) to every live
  // observer. Nothing is posted when a change record cannot be read.
  void NotifyObserver(const std::shared_ptr<IArray>& changes);

  // Installs `root` (a stored root: an int64 generation count and a settings
  // hash) as the whole state, and forgets the change history, which described
  // the state replaced. kInvalidArgument for null; kInvalidData, state
  // unchanged, for a root of the wrong shape.
  [[nodiscard]] std::error_code ReplaceSettings(std::shared_ptr<IHash> root);

  // ReplaceSettings with a fresh root at generation 0 around `tree`: how a
  // domain is loaded from a store that keeps the tree but no count.
  // kInvalidArgument for null; a factory's code when the root cannot be made.
  [[nodiscard]] std::error_code ReplaceSettingsTree(std::shared_ptr<IHash> tree);

 private:
  std::error_code ApplyChanges(const std::vector<Change>& changes);
  std::error_code RememberChanges(const std::vector<Change>& changes);
  std::error_code CheckDomainName(const std::shared_ptr<IHash>& record) const;
  std::error_code ReportInvalid(const char* message, std::error_code code, int64_t inCount,
                                int64_t orgCount) const;
  void Deliver(const std::vector<Change>& changes);

  // Constant after construction.
  std::shared_ptr<DispatchQueue::IQueue> domainQueue_;
  std::shared_ptr<DispatchQueue::IQueue> observerQueue_;
  const std::string name_;
  const bool createWhenMissing_;
  const bool isRemote_;

  // On the domain queue only. tree_ is the settings tree inside settings_,
  // kept at hand because every read starts from it; only ReplaceSettings
  // changes which hashes the two are.
  std::shared_ptr<IHash> settings_;
  std::shared_ptr<IHash> tree_;
  ChangeHistory history_;

  ObserverList observers_;
};

}  // namespace QelSS
