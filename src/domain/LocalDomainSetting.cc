#include "domain/LocalDomainSetting.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <utility>

#include "persistence/DomainFile.h"
#include "persistence/Key.h"
#include "persistence/Storage.h"
#include "platform/dispatch/DispatchClock.h"
#include "platform/dispatch/WorkerPool.h"
#include "platform/report/Failure.h"
#include "qelss/values/Exceptions.h"
#include "qelss/values/HashFactory.h"

namespace QelSS {
namespace {

using platform::DispatchClock;
using platform::KeepAlive;

constexpr uint32_t kReportTag = QelErrTag("LDSE");
constexpr const char* kFilePrefix = "com.qelvarin.";
constexpr const char* kBackupFolder = "SuccessfulImports";
constexpr const char* kInitFailed = "LocalDomainSetting: Failed to init";
// The storage writes under the file's name with a suffix first (a longer one
// for the first tree); those names must fit too.
constexpr size_t kTemporarySuffixLength =
    std::max(std::char_traits<char>::length(kFirstWriteFileSuffix),
             std::char_traits<char>::length(kTemporaryFileSuffix));
constexpr size_t kMaxFileNameLength = 255;

constexpr uint64_t kTimerNs = uint64_t(LocalDomainSetting::kQuietPeriod.count()) * NSEC_PER_SEC;

std::error_code Report(const char* operation, const char* message, const std::string& name,
                       std::error_code code) {
  return ReportFailure(
      {kReportTag, operation, kQelSharedSettingsErrorDomain, message, nullptr, name.c_str()}, code);
}

void CheckFileName(const std::string& name) {
  const bool fits =
      std::char_traits<char>::length(kFilePrefix) + name.size() + kTemporarySuffixLength <=
      kMaxFileNameLength;
  if (!fits || name.find('/') != std::string::npos || name.find('\0') != std::string::npos) {
    throw QelSharedSettingsException(make_error_code(kInvalidArgument), kInitFailed);
  }
}

std::shared_ptr<IStorage> MakeStorage() {
  std::shared_ptr<IStorage> storage;
  if (std::error_code made = Storage::Create(storage); made != kSuccess) {
    throw QelSharedSettingsException(made, kInitFailed);
  }
  return storage;
}

}  // namespace

// What one write needs, detached from the domain so that the destructor's
// final write can outlive it when the wait for it expires.
struct LocalDomainSetting::SaveJob {
  std::shared_ptr<IStorage> storage;
  std::string path;
  std::string name;
  std::shared_ptr<IHash> tree;
  std::chrono::system_clock::time_point takenAt;

  std::error_code Write() const noexcept {
    std::error_code result = make_error_code(kFailure);
    try {
      storage->WriteSettings(path, tree, [&](std::error_code written) { result = written; });
    } catch (...) {
      result = make_error_code(kFailure);
    }
    if (result != kSuccess)
      Report("SaveSettings", "Failed to write settings to disk", name, result);
    return result;
  }
};

// The rendezvous of a SaveSettings caller with the save it asked for. Shared,
// because a caller whose wait expires leaves before the save ends.
struct LocalDomainSetting::SaveWaiter {
  std::mutex mutex;
  std::condition_variable finished;
  bool pending = true;  // guarded by mutex
  std::error_code result = make_error_code(kFailure);

  void Finish(std::error_code outcome) {
    std::lock_guard<std::mutex> lock(mutex);
    result = outcome;
    pending = false;
    finished.notify_all();
  }
};

LocalDomainSetting::LocalDomainSetting(const std::string& name, bool createWhenMissing,
                                       const Configuration& configuration)
    : LocalDomainSetting(name, createWhenMissing, configuration, MakeStorage()) {}

LocalDomainSetting::LocalDomainSetting(const std::string& name, bool createWhenMissing,
                                       const Configuration& configuration,
                                       std::shared_ptr<IStorage> storage)
    : DomainSetting(name, createWhenMissing),
      storage_(std::move(storage)),
      domainFile_(FileFor(configuration.folder, Name())),
      backupFile_(configuration.folder + "/" + kBackupFolder + "/" + kFilePrefix + Name()) {
  CheckFileName(Name());
  if (!storage_) throw QelSharedSettingsException(make_error_code(kInvalidArgument), kInitFailed);
  saveTimer_ =
      dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 0, 0, DomainQueue().GetDispatchQueue());
  if (saveTimer_ == nullptr) {
    throw QelSharedSettingsException(make_error_code(kAllocationFailed), kInitFailed);
  }
  dispatch_source_set_timer(saveTimer_, dispatch_time(DISPATCH_TIME_NOW, 0), kTimerNs, kTimerNs);
}

std::string LocalDomainSetting::FileFor(const std::string& folder, const std::string& name) {
  return folder + "/" + kFilePrefix + CanonicalName(name);
}

std::error_code LocalDomainSetting::Exists(const std::string& folder, const std::string& name,
                                           bool& exists) {
  return DomainFileExists(*platform::DefaultFileSystem(), FileFor(folder, name), exists);
}

LocalDomainSetting::~LocalDomainSetting() {
  // The last reference may go on another thread (a timer tick's) while the
  // process exits; its flusher then finds nothing to save, so exit must wait
  // for this save instead, or it would end the process in the middle of it.
  KeepAlive::ExitGuard exiting(std::chrono::seconds(kFinalSaveSeconds + 1));
  // Then: waits out an exit flusher under way, and none starts afterwards.
  if (exitFlusher_ != 0) KeepAlive::UnregisterExitFlusher(exitFlusher_);
  FinalSave();
  if (keepAlive_ != 0) KeepAlive::End(keepAlive_);
  dispatch_release(saveTimer_);
}

// ---- Loading

std::error_code LocalDomainSetting::ReadTree(const std::string& path,
                                             std::shared_ptr<IHash>& tree) {
  std::error_code result = make_error_code(kFailure);
  try {
    storage_->ReadSettings(path, [&](std::error_code read, std::shared_ptr<IHash> hash) {
      result = read;
      tree = std::move(hash);
    });
  } catch (...) {
    return kFailure;
  }
  if (result == kSuccess && !tree) return kInvalidData;
  return result;
}

std::error_code LocalDomainSetting::InstallTree(std::shared_ptr<IHash> tree, bool dirty) {
  return RunOnDomainQueue("FetchSettings", [&] {
    std::error_code installed = Engine().ReplaceSettingsTree(std::move(tree));
    if (installed == kSuccess && dirty) MarkDirty();
    return installed;
  });
}

std::error_code LocalDomainSetting::InstallEmptyTree() {
  std::shared_ptr<IHash> empty;
  if (std::error_code made = HashFactory::Create(empty); made != kSuccess) return made;
  return InstallTree(std::move(empty), true);
}

std::error_code LocalDomainSetting::FetchSettings(std::function<void(std::error_code)> done) {
  if (!done) return kInvalidArgument;
  std::shared_ptr<IHash> tree;
  const std::error_code read = ReadTree(domainFile_, tree);
  if (read == kSuccess) {
    done(InstallTree(std::move(tree), false));
  } else if (read == kDomainNotOpen && CreateWhenMissing()) {
    // Written out at once (after the quiet period), so that the domain exists
    // on disk from its first opening.
    done(InstallEmptyTree());
  } else if (read == kCryptError || read == kVerificationError) {
    Report("FetchSetting", "Reading domain from backup", Name(), read);
    done(RestoreFromBackup(read));
  } else {
    done(read);
  }
  return kSuccess;
}

std::error_code LocalDomainSetting::ReadBackup(std::shared_ptr<IHash>& tree) {
  const std::error_code read = ReadTree(backupFile_, tree);
  if (read != kSuccess) return Report("FetchDomain", "Failed to read backup file", Name(), read);
  return kSuccess;
}

std::error_code LocalDomainSetting::FetchBackupSettings(std::function<void(std::error_code)> done) {
  if (!done) return kInvalidArgument;
  std::shared_ptr<IHash> tree;
  const std::error_code read = ReadBackup(tree);
  // Dirty: the domain file is replaced by what the backup holds.
  done(read == kSuccess ? InstallTree(std::move(tree), true) : read);
  return kSuccess;
}

// The damaged file may hold newer settings than the backup and be mostly
// recoverable, so it is kept under another name before the backup's tree is
// written over it; where it cannot be kept, nothing is restored.
std::error_code LocalDomainSetting::RestoreFromBackup(std::error_code damage) {
  std::shared_ptr<IHash> tree;
  if (std::error_code read = ReadBackup(tree); read != kSuccess) return read;
  std::error_code result = make_error_code(kFailure);
  std::string kept;
  storage_->KeepDamagedFile(domainFile_, [&](std::error_code code, const std::string& path) {
    result = code;
    kept = path;
  });
  if (result != kSuccess) {
    return Report("FetchDomain", "Failed to keep the damaged domain file", Name(), result);
  }
  Report("FetchDomain", ("Restored from backup; the damaged file is kept as " + kept).c_str(),
         Name(), damage);
  return RunOnDomainQueue("FetchSettings", [&] {
    std::error_code installed = Engine().ReplaceSettingsTree(std::move(tree));
    if (installed == kSuccess) {
      damagedFileKept_ = kept;
      MarkDirty();
    }
    return installed;
  });
}

std::error_code LocalDomainSetting::DamagedFileKept(std::string& path) {
  return RunOnDomainQueue("DamagedFileKept", [&] {
    path = damagedFileKept_;
    return make_error_code(kSuccess);
  });
}

// ---- Committing

std::error_code LocalDomainSetting::CommitTransaction(
    const std::shared_ptr<ITransaction>& transaction, std::function<void(std::error_code)> done) {
  if (!done) return kInvalidArgument;
  PreparedCommit commit;
  std::error_code result = PrepareCommit(transaction, commit);
  if (result == kSuccess && commit.record) {
    result = RunOnDomainQueue("CommitTransaction", [&] {
      std::error_code applied = AdoptOrApply(commit, false);
      if (applied == kSuccess) MarkDirty();
      return applied;
    });
  }
  done(result);
  return kSuccess;
}

// ---- Dirty state (domain queue)

void LocalDomainSetting::MarkDirty() {
  lastChange_ = DispatchClock::SystemNow();
  quietSince_->store(lastChange_.time_since_epoch().count());
  switch (saveState_) {
    case SaveState::kUnsaved:
    case SaveState::kClosing:
      return;
    case SaveState::kNeverChanged:
      Arm();
      [[fallthrough]];
    case SaveState::kSaved:
      keepAlive_ = KeepAlive::Begin();
      saveState_ = SaveState::kUnsaved;
      dispatch_resume(saveTimer_);
  }
}

void LocalDomainSetting::MarkClean() {
  saveState_ = SaveState::kSaved;
  dispatch_suspend(saveTimer_);
  if (keepAlive_ != 0) KeepAlive::End(std::exchange(keepAlive_, 0));
}

void LocalDomainSetting::Arm() {
  // Weak: a pending save must not keep a released domain alive; the
  // destructor writes it instead.
  std::weak_ptr<DomainSetting> weak = weak_from_this();
  dispatch_source_set_event_handler(saveTimer_, [weak, quietSince = quietSince_] {
    // Only a tick with a save due takes hold of the domain. One that merely
    // looks could otherwise end up with the last reference, and a release
    // meant to write the domain would return before the write.
    const std::chrono::system_clock::time_point since{
        std::chrono::system_clock::duration(quietSince->load())};
    if (DispatchClock::SystemNow() - since < kQuietPeriod) return;
    if (auto self = weak.lock()) (void)static_cast<LocalDomainSetting&>(*self).SaveCheck(false);
  });
  // Exit flushers run after the destructors of statics made later than the
  // first flusher's registration. The file key must outlive the flusher that
  // writes with it, so it is made now.
  (void)Key::Instance();
  exitFlusher_ = KeepAlive::RegisterExitFlusher(
      [weak] {
        if (auto self = weak.lock()) {
          (void)static_cast<LocalDomainSetting&>(*self).SaveSettings(kFinalSaveSeconds);
        }
      },
      std::chrono::seconds(kFinalSaveSeconds + 1));
}

// ---- Saving

std::error_code LocalDomainSetting::TakeSaveJob(SaveJob& job) {
  // A committed version never changes, so the writer may read it off the
  // domain queue without a copy.
  job.tree = Engine().Tree();
  job.storage = storage_;
  job.path = domainFile_;
  job.name = Name();
  job.takenAt = lastChange_;
  return kSuccess;
}

std::error_code LocalDomainSetting::SaveCheck(bool force) {
  if (saveState_ != SaveState::kUnsaved) return kSuccess;
  if (!force && DispatchClock::SystemNow() - lastChange_ < kQuietPeriod) return kSuccess;
  SaveJob job;
  if (std::error_code taken = TakeSaveJob(job); taken != kSuccess) return taken;
  // A failed write keeps the timer running: the next tick tries again.
  if (std::error_code written = job.Write(); written != kSuccess) return written;
  if (job.takenAt == lastChange_) MarkClean();
  return kSuccess;
}

std::error_code LocalDomainSetting::WaitForSave(const std::shared_ptr<SaveWaiter>& waiter,
                                                unsigned waitSeconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(waitSeconds);
  // The save may need a pool thread; so may this thread's own caller.
  platform::WorkerPool::BlockingScope blocking;
  std::unique_lock<std::mutex> lock(waiter->mutex);
  if (!waiter->finished.wait_until(lock, deadline, [&] { return !waiter->pending; })) {
    return make_error_code(kTimeout);
  }
  return waiter->result;
}

std::error_code LocalDomainSetting::SaveSettings(unsigned waitSeconds) {
  if (OnDomainQueue()) return SaveCheck(true);
  std::weak_ptr<DomainSetting> weak = weak_from_this();
  if (weak.expired()) {
    return RunOnDomainQueue("SaveSettings", [&] { return SaveCheck(true); });
  }
  auto waiter = std::make_shared<SaveWaiter>();
  const bool posted = PostToDomainQueue([weak, waiter] {
    std::error_code outcome = make_error_code(kSuccess);
    try {
      // Gone meanwhile: its destructor made the final save.
      if (auto self = weak.lock())
        outcome = static_cast<LocalDomainSetting&>(*self).SaveCheck(true);
    } catch (...) {
      outcome = make_error_code(kFailure);
    }
    waiter->Finish(outcome);
  });
  if (!posted) return kFailure;
  std::error_code result = WaitForSave(waiter, waitSeconds);
  if (result == kTimeout) Report("SaveSettings", "Wait time expired", Name(), result);
  return result;
}

// The last save runs while nothing else holds the domain, possibly on the
// domain queue itself (when a timer tick or a save request held the last
// reference). The tree is copied first and the write gets only the copy, so
// that a write outlasting the wait cannot touch the destroyed domain.
void LocalDomainSetting::FinalSave() {
  const bool onQueue = OnDomainQueue();
  SaveJob job;
  bool pending = false;
  auto stop = [&] {
    dispatch_source_set_event_handler(saveTimer_, nullptr);
    // On the domain queue, so that no tick is under way once it returns.
    dispatch_source_cancel(saveTimer_);
    pending = saveState_ == SaveState::kUnsaved && TakeSaveJob(job) == kSuccess;
    saveState_ = SaveState::kClosing;
    return make_error_code(kSuccess);
  };
  if (onQueue) {
    stop();
  } else if (RunOnDomainQueue("~LocalDomainSetting", stop) != kSuccess) {
    dispatch_source_cancel(saveTimer_);
  }
  if (!pending) return;
  if (onQueue) {
    (void)job.Write();
    return;
  }
  auto detached = std::make_shared<const SaveJob>(std::move(job));
  auto waiter = std::make_shared<SaveWaiter>();
  if (!PostToDomainQueue([detached, waiter] { waiter->Finish(detached->Write()); })) {
    (void)detached->Write();
    return;
  }
  if (WaitForSave(waiter, kFinalSaveSeconds) == kTimeout) {
    Report("SaveSettings", "Wait time expired", Name(), make_error_code(kTimeout));
  }
}

}  // namespace QelSS
