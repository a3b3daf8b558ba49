#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "domain/ChangeRecord.h"
#include "domain/CommitEngine.h"
#include "domain/IDomainSettingInternal.h"
#include "domain/ObserverList.h"
#include "qelss/domain/IDomainSetting.h"
#include "qelss/platform/Dispatch.h"
#include "qelss/platform/FunctionRef.h"
#include "qelss/values/IArray.h"
#include "qelss/values/IHash.h"

namespace QelSS {

// One open domain: its state and the rules that change it (a CommitEngine),
// the queue that serialises them, and the observers.
//
// Subclasses supply where the state comes from and where commits go:
//   FetchSettings      load the state, install it with the engine's
//                      ReplaceSettings or ReplaceSettingsTree (on the domain
//                      queue), then call `done`.
//   CommitTransaction  turn the transaction into a record (RecordForCommit),
//                      then on the domain queue check and apply it
//                      (ValidateAndApply, or the engine's IsTransactionValid
//                      and ApplyTransaction when something must happen in
//                      between), and call `done` exactly once, after the
//                      block on the domain queue has ended (`done` may call
//                      the domain again).
// A subclass for a domain kept by another process passes `remote` true to the
// constructor.
//
// Locking: the engine is touched only on the domain queue. The public
// operations enter it synchronously; the operations marked below do not, and must be called from a
// block running on it (RunOnDomainQueue or PostToDomainQueue). The observer list has its own mutex,
// which is never held while the domain queue is entered or an observer runs; observers are called
// asynchronously, on their own queue or the observer queue, so a commit never waits for one.
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

  // A commit as RecordForCommit makes it, with the outcome the transaction
  // computed: `base` and `version` as ITransactionInternal::PrepareCommit
  // gives them, for the engine's AdoptTransaction.
  struct PreparedCommit {
    std::shared_ptr<IHash> record;
    std::shared_ptr<IHash> base;
    std::shared_ptr<TreeWriter> version;
    size_t changes = 0;
  };
  [[nodiscard]] static std::error_code PrepareCommit(
      const std::shared_ptr<ITransaction>& transaction, PreparedCommit& commit);

  // ---- On the domain queue only.

  // The state and its rules (see CommitEngine).
  CommitEngine& Engine() noexcept;
  const CommitEngine& Engine() const noexcept;

  // The engine's ValidateAndApply and ApplyTransaction, telling the observers
  // of the applied changes when `notify` is set.
  [[nodiscard]] std::error_code ValidateAndApply(const std::shared_ptr<IHash>& record, bool notify);
  // The same through the engine's AdoptTransaction.
  [[nodiscard]] std::error_code AdoptOrApply(const PreparedCommit& commit, bool notify);
  [[nodiscard]] std::error_code ApplyTransaction(const std::shared_ptr<IHash>& record, bool notify);

  // Posts the changes of `changes` (an array of change records) to every live
  // observer. Nothing is posted when a change record cannot be read.
  void NotifyObserver(const std::shared_ptr<IArray>& changes);

  // The engine's ReplaceSettings. With `notify`, the observers are then told
  // the differences between the tree replaced and the new one, as one change
  // list (none when the trees are equal), so that none of them misses a change
  // that the replaced copy never saw.
  [[nodiscard]] std::error_code ReplaceSettings(std::shared_ptr<IHash> root, bool notify);

 private:
  void Deliver(const std::vector<Change>& changes);
  void Deliver(std::vector<ObserverList::Delivery> deliveries, const std::vector<Change>& changes);

  // Constant after construction.
  std::shared_ptr<DispatchQueue::IQueue> domainQueue_;
  std::shared_ptr<DispatchQueue::IQueue> observerQueue_;
  const std::string name_;
  const bool createWhenMissing_;
  const bool isRemote_;

  // On the domain queue only.
  CommitEngine engine_;

  ObserverList observers_;
};

}  // namespace QelSS
