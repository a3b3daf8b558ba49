#pragma once

#include <memory>
#include <string>
#include <system_error>

#include "domain/ITransactionInternal.h"
#include "qelss/domain/Constants.h"
#include "qelss/domain/ITransaction.h"
#include "qelss/platform/Dispatch.h"
#include "qelss/values/IArray.h"
#include "qelss/values/IHash.h"
#include "qelss/values/IString.h"
#include "values/KeyPath.h"

namespace QelSS {

// The transaction handed out by a domain. Every operation runs its body
// synchronously on the transaction's private queue, with the result preset to
// kFailure so that a body that never runs reports failure.
class Transaction final : public ITransaction, public ITransactionInternal {
 public:
  // A transaction of the domain `domainName` over `workingSettings` (a domain
  // root, taken over by the transaction). kInvalidArgument for an empty name or
  // null settings; the queue's or a factory's code when one cannot be made.
  // `out` is untouched on failure.
  [[nodiscard]] static std::error_code Create(std::shared_ptr<ITransaction>& out,
                                              const std::string& domainName,
                                              std::shared_ptr<IHash> workingSettings);

  // Throws TransactionException with the code Create returns.
  Transaction(const std::string& domainName, std::shared_ptr<IHash>&& workingSettings);
  ~Transaction() override;

  std::error_code Delete(const std::string& path) override;
  std::error_code Set(const std::string& path, const std::shared_ptr<IValue>& value) override;

  std::error_code GetTransactionRecord(std::shared_ptr<IHash>& record) override;
  std::error_code SetTransactionRecord(const std::shared_ptr<IHash>& record) override;
  bool HasChanges() override;
  std::error_code PrepareCommit(std::shared_ptr<IHash>& record, std::shared_ptr<IHash>& base,
                                std::shared_ptr<TreeWriter>& version, size_t& changes) override;

  // Records older than this many generations before the transaction's state are
  // refused. Kept equal to the depth of a domain's change history.
  static constexpr uint64_t kMaxRecordAge = 5;

 private:
  // Runs `body` on the private queue; kFailure when it does not run.
  std::error_code RunOnQueue(QelSS::FunctionRef<std::error_code()> body);
  std::error_code CheckTree() const;
  std::error_code BuildRecord(const std::shared_ptr<IArray>& changes,
                              std::shared_ptr<IHash>& record) const;
  std::error_code AppendChange(const std::string& path, Constants::TransactionChangeType type,
                               const std::shared_ptr<IValue>& value);
  std::error_code TakeOverRecord(const std::shared_ptr<IHash>& record);

  std::shared_ptr<IString> domainName_;  // constant after construction
  // The stored root this transaction started from, with its own changes; it
  // copies only the hashes it changes, so the domain's version stays as it was.
  std::unique_ptr<TreeWriter> working_;           // on queue_ only
  std::shared_ptr<IHash> base_;                   // constant after construction
  bool recordTakenOver_ = false;                  // on queue_ only
  std::shared_ptr<IArray> changes_;               // on queue_ only; never null
  std::shared_ptr<DispatchQueue::IQueue> queue_;  // constant after construction
};

}  // namespace QelSS
