#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <system_error>

#include "domain/DomainRoot.h"
#include "domain/DomainSetting.h"
#include "domain/ITransactionInternal.h"
#include "domain/RecordKeys.h"
#include "qelss/values/ArrayFactory.h"
#include "qelss/values/HashFactory.h"
#include "qelss/values/INumber.h"
#include "qelss/values/NumberFactory.h"
#include "qelss/values/StringFactory.h"

namespace QelSS::testing {

// A domain held only in memory. Its commits are applied the way a remote domain
// applies the records that the service pushes: validated, applied, and told to
// the observers. Test hooks reach the engine operations on the domain queue.
class InMemoryDomain final : public DomainSetting {
 public:
  InMemoryDomain(const std::string& name, bool remote) : DomainSetting(name, true) {
    SetRemote(remote);
  }

  static std::shared_ptr<InMemoryDomain> Make(const std::string& name = "Alerts",
                                              bool remote = false) {
    return std::make_shared<InMemoryDomain>(name, remote);
  }

  std::error_code FetchSettings(std::function<void(std::error_code)> done) override {
    if (!done) return kInvalidArgument;
    done(make_error_code(kSuccess));
    return kSuccess;
  }

  std::error_code CommitTransaction(const std::shared_ptr<ITransaction>& transaction,
                                    std::function<void(std::error_code)> done) override {
    if (!done) return kInvalidArgument;
    std::shared_ptr<IHash> record;
    std::error_code result = RecordForCommit(transaction, record);
    if (result == kSuccess && record) result = Push(record);
    done(result);
    return kSuccess;
  }

  std::error_code Push(const std::shared_ptr<IHash>& record, bool notify = true) {
    return RunOnDomainQueue("Push", [&] { return ValidateAndApply(record, notify); });
  }
  std::error_code Validate(const std::shared_ptr<IHash>& record) {
    return RunOnDomainQueue("Validate", [&] { return IsTransactionValid(record); });
  }
  std::error_code ApplyUnchecked(const std::shared_ptr<IHash>& record, bool notify) {
    return RunOnDomainQueue("Apply", [&] { return ApplyTransaction(record, notify); });
  }
  std::error_code Load(std::shared_ptr<IHash> root) {
    return RunOnDomainQueue("Load", [&] { return ReplaceSettings(std::move(root)); });
  }
  std::error_code LoadTree(std::shared_ptr<IHash> tree) {
    return RunOnDomainQueue("LoadTree", [&] { return ReplaceSettingsTree(std::move(tree)); });
  }
  void Notify(const std::shared_ptr<IArray>& changes) {
    RunOnDomainQueue("Notify", [&] {
      NotifyObserver(changes);
      return make_error_code(kSuccess);
    });
  }

  int64_t Generation() {
    std::shared_ptr<IHash> root;
    int64_t count = -1;
    if (CopySettings(root) != kSuccess || DomainRoot::GetGenerationCount(root, count) != kSuccess) {
      return -1;
    }
    return count;
  }
};

inline std::shared_ptr<IValue> Int(long long value) {
  std::shared_ptr<INumber> number;
  if (NumberFactory::Create(number, value) != kSuccess) return nullptr;
  return number;
}

inline std::shared_ptr<IValue> Text(const std::string& text) {
  std::shared_ptr<IString> value;
  if (StringFactory::Create(value, text) != kSuccess) return nullptr;
  return value;
}

inline std::optional<long long> IntAt(IDomainSetting& domain, const std::string& path) {
  std::shared_ptr<IValue> value;
  if (domain.Get(path, value) != kSuccess) return std::nullopt;
  auto number = std::dynamic_pointer_cast<INumber>(value);
  int64_t read = 0;
  if (!number || number->GetInt64(read) != kSuccess) return std::nullopt;
  return read;
}

inline std::shared_ptr<ITransaction> NewTransaction(IDomainSetting& domain) {
  std::shared_ptr<ITransaction> transaction;
  if (domain.CreateTransaction(transaction) != kSuccess) return nullptr;
  return transaction;
}

// Runs a commit and returns what its completion reported.
inline std::error_code Commit(IDomainSetting& domain,
                              const std::shared_ptr<ITransaction>& transaction) {
  std::error_code outcome = make_error_code(kFailure);
  std::error_code started =
      domain.CommitTransaction(transaction, [&](std::error_code result) { outcome = result; });
  return started == kSuccess ? outcome : started;
}

inline std::shared_ptr<IHash> RecordOf(const std::shared_ptr<ITransaction>& transaction) {
  std::shared_ptr<IHash> record;
  auto internal = std::dynamic_pointer_cast<ITransactionInternal>(transaction);
  if (!internal || internal->GetTransactionRecord(record) != kSuccess) return nullptr;
  return record;
}

// A record with one change, made by hand as another process would send it.
inline std::shared_ptr<IHash> MakeRecord(const std::string& domainName, long long generation,
                                         const std::string& path,
                                         const std::shared_ptr<IValue>& value) {
  std::shared_ptr<IHash> change;
  std::shared_ptr<IArray> changes;
  std::shared_ptr<IHash> record;
  if (HashFactory::Create(change) != kSuccess || ArrayFactory::Create(changes) != kSuccess ||
      HashFactory::Create(record) != kSuccess) {
    return nullptr;
  }
  bool built = change->Set(RecordKeys::kPath, Text(path)) == kSuccess &&
               change->Set(RecordKeys::kChange, Int(value ? 1 : 0)) == kSuccess &&
               (!value || change->Set(RecordKeys::kNewValue, value) == kSuccess) &&
               changes->Append(change) == kSuccess &&
               record->Set(RecordKeys::kDomainName, Text(domainName)) == kSuccess &&
               record->Set(RecordKeys::kChanges, changes) == kSuccess &&
               record->Set(RecordKeys::kGenerationCount, Int(generation)) == kSuccess;
  return built ? record : nullptr;
}

}  // namespace QelSS::testing
