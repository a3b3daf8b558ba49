#include "domain/DomainSetting.h"

#include <cassert>
#include <utility>

#include "domain/DomainRoot.h"
#include "domain/ITransactionInternal.h"
#include "domain/RecordKeys.h"
#include "domain/Transaction.h"
#include "domain/TreeDiff.h"
#include "platform/dispatch/MakeQueue.h"
#include "platform/dispatch/RunningFrame.h"
#include "platform/dispatch/SerialQueue.h"
#include "platform/report/Failure.h"
#include "platform/report/Report.h"
#include "qelss/values/Exceptions.h"
#include "values/ContainerSupport.h"
#include "values/KeyPath.h"

namespace QelSS {
namespace {

constexpr uint32_t kQueueTag = DispatchQueue::MakeTag("QSSE");
constexpr uint32_t kReportTag = QelErrTag("DOST");

}  // namespace

std::string DomainSetting::CanonicalName(std::string name) {
  for (char& c : name) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return name;
}

DomainSetting::DomainSetting(const std::string& name, bool createWhenMissing, bool remote)
    : name_(CanonicalName(name)),
      createWhenMissing_(createWhenMissing),
      isRemote_(remote),
      engine_(name_, remote) {
  std::error_code rc =
      platform::MakeQueue(domainQueue_, DispatchQueue::kQueueTypeSerial,
                          "com.qelvarin.domainsetting", QOS_CLASS_USER_INTERACTIVE);
  if (rc == kSuccess) {
    rc = platform::MakeQueue(observerQueue_, DispatchQueue::kQueueTypeSerial,
                             "com.qelvarin.domainsetting.observer", QOS_CLASS_DEFAULT);
  }
  if (rc != kSuccess) throw QelSharedSettingsException(rc, "DomainSettings: Failed to init");
}

DomainSetting::~DomainSetting() = default;

std::error_code DomainSetting::RunOnDomainQueue(const char* operation,
                                                FunctionRef<std::error_code()> body) {
  std::error_code result = make_error_code(kFailure);
  try {
    domainQueue_->Sync(kQueueTag, DispatchQueue::kRunChangesState, [&] { result = body(); });
  } catch (...) {
    ReportCaughtException(1, kReportTag, operation);
    result = make_error_code(kFailure);
  }
  return result;
}

bool DomainSetting::PostToDomainQueue(std::function<void()> body) {
  return domainQueue_->Async(kQueueTag, DispatchQueue::kRunChangesState, std::move(body));
}

bool DomainSetting::OnDomainQueue() const noexcept {
  return platform::IsRunningOnThisThread(
      platform::SerialQueue::FromHandle(domainQueue_->GetDispatchQueue()));
}

std::error_code DomainSetting::GetName(std::string& name) {
  try {
    name = name_;
    return kSuccess;
  } catch (...) {
    return kFailure;
  }
}

std::error_code DomainSetting::Get(const std::string& path, std::shared_ptr<IValue>& value) {
  // Off the domain queue: a committed version never changes.
  try {
    std::shared_ptr<IValue> found;
    if (std::error_code got = KeyPath::Lookup(*engine_.ReadableTree(), path, found);
        !Succeeded(got)) {
      return got;
    }
    // A container of the version is read-only and shared by later versions:
    // the caller gets one of its own.
    return OwnCopy(found, value);
  } catch (...) {
    ReportCaughtException(1, kReportTag, "Get");
    return kFailure;
  }
}

std::error_code DomainSetting::CreateTransaction(std::shared_ptr<ITransaction>& transaction) {
  std::shared_ptr<IHash> copy;
  // The transaction copies only the hashes it changes (its own TreeWriter).
  std::error_code copied = RunOnDomainQueue("CreateTransaction", [&] {
    copy = engine_.Root();
    return make_error_code(kSuccess);
  });
  if (copied != kSuccess) return copied;
  try {
    return Transaction::Create(transaction, name_, std::move(copy));
  } catch (...) {
    ReportCaughtException(1, kReportTag, "CreateTransaction");
    return kFailure;
  }
}

std::error_code DomainSetting::CopySettings(std::shared_ptr<IHash>& settings) {
  return RunOnDomainQueue("CopySettings", [&] { return engine_.CloneRoot(settings); });
}

std::error_code DomainSetting::CopySettingsTree(std::shared_ptr<IHash>& tree) {
  return RunOnDomainQueue("CopySettings", [&] { return engine_.CloneTree(tree); });
}

std::error_code DomainSetting::SaveSettings(unsigned /*waitSeconds*/) {
  return make_error_code(kSuccess);
}

std::error_code DomainSetting::DamagedFileKept(std::string& path) {
  path.clear();
  return make_error_code(kSuccess);
}

CommitEngine& DomainSetting::Engine() noexcept {
  assert(OnDomainQueue());
  return engine_;
}

const CommitEngine& DomainSetting::Engine() const noexcept {
  assert(OnDomainQueue());
  return engine_;
}

std::error_code DomainSetting::AddObserver(dispatch_queue_t queue,
                                           const std::shared_ptr<IObserver>& observer) {
  try {
    return observers_.Add(queue, observer);
  } catch (...) {
    ReportCaughtException(1, kReportTag, "AddObserver");
    return kFailure;
  }
}

std::error_code DomainSetting::RemoveObserver(const std::shared_ptr<IObserver>& observer) {
  try {
    return observers_.Remove(observer);
  } catch (...) {
    ReportCaughtException(1, kReportTag, "RemoveObserver");
    return kFailure;
  }
}

std::error_code DomainSetting::RecordForCommit(const std::shared_ptr<ITransaction>& transaction,
                                               std::shared_ptr<IHash>& record) {
  if (!transaction) return kInvalidArgument;
  auto internal = std::dynamic_pointer_cast<ITransactionInternal>(transaction);
  if (!internal) return kInvalidData;
  record.reset();
  if (!internal->HasChanges()) return kSuccess;
  return internal->GetTransactionRecord(record);
}

std::error_code DomainSetting::PrepareCommit(const std::shared_ptr<ITransaction>& transaction,
                                             PreparedCommit& commit) {
  if (!transaction) return kInvalidArgument;
  auto internal = std::dynamic_pointer_cast<ITransactionInternal>(transaction);
  if (!internal) return kInvalidData;
  commit = PreparedCommit{};
  if (!internal->HasChanges()) return kSuccess;
  return internal->PrepareCommit(commit.record, commit.base, commit.version, commit.changes);
}

std::error_code DomainSetting::AdoptOrApply(const PreparedCommit& commit, bool notify) {
  std::vector<Change> applied;
  const std::error_code rc = Engine().AdoptTransaction(commit.record, commit.base, commit.version,
                                                       commit.changes, applied);
  if (rc == kSuccess && notify) Deliver(applied);
  return rc;
}

std::error_code DomainSetting::ValidateAndApply(const std::shared_ptr<IHash>& record, bool notify) {
  std::vector<Change> applied;
  const std::error_code rc = Engine().ValidateAndApply(record, applied);
  if (rc == kSuccess && notify) Deliver(applied);
  return rc;
}

std::error_code DomainSetting::ApplyTransaction(const std::shared_ptr<IHash>& record, bool notify) {
  std::vector<Change> applied;
  const std::error_code rc = Engine().ApplyTransaction(record, applied);
  if (rc == kSuccess && notify) Deliver(applied);
  return rc;
}

void DomainSetting::NotifyObserver(const std::shared_ptr<IArray>& changes) {
  assert(OnDomainQueue());
  std::vector<Change> read;
  if (ReadChanges(changes, read) != kSuccess) return;
  Deliver(read);
}

std::error_code DomainSetting::ReplaceSettings(std::shared_ptr<IHash> root, bool notify) {
  const std::shared_ptr<IHash> before = Engine().Tree();
  const std::error_code rc = Engine().ReplaceSettings(std::move(root));
  if (rc != kSuccess || !notify) return rc;
  // Comparing two large trees is wasted when no one listens.
  std::vector<ObserverList::Delivery> deliveries = observers_.Live();
  if (deliveries.empty()) return rc;
  std::vector<Change> changes;
  if (DiffTrees(before, Engine().Tree(), changes) != kSuccess) {
    ReportFailure({kReportTag, "ReplaceSettings", kQelSharedSettingsErrorDomain,
                   "Failed to compare the replaced settings", nullptr, Name().c_str()},
                  make_error_code(kFailure));
    return rc;
  }
  if (!changes.empty()) Deliver(std::move(deliveries), changes);
  return rc;
}

void DomainSetting::Deliver(const std::vector<Change>& changes) {
  Deliver(observers_.Live(), changes);
}

void DomainSetting::Deliver(std::vector<ObserverList::Delivery> deliveries,
                            const std::vector<Change>& changes) {
  if (deliveries.empty()) return;
  // A domain already being destroyed has no one left to hand to observers.
  std::shared_ptr<IDomainSetting> domain = weak_from_this().lock();
  if (!domain) return;
  // One list shared by every delivery of this commit; its containers are
  // copies, so that observers cannot change the committed version.
  IObserver::ChangeList made = MakeChangeList(changes);
  for (auto& entry : made) {
    std::shared_ptr<IValue>& value = std::get<2>(entry);
    if (OwnCopy(value, value) != kSuccess) value.reset();
  }
  auto list = std::make_shared<const IObserver::ChangeList>(std::move(made));
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
