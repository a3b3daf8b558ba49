#pragma once

#include <memory>
#include <system_error>

#include "qelss/values/IHash.h"

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

  // For a commit: a record of the changes so far (its change array a copy, so
  // that later changes do not show in it) and, when the working copy is
  // exactly the stored root the transaction started from (`base`) with those
  // changes, that copy (`version`); after SetTransactionRecord both stay null.
  // The version is the caller's from then on: later changes to the
  // transaction copy what they change instead of changing it.
  [[nodiscard]] virtual std::error_code PrepareCommit(std::shared_ptr<IHash>& record,
                                                      std::shared_ptr<IHash>& base,
                                                      std::shared_ptr<IHash>& version) = 0;
};

}  // namespace QelSS
