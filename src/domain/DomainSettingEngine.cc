// Validation, merging and application of transaction records, and the
// notification of observers. Everything here runs on the domain queue.

#include <cassert>
#include <utility>

#include "domain/DomainRoot.h"
#include "domain/DomainSetting.h"
#include "domain/RecordKeys.h"
#include "persistence/CaughtException.h"
#include "platform/report/Report.h"
#include "qelss/values/NumberFactory.h"
#include "values/FailureReport.h"
#include "values/KeyPath.h"

namespace QelSS {
namespace {

constexpr uint32_t kReportTag = QelErrTag("DOST");

uint64_t Distance(int64_t a, int64_t b) {
  // Unsigned subtraction gives the exact distance for any two counts.
  return a >= b ? static_cast<uint64_t>(a) - static_cast<uint64_t>(b)
                : static_cast<uint64_t>(b) - static_cast<uint64_t>(a);
}

std::error_code Report(const char* operation, const char* message, std::error_code code) {
  return ReportFailure(FailureReport{kReportTag, operation, kQelSharedSettingsErrorDomain, message},
                       code);
}

// Checks what ApplyChanges cannot undo halfway: a change without a value to
// store or without a key to store it under.
std::error_code CheckApplicable(const std::vector<Change>& changes) {
  for (const Change& change : changes) {
    if (!change.IsDeletion() && !change.value) return kInvalidData;
    if (KeyPath::Split(change.path->GetCString()).empty()) return kInvalidData;
  }
  return kSuccess;
}

std::error_code ReadRecordChanges(const std::shared_ptr<IHash>& record,
                                  std::vector<Change>& changes) {
  std::shared_ptr<IArray> array;
  if (std::error_code got = GetChangeArray(record, array); got != kSuccess) return got;
  return ReadChanges(array, changes);
}

}  // namespace

std::error_code DomainSetting::CheckDomainName(const std::shared_ptr<IHash>& record) const {
  std::shared_ptr<IValue> value;
  if (std::error_code got = DomainRoot::LookUp(*record, RecordKeys::kDomainName, value);
      got != kSuccess) {
    return got;
  }
  auto text = std::dynamic_pointer_cast<IString>(value);
  if (!text) return kInvalidData;
  if (name_ != text->GetCString()) {
    // Another domain's record is malformed for this one, not a conflict.
    return ReportFailure(FailureReport{kReportTag, "DomainSettings", kQelSharedSettingsErrorDomain,
                                       "Domain does not match", nullptr, text->GetCString()},
                         make_error_code(kInvalidData));
  }
  return kSuccess;
}

std::error_code DomainSetting::ReportInvalid(const char* message, std::error_code code,
                                             int64_t inCount, int64_t orgCount) const {
  const char* domain = kQelSharedSettingsErrorDomain;
  QelErrReportRef report =
      QelErrReportingBeginFailureReport(1, kReportTag, "", "", kQelErrLocationCaller);
  QelTrace("%s", message);
  QelErrReportingAddStringFailure(report, "IsTransactionValid", domain, message);
  QelTrace("IsTransactionValid failed (%d)", code.value());
  // Only records naming this domain get this far.
  QelErrReportingAddStringErrorData(report, "DomainName", name_.c_str());
  QelErrReportingAddIntFailure(report, "IsTransactionValid", domain, code.value());
  QelErrReportingAddIntFailure(report, "inGCCount", domain, inCount);
  QelErrReportingAddIntFailure(report, "orgGCCount", domain, orgCount);
  QelErrReportingAddIntFailure(report, "IsRemoteDomain", domain, isRemote_ ? 1 : 0);
  QelErrReportingEndFailureReport(report);
  return code;
}

std::error_code DomainSetting::IsTransactionValid(const std::shared_ptr<IHash>& record) {
  assert(OnDomainQueue());
  if (!record) return kInvalidArgument;
  if (std::error_code named = CheckDomainName(record); named != kSuccess) return named;

  int64_t orgCount = 0;
  if (std::error_code got = DomainRoot::GetGenerationCount(settings_, orgCount); got != kSuccess) {
    QelTrace("orgGCCount failed (%d)", got.value());
    return got;
  }
  int64_t inCount = 0;
  if (std::error_code got = DomainRoot::GetGenerationCount(record, inCount); got != kSuccess) {
    QelTrace("inGCCount failed (%d)", got.value());
    return got;
  }
  if (orgCount == inCount) return kSuccess;

  // A local domain is the authority on its own count, so a record from a
  // generation it has not reached cannot be real; a remote copy may lag behind
  // the service that made the record.
  const bool ahead = inCount > orgCount;
  if ((ahead && !isRemote_) || Distance(orgCount, inCount) > ChangeHistory::kDepth) {
    return ReportInvalid("Transaction is not valid", make_error_code(kTransactionConflict), inCount,
                         orgCount);
  }
  if (std::error_code merged = TransactionCanBeMerged(record); merged != kSuccess) {
    return ReportInvalid("Transaction cannot be merged", merged, inCount, orgCount);
  }
  return kSuccess;
}

std::error_code DomainSetting::TransactionCanBeMerged(const std::shared_ptr<IHash>& record) const {
  assert(OnDomainQueue());
  int64_t orgCount = 0;
  int64_t inCount = 0;
  if (std::error_code got = DomainRoot::GetGenerationCount(settings_, orgCount); got != kSuccess) {
    return got;
  }
  if (std::error_code got = DomainRoot::GetGenerationCount(record, inCount); got != kSuccess) {
    return got;
  }
  std::vector<Change> changes;
  if (std::error_code read = ReadRecordChanges(record, changes); read != kSuccess) return read;

  const uint64_t generations = Distance(orgCount, inCount);
  // After a reload the history starts empty while the count does not: a record
  // from before the reload cannot be checked against what changed since.
  if (inCount < orgCount && history_.Size() < generations) return kTransactionConflict;
  return history_.Collides(generations, changes) ? make_error_code(kTransactionConflict)
                                                 : make_error_code(kSuccess);
}

std::error_code DomainSetting::ApplyTransaction(const std::shared_ptr<IHash>& record, bool notify) {
  assert(OnDomainQueue());
  if (!record) return kInvalidArgument;
  std::vector<Change> changes;
  if (std::error_code read = ReadRecordChanges(record, changes); read != kSuccess) return read;
  if (std::error_code checked = CheckApplicable(changes); checked != kSuccess) return checked;

  if (std::error_code applied = ApplyChanges(changes); applied != kSuccess) return applied;
  if (std::error_code raised = IncrementGCCount(); raised != kSuccess) return raised;
  if (std::error_code remembered = RememberChanges(changes); remembered != kSuccess) {
    return Report("UpdateGCChanges", "Failed to update GC changes", remembered);
  }
  if (notify) Deliver(changes);
  return kSuccess;
}

std::error_code DomainSetting::ApplyChanges(const std::vector<Change>& changes) {
  for (const Change& change : changes) {
    const char* path = change.path->GetCString();
    if (change.IsDeletion()) {
      std::error_code removed = KeyPath::Remove(tree_, path);
      if (removed != kSuccess && removed != kNotFound) return removed;
    } else {
      std::error_code stored = KeyPath::Store(tree_, path, change.value);
      if (stored != kSuccess && stored != kOperationRefused) return stored;
    }
  }
  return kSuccess;
}

std::error_code DomainSetting::ValidateAndApply(const std::shared_ptr<IHash>& record, bool notify) {
  if (std::error_code valid = IsTransactionValid(record); valid != kSuccess) return valid;
  return ApplyTransaction(record, notify);
}

std::error_code DomainSetting::IncrementGCCount() {
  assert(OnDomainQueue());
  std::shared_ptr<IValue> value;
  std::error_code result = DomainRoot::LookUp(*settings_, RecordKeys::kGenerationCount, value);
  int64_t count = 0;
  if (result == kSuccess && value) {
    auto number = std::dynamic_pointer_cast<INumber>(value);
    if (!number || number->GetInt64(count) != kSuccess) result = make_error_code(kInvalidData);
  }
  std::shared_ptr<INumber> raised;
  if (result == kSuccess) {
    const auto next = static_cast<long long>(static_cast<uint64_t>(count) + 1);
    result = NumberFactory::Create(raised, next);
  }
  if (result == kSuccess) result = settings_->Set(RecordKeys::kGenerationCount, raised);
  if (result != kSuccess) {
    return Report("IncrementGCCount", "Failed to increment GC count", result);
  }
  return kSuccess;
}

std::error_code DomainSetting::UpdateGCChanges(const std::shared_ptr<IHash>& record) {
  assert(OnDomainQueue());
  std::vector<Change> changes;
  std::error_code result =
      record ? ReadRecordChanges(record, changes) : make_error_code(kInvalidArgument);
  if (result == kSuccess) result = RememberChanges(changes);
  if (result != kSuccess) return Report("UpdateGCChanges", "Failed to update GC changes", result);
  return kSuccess;
}

std::error_code DomainSetting::RememberChanges(const std::vector<Change>& changes) {
  int64_t count = 0;
  if (std::error_code got = DomainRoot::GetGenerationCount(settings_, count); got != kSuccess) {
    return got;
  }
  history_.Record(count, changes);
  return kSuccess;
}

void DomainSetting::NotifyObserver(const std::shared_ptr<IArray>& changes) {
  assert(OnDomainQueue());
  std::vector<Change> read;
  if (ReadChanges(changes, read) != kSuccess) return;
  Deliver(read);
}

void DomainSetting::Deliver(const std::vector<Change>& changes) {
  std::vector<ObserverList::Delivery> deliveries = observers_.Live();
  if (deliveries.empty()) return;
  // A domain already being destroyed has no one left to hand to observers.
  std::shared_ptr<IDomainSetting> domain = weak_from_this().lock();
  if (!domain) return;
  // One immutable list shared by every delivery of this commit.
  auto list = std::make_shared<const IObserver::ChangeList>(MakeChangeList(changes));
  for (ObserverList::Delivery& delivery : deliveries) {
    dispatch_queue_t queue =
        delivery.queue.get() ? delivery.queue.get() : observerQueue_->GetDispatchQueue();
    dispatch_async(queue, [observer = std::move(delivery.observer), domain, list] {
      try {
        observer->OnChange(domain, *list);
      } catch (...) {
        ReportCaughtException(1, kReportTag, "OnChange");
      }
    });
  }
}

}  // namespace QelSS
