#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "domain/DomainRoot.h"
#include "domain/DomainSetting.h"
#include "domain/ITransactionInternal.h"
#include "domain/RecordKeys.h"
#include "platform/DispatchTestSupport.h"
#include "qelss/values/ArrayFactory.h"
#include "qelss/values/HashFactory.h"
#include "qelss/values/INumber.h"
#include "qelss/values/NumberFactory.h"
#include "qelss/values/StringFactory.h"

namespace QelSS::testing {

// A domain held only in memory. Its commits are applied the way a remote domain
// applies the records that the service pushes: validated, applied and told to
// the observers.
class InMemoryDomain final : public DomainSetting {
 public:
  InMemoryDomain(const std::string& name, bool remote) : DomainSetting(name, true, remote) {}
  static std::shared_ptr<InMemoryDomain> Make(const std::string& name = "Alerts",
                                              bool remote = false) {
    return std::make_shared<InMemoryDomain>(name, remote);
  }

  std::error_code FetchSettings(std::function<void(std::error_code)> done) override {
    done(make_error_code(kSuccess));
    return kSuccess;
  }
  std::error_code CommitTransaction(const std::shared_ptr<ITransaction>& transaction,
                                    std::function<void(std::error_code)> done) override {
    if (!done) return kInvalidArgument;
    // As a local domain commits: the transaction's outcome is adopted when
    // nothing was committed since it began.
    PreparedCommit commit;
    std::error_code result = PrepareCommit(transaction, commit);
    if (result == kSuccess && commit.record) {
      result = RunOnDomainQueue("Commit", [&] { return AdoptOrApply(commit, true); });
    }
    done(result);
    return kSuccess;
  }

  std::error_code Push(const std::shared_ptr<IHash>& record, bool notify = true) {
    return RunOnDomainQueue("Push", [&] { return ValidateAndApply(record, notify); });
  }
  std::error_code Validate(const std::shared_ptr<IHash>& record) {
    return RunOnDomainQueue("Validate", [&] { return Engine().IsTransactionValid(record); });
  }
  std::error_code Load(std::shared_ptr<IHash> root) {
    return RunOnDomainQueue("Load", [&] { return Engine().ReplaceSettings(std::move(root)); });
  }
  std::error_code LoadTree(std::shared_ptr<IHash> tree) {
    return RunOnDomainQueue("LoadTree",
                            [&] { return Engine().ReplaceSettingsTree(std::move(tree)); });
  }
  int64_t Generation() {
    std::shared_ptr<IHash> root;
    int64_t count = -1;
    if (CopySettings(root) == kSuccess) (void)DomainRoot::GetGenerationCount(root, count);
    return count;
  }
};

inline std::shared_ptr<IValue> Int(long long value) {
  std::shared_ptr<INumber> number;
  (void)NumberFactory::Create(number, value);
  return number;
}

inline std::shared_ptr<IValue> Text(const std::string& text) {
  std::shared_ptr<IString> value;
  (void)StringFactory::Create(value, text);
  return value;
}

inline std::optional<long long> IntAt(IDomainSetting& domain, const std::string& path) {
  std::shared_ptr<IValue> value;
  int64_t read = 0;
  if (domain.Get(path, value) != kSuccess) return std::nullopt;
  auto number = std::dynamic_pointer_cast<INumber>(value);
  if (!number || number->GetInt64(read) != kSuccess) return std::nullopt;
  return read;
}

inline std::shared_ptr<ITransaction> NewTransaction(IDomainSetting& domain) {
  std::shared_ptr<ITransaction> transaction;
  (void)domain.CreateTransaction(transaction);
  return transaction;
}

// What the commit's completion reported.
inline std::error_code Commit(IDomainSetting& domain,
                              const std::shared_ptr<ITransaction>& transaction) {
  std::error_code outcome = make_error_code(kFailure);
  std::error_code started =
      domain.CommitTransaction(transaction, [&](std::error_code result) { outcome = result; });
  return started == kSuccess ? outcome : started;
}

inline std::shared_ptr<IHash> RecordOf(const std::shared_ptr<ITransaction>& transaction) {
  std::shared_ptr<IHash> record;
  (void)dynamic_cast<ITransactionInternal&>(*transaction).GetTransactionRecord(record);
  return record;
}

// A record with one change, built by hand as another process would send it; a
// null value makes the change a deletion.
inline std::shared_ptr<IHash> MakeRecord(const std::string& domainName, long long generation,
                                         const std::string& path,
                                         const std::shared_ptr<IValue>& value) {
  std::shared_ptr<IHash> change, record;
  std::shared_ptr<IArray> changes;
  (void)HashFactory::Create(change);
  (void)HashFactory::Create(record);
  (void)ArrayFactory::Create(changes);
  (void)change->Set(RecordKeys::kPath, Text(path));
  (void)change->Set(RecordKeys::kChange, Int(value ? 1 : 0));
  if (value) (void)change->Set(RecordKeys::kNewValue, value);
  (void)changes->Append(change);
  (void)record->Set(RecordKeys::kDomainName, Text(domainName));
  (void)record->Set(RecordKeys::kChanges, changes);
  (void)record->Set(RecordKeys::kGenerationCount, Int(generation));
  return record;
}

// Returns once every block queued on `queue` before the call has run.
inline void Drain(dispatch_queue_t queue) {
  EventCounter ran;
  dispatch_async(queue, [&] { ran.Add(); });
  ran.WaitFor(1, std::chrono::hours(1));
}

}  // namespace QelSS::testing
