#include "qelss/api/QSSDomain.h"

#include <memory>
#include <string>
#include <utility>

#include "api/CompletionLatch.h"
#include "api/FacadeLimits.h"
#include "api/FacadeReport.h"
#include "api/FolderLevels.h"
#include "api/QSSDomainAccess.h"
#include "domain/DomainFactory.h"
#include "domain/IDomainSettingInternal.h"
#include "platform/support/Mutex.h"
#include "qelss/domain/SettingsObserver.h"
#include "qelss/platform/ErrorCode.h"

namespace QelSS {

struct QSSDomain::TransactionSlot {
  platform::Mutex mutex;
  std::shared_ptr<ITransaction> transaction QELSS_GUARDED_BY(mutex);

  std::shared_ptr<ITransaction> Get() QELSS_EXCLUDES(mutex) {
    platform::MutexLock lock(mutex);
    return transaction;
  }

  // The replaced transaction is released outside the lock.
  void Put(std::shared_ptr<ITransaction> next) QELSS_EXCLUDES(mutex) {
    platform::MutexLock lock(mutex);
    transaction.swap(next);
  }
};

namespace {

std::error_code NotOpen() { return make_error_code(kDomainNotOpen); }

// A missing domain starts empty rather than failing to open.
constexpr bool kCreateMissingDomain = true;

std::error_code WhereItLives(const char* folder, bool useFolder, Configuration& configuration) {
  configuration.local = useFolder;
  if (!useFolder) return make_error_code(kSuccess);
  if (!folder) return make_error_code(kInvalidArgument);
  configuration.folder = folder;
  return MakeFolderLevels(configuration.folder);
}

// The factory loads the domain asynchronously. It may call `done` twice (a bad
// name is reported at once and the opening still goes on): the latch keeps the
// first outcome, so a bad name fails here however the opening ends.
std::error_code OpenAndWait(IDomainFactory& factory, const Configuration& configuration,
                            const char* name, const char* identity,
                            std::shared_ptr<IDomainSetting>& domain) {
  auto latch = std::make_shared<CompletionLatch>();
  factory.OpenDomain(
      configuration, name, identity ? identity : "",
      [latch](std::shared_ptr<IDomainSetting>& opened, std::error_code rc) {
        latch->Complete(rc, Succeeded(rc) ? opened : nullptr);
      },
      kCreateMissingDomain);
  std::shared_ptr<IDomainSetting> loaded;
  std::error_code rc = latch->Wait(OpenWaitLimit(), &loaded);
  if (Succeeded(rc) && !loaded) rc = make_error_code(kFailure);
  if (Succeeded(rc)) domain = std::move(loaded);
  return rc;
}

std::error_code Open(QSSDomain& facade, const char* name, const char* identity, const char* folder,
                     bool useFolder) {
  try {
    std::shared_ptr<IDomainFactory> factory = GetDomainFactory(nullptr);
    if (!factory) return make_error_code(kAllocationFailed);
    Configuration configuration;
    std::error_code rc = WhereItLives(folder, useFolder, configuration);
    if (!Succeeded(rc)) return rc;
    if (!name) return make_error_code(kInvalidArgument);
    std::shared_ptr<IDomainSetting> domain;
    rc = OpenAndWait(*factory, configuration, name, identity, domain);
    if (Succeeded(rc)) QSSDomainAccess::Adopt(facade, std::move(domain));
    return rc;
  } catch (...) {
    return ReportFacadeException("constructor");
  }
}

// Every domain the factory makes answers the internal interface too; a
// facade without a domain, or with one made elsewhere, gets null.
IDomainSettingInternal* Internal(const std::shared_ptr<IDomainSetting>& domain) {
  return dynamic_cast<IDomainSettingInternal*>(domain.get());
}

}  // namespace

std::error_code QSSDomain::Create(std::shared_ptr<QSSDomain>& domain, const char* name,
                                  const char* identity, const char* folder, bool useFolder) {
  std::shared_ptr<QSSDomain> facade;
  try {
    facade = std::make_shared<QSSDomain>(ConstructionKey{});
  } catch (...) {
    return ReportFacadeException("constructor");
  }
  const std::error_code rc = Open(*facade, name, identity, folder, useFolder);
  domain = std::move(facade);
  return rc;
}

QSSDomain::QSSDomain(ConstructionKey) : transaction_(std::make_shared<TransactionSlot>()) {}

QSSDomain::~QSSDomain() = default;

std::shared_ptr<ITransaction> QSSDomain::CurrentTransaction() const { return transaction_->Get(); }

std::error_code QSSDomain::ReadValue(const char* key, std::shared_ptr<IValue>& value) const {
  if (!domain_) return NotOpen();
  if (!key) return make_error_code(kInvalidArgument);
  return domain_->Get(key, value);
}

std::error_code QSSDomain::WriteValue(const char* key, MakeValue make) {
  if (!domain_) return NotOpen();
  if (!CurrentTransaction()) return make_error_code(kFailure);
  if (!key) return make_error_code(kInvalidArgument);
  std::shared_ptr<IValue> value;
  const std::error_code rc = make(value);
  if (!Succeeded(rc)) return rc;

  std::lock_guard lock(mutex_);
  // An asynchronous commit's completion may have cleared it since the check.
  const std::shared_ptr<ITransaction> transaction = CurrentTransaction();
  if (!transaction) return make_error_code(kFailure);
  return transaction->Set(key, value);
}

std::error_code QSSDomain::WriteValueAndCommit(const char* key, MakeValue make) {
  if (!domain_) return NotOpen();
  std::lock_guard lock(mutex_);
  std::error_code rc = CreateTransaction();
  if (Succeeded(rc)) rc = WriteValue(key, make);
  if (Succeeded(rc)) rc = CommitTransaction();
  return rc;
}

std::error_code QSSDomain::Delete(const char* key) {
  try {
    if (!domain_) return NotOpen();
    std::lock_guard lock(mutex_);
    const std::shared_ptr<ITransaction> transaction = CurrentTransaction();
    if (!transaction) return make_error_code(kFailure);
    if (!key) return make_error_code(kInvalidArgument);
    return transaction->Delete(key);
  } catch (...) {
    return ReportFacadeException("Delete");
  }
}

std::error_code QSSDomain::DeleteAndCommit(const char* key) {
  try {
    if (!domain_) return NotOpen();
    std::lock_guard lock(mutex_);
    std::error_code rc = CreateTransaction();
    if (Succeeded(rc)) rc = Delete(key);
    if (Succeeded(rc)) rc = CommitTransaction();
    return rc;
  } catch (...) {
    return ReportFacadeException("DeleteAndCommit");
  }
}

std::error_code QSSDomain::CreateTransaction() {
  try {
    if (!domain_) return NotOpen();
    std::lock_guard lock(mutex_);
    std::shared_ptr<ITransaction> transaction;
    const std::error_code rc = domain_->CreateTransaction(transaction);
    if (Succeeded(rc)) transaction_->Put(std::move(transaction));
    return rc;
  } catch (...) {
    return ReportFacadeException("CreateTransaction");
  }
}

std::error_code QSSDomain::CommitTransaction() {
  try {
    if (!domain_) return NotOpen();
    std::lock_guard lock(mutex_);
    return CommitAndWait();
  } catch (...) {
    return ReportFacadeException("CommitTransaction");
  }
}

// Holds the facade mutex for the whole wait, so that no other write slips in
// between the commit and its outcome. The completion takes only the latch's
// own lock, never the facade mutex.
std::error_code QSSDomain::CommitAndWait() {
  auto latch = std::make_shared<CompletionLatch>();
  std::error_code rc = domain_->CommitTransaction(
      CurrentTransaction(), [latch](std::error_code outcome) { latch->Complete(outcome); });
  if (!Succeeded(rc)) return rc;
  rc = latch->Wait(CommitWaitLimit());
  transaction_->Put(nullptr);
  return rc;
}

std::error_code QSSDomain::CommitTransaction(std::function<void(std::error_code)> done) {
  try {
    if (!domain_) return NotOpen();
    if (!done) return make_error_code(kInvalidArgument);
    std::lock_guard lock(mutex_);
    // The completion may run after the facade is gone: it holds the slot, not
    // the facade. It clears whatever transaction is current by then, a newer
    // one included; callers rely on that order (done first, then clear).
    auto completion = [slot = transaction_, done = std::move(done)](std::error_code outcome) {
      try {
        done(outcome);
      } catch (...) {
        ReportFacadeException("CommitTransaction");
      }
      slot->Put(nullptr);
    };
    return domain_->CommitTransaction(CurrentTransaction(), std::move(completion));
  } catch (...) {
    return ReportFacadeException("CommitTransaction");
  }
}

std::error_code QSSDomain::AddObserver(dispatch_queue_t queue,
                                       const std::shared_ptr<IObserver>& observer) {
  try {
    if (!domain_) return NotOpen();
    return domain_->AddObserver(queue, observer);
  } catch (...) {
    return ReportFacadeException("AddObserver");
  }
}

std::error_code QSSDomain::RemoveObserver(const std::shared_ptr<IObserver>& observer) {
  try {
    if (!domain_) return NotOpen();
    if (auto adaptor = std::dynamic_pointer_cast<SettingsObserver>(observer)) adaptor->Detach();
    return domain_->RemoveObserver(observer);
  } catch (...) {
    return ReportFacadeException("RemoveObserver");
  }
}

std::error_code QSSDomain::PerformBlock(std::function<void()> block) {
  if (!block) return make_error_code(kInvalidArgument);
  try {
    std::lock_guard lock(mutex_);
    block();
    return make_error_code(kSuccess);
  } catch (...) {
    return ReportFacadeException("PerformBlock");
  }
}

std::error_code QSSDomain::CopySettings(std::shared_ptr<IHash>& settings) const {
  try {
    if (!domain_) return make_error_code(kDomainNotOpen);
    IDomainSettingInternal* internal = Internal(domain_);
    if (!internal) return make_error_code(kNotImplemented);
    std::shared_ptr<IHash> tree;
    const std::error_code rc = internal->CopySettingsTree(tree);
    if (Succeeded(rc)) settings = std::move(tree);
    return rc;
  } catch (...) {
    return ReportFacadeException("CopySettings");
  }
}

std::error_code QSSDomain::Save(unsigned waitSeconds) const {
  try {
    if (!domain_) return make_error_code(kDomainNotOpen);
    IDomainSettingInternal* internal = Internal(domain_);
    return internal ? internal->SaveSettings(waitSeconds) : make_error_code(kSuccess);
  } catch (...) {
    return ReportFacadeException("Save");
  }
}

std::error_code QSSDomain::LocalDomainExists(const char* name, const char* folder, bool& exists) {
  try {
    if (name == nullptr || *name == '\0' || folder == nullptr || *folder == '\0') {
      return make_error_code(kInvalidArgument);
    }
    return DomainFactory::LocalDomainExists(folder, name, exists);
  } catch (...) {
    return ReportFacadeException("LocalDomainExists");
  }
}

std::error_code QSSDomain::DamagedFileKept(std::string& path) const {
  try {
    if (!domain_) return make_error_code(kDomainNotOpen);
    IDomainSettingInternal* internal = Internal(domain_);
    if (!internal) {
      path.clear();
      return make_error_code(kSuccess);
    }
    return internal->DamagedFileKept(path);
  } catch (...) {
    return ReportFacadeException("DamagedFileKept");
  }
}

}  // namespace QelSS
