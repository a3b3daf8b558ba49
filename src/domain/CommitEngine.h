#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "domain/ChangeHistory.h"
#include "domain/ChangeRecord.h"
#include "platform/support/Mutex.h"
#include "qelss/values/IHash.h"
#include "values/KeyPath.h"

namespace QelSS {

// One domain's state and the rules that change it: the stored root
// (generation count and settings tree), the history of the paths that recent
// generations changed, and the validation, merging and application of
// transaction records against them. Used by the in-process domains and by the
// settings service for the domains it keeps.
//
// Not thread-safe: its owner serialises every call (a domain runs them on its
// queue). Failures that a user must hear of are reported here.
class CommitEngine {
 public:
  // An empty tree at generation 0 for domain `name` (already canonical).
  // `remote`: the state is a copy of one kept by another process, whose
  // records may be ahead of it. Throws QelSharedSettingsException when the
  // root cannot be made.
  CommitEngine(std::string name, bool remote);

  const std::string& Name() const noexcept { return name_; }
  // The settings tree of the current version, for reads. A version is never
  // changed once it is the state: each commit makes a new one that shares
  // every hash it did not change, so what a reader or transaction holds stays
  // as it was, on any thread.
  const std::shared_ptr<IHash>& Tree() const noexcept { return tree_; }
  // The same tree for a reader on any thread, without the owner's queue: a
  // read never waits for a commit in progress, and sees the version before it
  // or the one after, whole, and frozen (see Hash::Freeze).
  //
  // Each thread keeps the last versions it read, of a few domains, so that a
  // read that finds the version unchanged writes nothing another thread
  // reads: neither a lock nor a reference count. The tree stays valid until
  // this thread's next call for any domain. The price: a thread holds on to a
  // version it read, of at most kKeptVersions domains, until it reads again.
  const IHash* ReadableTree() const;
  static constexpr size_t kKeptVersions = 4;

  // The stored root (count and tree) of the current version: what a
  // transaction starts from and a snapshot writes, without a copy.
  const std::shared_ptr<IHash>& Root() const noexcept { return settings_; }
  // The stored generation count; 0 when it cannot be read.
  int64_t GenerationCount() const;
  // Deep copies of the whole stored root, or of the settings tree alone, for
  // a caller that changes them in place. kInvalidData when the copy is not a
  // hash.
  [[nodiscard]] std::error_code CloneRoot(std::shared_ptr<IHash>& copy) const;
  [[nodiscard]] std::error_code CloneTree(std::shared_ptr<IHash>& copy) const;

  // Whether `record` may be applied to the current state:
  //   kSuccess              made from the current generation, or from a recent
  //                         one and touching nothing changed since
  //   kInvalidArgument      null record
  //   kInvalidData          another domain's record (reported as malformed), or
  //                         a name or count of the wrong type
  //   kTransactionConflict  too old, ahead of a local domain, or colliding
  // Refusals are reported.
  [[nodiscard]] std::error_code IsTransactionValid(const std::shared_ptr<IHash>& record);

  // The merge test of IsTransactionValid for a record whose generation differs
  // from the state's: kTransactionConflict when one of its changes touches a
  // path changed by the generations in between, or when the history no longer
  // reaches back to the record's generation; kInvalidData for a malformed record.
  [[nodiscard]] std::error_code TransactionCanBeMerged(const std::shared_ptr<IHash>& record) const;

  // Applies every change of `record` to the tree, raises the generation count
  // and remembers the changed paths; `applied` gets the changes, for the
  // observers. A malformed record (kInvalidArgument for null, kInvalidData for
  // a change array or change record of the wrong shape) changes nothing. A
  // change that the tree refuses stops the walk with its code and changes
  // nothing either.
  [[nodiscard]] std::error_code ApplyTransaction(const std::shared_ptr<IHash>& record,
                                                 std::vector<Change>& applied);

  // ValidateAndApply for a record whose transaction computed the outcome
  // already: when `base` is the current root (nothing was committed since the
  // transaction began) and the record still holds `changes` changes, the
  // tree of `version` (that root with those changes) becomes the state with
  // the count raised, instead of the changes being applied again. Otherwise,
  // or with a null `version`, ValidateAndApply.
  [[nodiscard]] std::error_code AdoptTransaction(const std::shared_ptr<IHash>& record,
                                                 const std::shared_ptr<IHash>& base,
                                                 const std::shared_ptr<TreeWriter>& version,
                                                 size_t changes, std::vector<Change>& applied);

  // IsTransactionValid, then ApplyTransaction.
  [[nodiscard]] std::error_code ValidateAndApply(const std::shared_ptr<IHash>& record,
                                                 std::vector<Change>& applied);

  // Raises the stored generation count by one (an absent count counts as 0).
  // Failures are reported.
  [[nodiscard]] std::error_code IncrementGCCount();

  // Adds the paths of `record` to the history as the changes of the current
  // generation. Failures are reported.
  [[nodiscard]] std::error_code UpdateGCChanges(const std::shared_ptr<IHash>& record);

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
  std::error_code ApplyChanges(TreeWriter& writer, const std::vector<Change>& changes);
  // The count raised by one, in `writer`'s version (failures reported).
  std::error_code RaiseCount(TreeWriter& writer) const;
  // Makes `root` (a stored root) the state.
  void Publish(TreeWriter& writer);
  // Hands tree_ to readers on other threads.
  void Publish();
  std::error_code RememberChanges(const std::vector<Change>& changes);
  std::error_code CheckDomainName(const std::shared_ptr<IHash>& record) const;
  std::error_code ReportInvalid(const char* message, std::error_code code, int64_t inCount,
                                int64_t orgCount) const;

  const std::string name_;
  const bool isRemote_;
  // tree_ is the settings tree inside settings_, kept at hand because every
  // read starts from it; only ReplaceSettings changes which hashes the two are.
  std::shared_ptr<IHash> settings_;
  std::shared_ptr<IHash> tree_;
  // tree_, for readers on other threads; held only to copy the pointer.
  mutable platform::Mutex publishedMutex_;
  std::shared_ptr<IHash> published_ QELSS_GUARDED_BY(publishedMutex_);
  uint64_t publishedVersion_ QELSS_GUARDED_BY(publishedMutex_) = 0;
  // publishedVersion_, for the readers' check that nothing changed.
  std::atomic<uint64_t> version_{0};
  // Never reused in a process, so that a thread's kept version of a domain
  // that is gone is never taken for another's.
  const uint64_t id_;
  ChangeHistory history_;
};

}  // namespace QelSS
