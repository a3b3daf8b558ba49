#pragma once

#include <memory>
#include <system_error>

#include "qelss/values/IHash.h"
#include "values/KeyPath.h"

namespace QelSS {

// The engine's view of a transaction: turning it into a transaction record and
// back. A transaction record is a Hash:
//   "DomainName"                        String  the domain's lower-case name
//   "NewValue"                          Array   the change records, oldest first
//   "QelSharedSettingsGenerationCount"  Number  (int64) the generation from which
//                                               the transaction was made
// Thread-safe as ITransaction is.
class ITransactionInternal {
 public:
  virtual ~ITransactionInternal();

  // A new record. Its change array is the transaction's own, shared: later
  // changes to the transaction show in it. The first failing step's code, with
  // `record` untouched.
  [[nodiscard]] virtual std::error_code GetTransactionRecord(std::shared_ptr<IHash>& record) = 0;

  // Takes over the change array of a record made elsewhere (shared, not
  // copied).
  //   kSuccess              taken over
  //   kTransactionConflict  another domain's record, or one made more than five
  //                         generations before this transaction's state
  //   kNotFound             the record has no "NewValue"; or it is not an Array,
  //                         and then this transaction's changes are emptied
  //   kInvalidData          the name or a generation count is missing or of the
  //                         wrong type
  [[nodiscard]] virtual std::error_code SetTransactionRecord(
      const std::shared_ptr<IHash>& record) = 0;

  // True when at least one change is recorded.
  virtual bool HasChanges() = 0;

  // For a commit: the record (as GetTransactionRecord makes it), how many
  // changes it holds now, and, when the working copy is exactly the stored
  // root the transaction started from (`base`) with those changes, the writer
  // that made it (`version`, whose copies its new owner may go on changing);
  // after SetTransactionRecord both stay null. The transaction goes on with a
  // writer of its own over the same tree, so later changes copy what they
  // change (and show in the record's shared change array, which is why the
  // count is given).
  [[nodiscard]] virtual std::error_code PrepareCommit(std::shared_ptr<IHash>& record,
                                                      std::shared_ptr<IHash>& base,
                                                      std::shared_ptr<TreeWriter>& version,
                                                      size_t& changes) = 0;
};

}  // namespace QelSS
