#include "domain/Transaction.h"

#include <utility>
#include <vector>

#include "domain/ChangeRecord.h"
#include "domain/DomainRoot.h"
#include "domain/RecordKeys.h"
#include "platform/dispatch/MakeQueue.h"
#include "platform/report/Failure.h"
#include "platform/report/Report.h"
#include "qelss/values/ArrayFactory.h"
#include "qelss/values/Exceptions.h"
#include "qelss/values/HashFactory.h"
#include "qelss/values/NumberFactory.h"
#include "qelss/values/StringFactory.h"
#include "values/ContainerSupport.h"
#include "values/KeyPath.h"
#include "values/StorableText.h"
#include "values/ValueCast.h"

namespace QelSS {
namespace {

constexpr uint32_t kQueueTag = DispatchQueue::MakeTag("QSSE");
constexpr uint32_t kReportTag = QelErrTag("SSTR");

void ThrowOnFailure(std::error_code code) {
  if (code != kSuccess) throw TransactionException(code, "Transaction: Failed to init");
}

// `path` of the settings tree as a path of the stored root, which holds the
// tree under one key.
std::string InTree(const std::string& path) {
  return std::string(RecordKeys::kInternalSettings) + "/" + path;
}

}  // namespace

std::error_code Transaction::Create(std::shared_ptr<ITransaction>& out,
                                    const std::string& domainName,
                                    std::shared_ptr<IHash> workingSettings) {
  try {
    out = std::make_shared<Transaction>(domainName, std::move(workingSettings));
    return kSuccess;
  } catch (const TransactionException& e) {
    return e.code();
  }
}

Transaction::Transaction(const std::string& domainName, std::shared_ptr<IHash>&& workingSettings) {
  if (domainName.empty() || !workingSettings) ThrowOnFailure(kInvalidArgument);
  ThrowOnFailure(platform::MakeQueue(queue_, DispatchQueue::kQueueTypeDefault,
                                     "com.qelvarin.qss.transaction", QOS_CLASS_USER_INTERACTIVE));
  ThrowOnFailure(StringFactory::Create(domainName_, domainName));
  ThrowOnFailure(ArrayFactory::Create(changes_));
  base_ = workingSettings;
  working_ = std::make_unique<TreeWriter>(std::move(workingSettings));
}

Transaction::~Transaction() = default;

std::error_code Transaction::RunOnQueue(QelSS::FunctionRef<std::error_code()> body) {
  std::error_code result = make_error_code(kFailure);
  try {
    queue_->Sync(kQueueTag, DispatchQueue::kRunChangesState, [&] { result = body(); });
  } catch (...) {
    ReportCaughtException(1, kReportTag, "Transaction");
    result = make_error_code(kFailure);
  }
  return result;
}

// The stored root must hold its settings tree as a hash: kNotFound when it
// holds none, kInvalidData when it holds something else.
std::error_code Transaction::CheckTree() const {
  std::shared_ptr<IValue> value;
  if (std::error_code found = working_->Root()->Get(RecordKeys::kInternalSettings, value);
      found != kSuccess) {
    return found;
  }
  return AsHash(value) ? make_error_code(kSuccess) : make_error_code(kInvalidData);
}

std::error_code Transaction::Delete(const std::string& path) {
  return RunOnQueue([&]() -> std::error_code {
    if (path.find_first_not_of('/') == std::string::npos) return kInvalidArgument;
    if (std::error_code checked = CheckTree(); checked != kSuccess) return checked;
    std::error_code removed = working_->Remove(InTree(path));
    if (removed == kNotFound) return kSuccess;
    if (removed != kSuccess) return removed;
    return AppendChange(path, Constants::Delete, nullptr);
  });
}

std::error_code Transaction::Set(const std::string& path, const std::shared_ptr<IValue>& value) {
  if (path.empty() || !value) return kInvalidArgument;
  if (std::error_code storable = CheckStorablePath(path, value); storable != kSuccess) {
    return storable;
  }
  // What is committed is the value as it is now: a container the caller
  // changes later must not change the transaction, nor the version it makes.
  std::shared_ptr<IValue> own;
  if (std::error_code copied = OwnCopy(value, own); copied != kSuccess) return copied;
  return RunOnQueue([&]() -> std::error_code {
    if (path.find_first_not_of('/') == std::string::npos) return kInvalidArgument;
    if (std::error_code checked = CheckTree(); checked != kSuccess) return checked;
    std::error_code stored = working_->Store(InTree(path), own);
    if (stored == kOperationRefused) return kSuccess;
    if (stored != kSuccess) return stored;
    return AppendChange(path, Constants::Set, own);
  });
}

// Runs after the working copy has changed. Only allocation can fail here, and
// then the copy is ahead of the record; the caller sees the failure and the
// transaction is not worth committing.
std::error_code Transaction::AppendChange(const std::string& path,
                                          Constants::TransactionChangeType type,
                                          const std::shared_ptr<IValue>& value) {
  std::shared_ptr<IHash> change;
  if (std::error_code made = MakeChangeRecord(path, type, value, change); made != kSuccess) {
    return made;
  }
  return changes_->Append(change);
}

std::error_code Transaction::BuildRecord(const std::shared_ptr<IArray>& changes,
                                         std::shared_ptr<IHash>& record) const {
  std::shared_ptr<IHash> built;
  if (std::error_code made = HashFactory::Create(built); made != kSuccess) return made;
  if (std::error_code set = built->Set(RecordKeys::kDomainName, domainName_); set != kSuccess) {
    return set;
  }
  if (std::error_code set = built->Set(RecordKeys::kChanges, changes); set != kSuccess) return set;
  std::shared_ptr<IValue> count;
  if (std::error_code got = working_->Root()->Get(RecordKeys::kGenerationCount, count);
      got != kSuccess) {
    return got;
  }
  if (std::error_code set = built->Set(RecordKeys::kGenerationCount, count); set != kSuccess) {
    return set;
  }
  record = std::move(built);
  return kSuccess;
}

std::error_code Transaction::GetTransactionRecord(std::shared_ptr<IHash>& record) {
  return RunOnQueue([&] { return BuildRecord(changes_, record); });
}

std::error_code Transaction::PrepareCommit(std::shared_ptr<IHash>& record,
                                           std::shared_ptr<IHash>& base,
                                           std::shared_ptr<TreeWriter>& version, size_t& changes) {
  return RunOnQueue([&]() -> std::error_code {
    if (std::error_code built = BuildRecord(changes_, record); built != kSuccess) return built;
    changes = changes_->GetCount();
    if (!recordTakenOver_) {
      base = base_;
      version = std::make_shared<TreeWriter>(std::move(*working_));
      working_ = std::make_unique<TreeWriter>(version->Root());
    }
    return make_error_code(kSuccess);
  });
}

std::error_code Transaction::SetTransactionRecord(const std::shared_ptr<IHash>& record) {
  if (!record) return kInvalidArgument;
  return RunOnQueue([&] { return TakeOverRecord(record); });
}

std::error_code Transaction::TakeOverRecord(const std::shared_ptr<IHash>& record) {
  // Whatever the outcome below, the working copy may no longer match the record.
  recordTakenOver_ = true;
  std::shared_ptr<IValue> name;
  if (std::error_code got = record->Get(RecordKeys::kDomainName, name); got != kSuccess) {
    return got;
  }
  auto text = AsString(name);
  if (!text) return kInvalidData;
  if (std::string_view(text->GetCString()) != domainName_->GetCString()) {
    return kTransactionConflict;
  }

  int64_t recordCount = 0;
  int64_t ownCount = 0;
  if (std::error_code got = DomainRoot::GetGenerationCount(record, recordCount); got != kSuccess) {
    return got;
  }
  if (std::error_code got = DomainRoot::GetGenerationCount(working_->Root(), ownCount);
      got != kSuccess) {
    return got;
  }
  // Compared as unsigned on purpose, so that a negative count never passes for
  // a recent one.
  if (static_cast<uint64_t>(ownCount) > static_cast<uint64_t>(recordCount) + kMaxRecordAge) {
    return kTransactionConflict;
  }

  std::shared_ptr<IValue> changes;
  if (std::error_code got = record->Get(RecordKeys::kChanges, changes); got != kSuccess) {
    return got;
  }
  if (auto array = AsArray(changes)) {
    changes_ = std::move(array);
    return kSuccess;
  }
  std::shared_ptr<IArray> empty;
  if (std::error_code made = ArrayFactory::Create(empty); made != kSuccess) return made;
  changes_ = std::move(empty);
  return kNotFound;
}

bool Transaction::HasChanges() {
  bool any = false;
  try {
    queue_->Sync(kQueueTag, DispatchQueue::kRunNoFlags, [&] { any = changes_->GetCount() != 0; });
  } catch (...) {
    ReportCaughtException(1, kReportTag, "HasChanges");
  }
  return any;
}

}  // namespace QelSS
