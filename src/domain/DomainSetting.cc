#include "domain/DomainSetting.h"

#include <cassert>
#include <utility>

#include "domain/DomainRoot.h"
#include "domain/ITransactionInternal.h"
#include "domain/RecordKeys.h"
#include "domain/Transaction.h"
#include "persistence/CaughtException.h"
#include "platform/dispatch/MakeQueue.h"
#include "platform/dispatch/RunningFrame.h"
#include "platform/dispatch/SerialQueue.h"
#include "platform/report/Report.h"
#include "qelss/values/Exceptions.h"
#include "values/KeyPath.h"

namespace QelSS {
namespace {

constexpr uint32_t kQueueTag = DispatchQueue::MakeTag("QSSE");
constexpr uint32_t kReportTag = QelErrTag("DOST");

// The deep copy that transactions and savers work on.
std::error_code CloneRoot(const std::shared_ptr<IHash>& root, std::shared_ptr<IHash>& copy) {
  std::shared_ptr<IValue> cloned;
  if (std::error_code made = root->Clone(cloned); made != kSuccess) return made;
  auto hash = std::dynamic_pointer_cast<IHash>(cloned);
  if (!hash) return kInvalidData;
  copy = std::move(hash);
  return kSuccess;
}

}  // namespace

std::string DomainSetting::CanonicalName(std::string name) {
  for (char& c : name) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return name;
}

DomainSetting::DomainSetting(const std::string& name, bool createWhenMissing, bool remote)
    : name_(CanonicalName(name)), createWhenMissing_(createWhenMissing), isRemote_(remote) {
  std::error_code rc =
      platform::MakeQueue(domainQueue_, DispatchQueue::kQueueTypeSerial,
                          "com.qelvarin.domainsetting", QOS_CLASS_USER_INTERACTIVE);
  if (rc == kSuccess) {
    rc = platform::MakeQueue(observerQueue_, DispatchQueue::kQueueTypeSerial,
                             "com.qelvarin.domainsetting.observer", QOS_CLASS_DEFAULT);
  }
  if (rc == kSuccess) rc = DomainRoot::Create(settings_);
  if (rc == kSuccess) rc = DomainRoot::GetInternalSettings(settings_, tree_);
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
  return RunOnDomainQueue("Get", [&] { return KeyPath::Lookup(tree_, path, value); });
}

std::error_code DomainSetting::CreateTransaction(std::shared_ptr<ITransaction>& transaction) {
  std::shared_ptr<IHash> copy;
  std::error_code copied =
      RunOnDomainQueue("CreateTransaction", [&] { return CloneRoot(settings_, copy); });
  if (copied != kSuccess) return copied;
  try {
    return Transaction::Create(transaction, name_, std::move(copy));
  } catch (...) {
    ReportCaughtException(1, kReportTag, "CreateTransaction");
    return kFailure;
  }
}

std::error_code DomainSetting::CopySettings(std::shared_ptr<IHash>& settings) {
  return RunOnDomainQueue("CopySettings", [&] { return CloneRoot(settings_, settings); });
}

std::error_code DomainSetting::CopySettingsTree(std::shared_ptr<IHash>& tree) {
  return RunOnDomainQueue("CopySettings", [&] { return CloneRoot(tree_, tree); });
}

std::error_code DomainSetting::SaveSettings(unsigned /*waitSeconds*/) {
  return make_error_code(kSuccess);
}

std::error_code DomainSetting::DamagedFileKept(std::string& path) {
  path.clear();
  return make_error_code(kSuccess);
}

std::error_code DomainSetting::CloneSettings(std::shared_ptr<IHash>& copy) const {
  assert(OnDomainQueue());
  return CloneRoot(settings_, copy);
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

std::error_code DomainSetting::ReplaceSettings(std::shared_ptr<IHash> root) {
  assert(OnDomainQueue());
  if (!root) return kInvalidArgument;
  int64_t count = 0;
  std::shared_ptr<IHash> tree;
  if (DomainRoot::GetGenerationCount(root, count) != kSuccess ||
      DomainRoot::GetInternalSettings(root, tree) != kSuccess) {
    return kInvalidData;
  }
  settings_ = std::move(root);
  tree_ = std::move(tree);
  history_.Clear();
  return kSuccess;
}

std::error_code DomainSetting::ReplaceSettingsTree(std::shared_ptr<IHash> tree) {
  if (!tree) return kInvalidArgument;
  std::shared_ptr<IHash> root;
  if (std::error_code made = DomainRoot::Create(root); made != kSuccess) return made;
  if (std::error_code set = root->Set(RecordKeys::kInternalSettings, tree); set != kSuccess) {
    return set;
  }
  return ReplaceSettings(std::move(root));
}

}  // namespace QelSS
