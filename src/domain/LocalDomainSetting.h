#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <system_error>

#include "domain/DomainSetting.h"
#include "persistence/IStorage.h"
#include "platform/support/KeepAlive.h"
#include "qelss/domain/DomainFactory.h"
#include "qelss/platform/Dispatch.h"

namespace QelSS {

// A domain kept in this process and in one encrypted file,
// "<folder>/com.qelvarin.<name>" (the lower-cased name), with a backup copy at
// "<folder>/SuccessfulImports/com.qelvarin.<name>" that the predefined-domain
// importer leaves behind.
//
// Saving is deferred and coalesced: a commit applies its changes in memory and
// marks the domain dirty; a timer ticking every 10 seconds writes the tree
// once 10 seconds have passed without a further commit, so any burst of
// commits costs one write, made 10 to 20 seconds after the last of them.
// A failed write leaves the domain dirty and is tried again at the next tick.
// While dirty the domain holds a process keep-alive, and it is saved at normal
// process exit (return from main, exit()) and when the last reference goes:
// the destructor waits at most 20 seconds for that final write.
//
// The generation count is not stored: every load starts again at 0.
//
// Thread-safe; all state changes run on the domain queue. Commit completions
// and fetch completions run on the calling thread, after the queue is left.
class LocalDomainSetting final : public DomainSetting {
 public:
  // Seconds without a commit after which the timer writes the domain; also the
  // timer's period and leeway.
  static constexpr std::chrono::seconds kQuietPeriod{10};
  // What the destructor and the exit save wait for the final write.
  static constexpr unsigned kFinalSaveSeconds = 20;

  // The domain `name` in `configuration.folder`, on the machine's files. Throws
  // QelSharedSettingsException ("LocalDomainSetting: Failed to init") with
  // kInvalidArgument when the name cannot be a file name (contains '/' or a
  // NUL byte, or is too long for the file system's name limit), or with the
  // code of the queue, storage or timer that could not be made.
  LocalDomainSetting(const std::string& name, bool createWhenMissing,
                     const Configuration& configuration);
  // The same over a storage of the caller's choosing (a test counting or
  // failing writes).
  LocalDomainSetting(const std::string& name, bool createWhenMissing,
                     const Configuration& configuration, std::shared_ptr<IStorage> storage);
  ~LocalDomainSetting() override;
  LocalDomainSetting(const LocalDomainSetting&) = delete;
  LocalDomainSetting& operator=(const LocalDomainSetting&) = delete;

  // Loads the tree from the domain file, always calling `done` (and returning
  // kSuccess):
  //   kSuccess  loaded; or the file is missing and the domain was made with
  //             createWhenMissing: it starts empty and is written out; or the
  //             file is damaged (kCryptError, kVerificationError) and the
  //             backup copy was loaded instead, and is written back; the
  //             damaged file is first kept beside it (DamagedFileKept), and
  //             where that fails the domain does not open.
  //   kDomainNotOpen  no file and no createWhenMissing.
  //   other     the storage's failure, or the backup's when the fallback fails.
  [[nodiscard]] std::error_code FetchSettings(std::function<void(std::error_code)> done) override;

  // Loads the tree from the backup copy and marks it for writing back to the
  // domain file. `done` gets kSuccess or the read's failure (reported as
  // "Failed to read backup file"). Returns kSuccess.
  [[nodiscard]] std::error_code FetchBackupSettings(std::function<void(std::error_code)> done);

  // Applies the transaction's changes (observers are not told: they hear the
  // changes of others only) and marks the domain dirty. The outcomes are those
  // of IDomainSetting::CommitTransaction; a transaction without changes
  // completes with kSuccess and leaves the domain as it was.
  [[nodiscard]] std::error_code CommitTransaction(
      const std::shared_ptr<ITransaction>& transaction,
      std::function<void(std::error_code)> done) override;

  // Writes the domain now if it is dirty, and waits at most `waitSeconds` for
  // the write. kSuccess when it was clean or is now saved; the write's failure
  // (the domain stays dirty and the timer retries); kTimeout when the wait
  // expired (the write still happens). Must not be called from the domain
  // queue (that is, from a commit or fetch completion running there).
  [[nodiscard]] std::error_code SaveSettings(unsigned waitSeconds) override;

  // The file of domain `name` in `folder`.
  static std::string FileFor(const std::string& folder, const std::string& name);
  // Whether domain `name` has a file in `folder`, looked at under the file's
  // lock so that a write under way in another process cannot hide it.
  [[nodiscard]] static std::error_code Exists(const std::string& folder, const std::string& name,
                                              bool& exists);

  // Where the damaged domain file was kept when opening found it damaged and
  // loaded the backup copy instead; empty when the domain was loaded from its
  // own file.
  [[nodiscard]] std::error_code DamagedFileKept(std::string& path) override;

  const std::string& DomainFile() const noexcept { return domainFile_; }
  const std::string& BackupFile() const noexcept { return backupFile_; }

 private:
  struct SaveJob;
  struct SaveWaiter;

  std::error_code ReadTree(const std::string& path, std::shared_ptr<IHash>& tree);
  std::error_code ReadBackup(std::shared_ptr<IHash>& tree);
  std::error_code RestoreFromBackup(std::error_code damage);
  std::error_code InstallTree(std::shared_ptr<IHash> tree, bool dirty);
  std::error_code InstallEmptyTree();
  void MarkDirty();
  void MarkClean();
  void Arm();
  std::error_code SaveCheck(bool force);
  std::error_code TakeSaveJob(SaveJob& job);
  void FinalSave();
  static std::error_code WaitForSave(const std::shared_ptr<SaveWaiter>& waiter,
                                     unsigned waitSeconds);

  // Constant after construction.
  const std::shared_ptr<IStorage> storage_;
  const std::string domainFile_;
  const std::string backupFile_;
  dispatch_source_t saveTimer_ = nullptr;
  // The last change's time, for the timer handler to look at without holding
  // the domain; written on the domain queue.
  const std::shared_ptr<std::atomic<std::chrono::system_clock::rep>> quietSince_ =
      std::make_shared<std::atomic<std::chrono::system_clock::rep>>(0);

  // Where the domain stands with its file.
  //   kNeverChanged  nothing to write since loading; the timer handler and
  //                  the exit flusher are not in place yet (they need a weak
  //                  reference to this object, which the constructor cannot
  //                  have).
  //   kSaved         the file holds every commit; the timer is suspended.
  //   kUnsaved       commits wait for the timer; it runs and the process
  //                  keep-alive is held.
  //   kClosing       the timer is cancelled; only the final save remains.
  enum class SaveState { kNeverChanged, kSaved, kUnsaved, kClosing };

  // On the domain queue only (the destructor reads them once nothing else
  // can run).
  SaveState saveState_ = SaveState::kNeverChanged;
  unsigned long exitFlusher_ = 0;
  std::chrono::system_clock::time_point lastChange_{};
  platform::KeepAlive::Token keepAlive_ = 0;
  std::string damagedFileKept_;
};

}  // namespace QelSS
