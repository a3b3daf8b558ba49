#include "domain/CommitEngine.h"

#include <array>
#include <utility>

#include "domain/DomainRoot.h"
#include "domain/RecordKeys.h"
#include "platform/report/Failure.h"
#include "platform/report/Report.h"
#include "qelss/values/Exceptions.h"
#include "qelss/values/NumberFactory.h"
#include "values/Hash.h"
#include "values/KeyPath.h"
#include "values/ValueCast.h"

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

// The deep copy that transactions and savers work on.
std::error_code Clone(const std::shared_ptr<IHash>& hash, std::shared_ptr<IHash>& copy) {
  std::shared_ptr<IValue> cloned;
  if (std::error_code made = hash->Clone(cloned); made != kSuccess) return made;
  auto copied = AsHash(cloned);
  if (!copied) return kInvalidData;
  copy = std::move(copied);
  return kSuccess;
}

std::atomic<uint64_t> gNextEngineId{1};

// A version of one domain's tree as a thread last read it.
struct KeptVersion {
  uint64_t engine = 0;
  uint64_t version = 0;
  std::shared_ptr<IHash> tree;
};

struct KeptVersions {
  std::array<KeptVersion, CommitEngine::kKeptVersions> slots;
  size_t next = 0;  // the slot a new domain takes
};

thread_local KeptVersions tKept;

// Every Hash of a version, before readers may walk it without queues.
void FreezeTree(const std::shared_ptr<IHash>& tree) {
  if (tree == nullptr) return;
  if (auto* hash = const_cast<Hash*>(ExactCast<Hash>(tree.get()))) hash->Freeze();
}

}  // namespace

CommitEngine::CommitEngine(std::string name, bool remote)
    : name_(std::move(name)), isRemote_(remote), id_(gNextEngineId.fetch_add(1)) {
  std::error_code rc = DomainRoot::Create(settings_);
  if (rc == kSuccess) rc = DomainRoot::GetInternalSettings(settings_, tree_);
  if (rc != kSuccess) throw QelSharedSettingsException(rc, "DomainSettings: Failed to init");
  Publish();
}

int64_t CommitEngine::GenerationCount() const {
  int64_t count = 0;
  if (DomainRoot::GetGenerationCount(settings_, count) != kSuccess) return 0;
  return count;
}

std::error_code CommitEngine::CloneRoot(std::shared_ptr<IHash>& copy) const {
  return Clone(settings_, copy);
}

std::error_code CommitEngine::CloneTree(std::shared_ptr<IHash>& copy) const {
  return Clone(tree_, copy);
}

std::error_code CommitEngine::CheckDomainName(const std::shared_ptr<IHash>& record) const {
  std::shared_ptr<IString> text;
  if (std::error_code got = DomainRoot::LookUpString(*record, RecordKeys::kDomainName, text);
      got != kSuccess) {
    return got;
  }
  if (name_ != text->GetCString()) {
    // Another domain's record is malformed for this one, not a conflict.
    return ReportFailure(FailureReport{kReportTag, "DomainSettings", kQelSharedSettingsErrorDomain,
                                       "Domain does not match", nullptr, text->GetCString()},
                         make_error_code(kInvalidData));
  }
  return kSuccess;
}

std::error_code CommitEngine::ReportInvalid(const char* message, std::error_code code,
                                            int64_t inCount, int64_t orgCount) const {
  // Only records naming this domain get this far.
  return ReportFailure(
      FailureReport{kReportTag, "IsTransactionValid", kQelSharedSettingsErrorDomain, message,
                    nullptr, name_.c_str()},
      code,
      {{"inGCCount", inCount}, {"orgGCCount", orgCount}, {"IsRemoteDomain", isRemote_ ? 1 : 0}});
}

std::error_code CommitEngine::IsTransactionValid(const std::shared_ptr<IHash>& record) {
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

std::error_code CommitEngine::TransactionCanBeMerged(const std::shared_ptr<IHash>& record) const {
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

std::error_code CommitEngine::ApplyTransaction(const std::shared_ptr<IHash>& record,
                                               std::vector<Change>& applied) {
  if (!record) return kInvalidArgument;
  std::vector<Change> changes;
  if (std::error_code read = ReadRecordChanges(record, changes); read != kSuccess) return read;
  if (std::error_code checked = CheckApplicable(changes); checked != kSuccess) return checked;

  // Readers and transactions keep the version they hold; the new one is
  // published whole, or not at all.
  TreeWriter writer(settings_);
  if (std::error_code changed = ApplyChanges(writer, changes); changed != kSuccess) return changed;
  if (std::error_code raised = RaiseCount(writer); raised != kSuccess) return raised;
  Publish(writer);
  if (std::error_code remembered = RememberChanges(changes); remembered != kSuccess) {
    return Report("UpdateGCChanges", "Failed to update GC changes", remembered);
  }
  applied = std::move(changes);
  return kSuccess;
}

std::error_code CommitEngine::ApplyChanges(TreeWriter& writer, const std::vector<Change>& changes) {
  // The settings tree sits under one key of the stored root.
  const std::string under = std::string(RecordKeys::kInternalSettings) + "/";
  for (const Change& change : changes) {
    const std::string path = under + change.path->GetCString();
    if (change.IsDeletion()) {
      std::error_code removed = writer.Remove(path);
      if (removed != kSuccess && removed != kNotFound) return removed;
    } else {
      std::error_code stored = writer.Store(path, change.value);
      if (stored != kSuccess && stored != kOperationRefused) return stored;
    }
  }
  return kSuccess;
}

void CommitEngine::Publish() {
  FreezeTree(settings_);
  std::shared_ptr<IHash> previous;
  platform::MutexLock lock(publishedMutex_);
  // The version replaced is let go of outside the lock: it may be the last
  // reference to a large tree.
  previous = std::exchange(published_, tree_);
  version_.store(++publishedVersion_, std::memory_order_release);
}

const IHash* CommitEngine::ReadableTree() const {
  const uint64_t version = version_.load(std::memory_order_acquire);
  KeptVersion* slot = nullptr;
  for (KeptVersion& kept : tKept.slots) {
    if (kept.engine != id_) continue;
    if (kept.version == version) return kept.tree.get();
    slot = &kept;
    break;
  }
  if (slot == nullptr) {
    slot = &tKept.slots[tKept.next];
    tKept.next = (tKept.next + 1) % kKeptVersions;
  }
  // The version let go of may be the last reference to a large tree: it goes
  // outside the lock.
  std::shared_ptr<IHash> previous = std::move(slot->tree);
  {
    platform::MutexLock lock(publishedMutex_);
    slot->tree = published_;
    slot->version = publishedVersion_;
  }
  slot->engine = id_;
  return slot->tree.get();
}

void CommitEngine::Publish(TreeWriter& writer) {
  writer.Freeze();
  std::shared_ptr<IHash> root = writer.Root();
  std::shared_ptr<IHash> tree;
  // The writer changed what was there, so the tree is where it was.
  (void)DomainRoot::GetInternalSettings(root, tree);
  settings_ = std::move(root);
  tree_ = std::move(tree);
  Publish();
}

std::error_code CommitEngine::AdoptTransaction(const std::shared_ptr<IHash>& record,
                                               const std::shared_ptr<IHash>& base,
                                               const std::shared_ptr<TreeWriter>& version,
                                               size_t expected, std::vector<Change>& applied) {
  if (!version || base != settings_) return ValidateAndApply(record, applied);
  if (std::error_code valid = IsTransactionValid(record); valid != kSuccess) return valid;
  std::vector<Change> changes;
  if (std::error_code read = ReadRecordChanges(record, changes); read != kSuccess) return read;
  // A change made after the version was handed over is not in it.
  if (changes.size() != expected) return ApplyTransaction(record, applied);
  if (std::error_code checked = CheckApplicable(changes); checked != kSuccess) return checked;
  // The root is the transaction's own copy: the count goes into it directly.
  if (std::error_code raised = RaiseCount(*version); raised != kSuccess) return raised;
  Publish(*version);
  if (std::error_code remembered = RememberChanges(changes); remembered != kSuccess) {
    return Report("UpdateGCChanges", "Failed to update GC changes", remembered);
  }
  applied = std::move(changes);
  return kSuccess;
}

std::error_code CommitEngine::ValidateAndApply(const std::shared_ptr<IHash>& record,
                                               std::vector<Change>& applied) {
  if (std::error_code valid = IsTransactionValid(record); valid != kSuccess) return valid;
  return ApplyTransaction(record, applied);
}

std::error_code CommitEngine::IncrementGCCount() {
  TreeWriter writer(settings_);
  if (std::error_code raised = RaiseCount(writer); raised != kSuccess) return raised;
  Publish(writer);
  return kSuccess;
}

std::error_code CommitEngine::RaiseCount(TreeWriter& writer) const {
  std::shared_ptr<IValue> value;
  std::error_code result = DomainRoot::LookUp(*settings_, RecordKeys::kGenerationCount, value);
  int64_t count = 0;
  if (result == kSuccess && value) {
    auto number = AsNumber(value);
    if (!number || number->GetInt64(count) != kSuccess) result = make_error_code(kInvalidData);
  }
  std::shared_ptr<INumber> raised;
  if (result == kSuccess) {
    const auto next = static_cast<long long>(static_cast<uint64_t>(count) + 1);
    result = NumberFactory::Create(raised, next);
  }
  if (result == kSuccess) result = writer.Store(RecordKeys::kGenerationCount, raised);
  if (result != kSuccess) {
    return Report("IncrementGCCount", "Failed to increment GC count", result);
  }
  return kSuccess;
}

std::error_code CommitEngine::UpdateGCChanges(const std::shared_ptr<IHash>& record) {
  std::vector<Change> changes;
  std::error_code result =
      record ? ReadRecordChanges(record, changes) : make_error_code(kInvalidArgument);
  if (result == kSuccess) result = RememberChanges(changes);
  if (result != kSuccess) return Report("UpdateGCChanges", "Failed to update GC changes", result);
  return kSuccess;
}

std::error_code CommitEngine::RememberChanges(const std::vector<Change>& changes) {
  int64_t count = 0;
  if (std::error_code got = DomainRoot::GetGenerationCount(settings_, count); got != kSuccess) {
    return got;
  }
  history_.Record(count, changes);
  return kSuccess;
}

std::error_code CommitEngine::ReplaceSettings(std::shared_ptr<IHash> root) {
  if (!root) return kInvalidArgument;
  int64_t count = 0;
  std::shared_ptr<IHash> tree;
  if (DomainRoot::GetGenerationCount(root, count) != kSuccess ||
      DomainRoot::GetInternalSettings(root, tree) != kSuccess) {
    return kInvalidData;
  }
  settings_ = std::move(root);
  tree_ = std::move(tree);
  Publish();
  history_.Clear();
  return kSuccess;
}

std::error_code CommitEngine::ReplaceSettingsTree(std::shared_ptr<IHash> tree) {
  if (!tree) return kInvalidArgument;
  std::shared_ptr<IHash> root;
  if (std::error_code made = DomainRoot::Create(root); made != kSuccess) return made;
  if (std::error_code set = root->Set(RecordKeys::kInternalSettings, tree); set != kSuccess) {
    return set;
  }
  return ReplaceSettings(std::move(root));
}

}  // namespace QelSS
