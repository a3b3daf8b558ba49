#pragma once

// Pieces shared by the local-domain tests and benchmarks: a private key folder
// for the process, a file system that counts the domain files written (and can
// refuse writes), and opening a local domain in a folder.

#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "domain/DomainTestSupport.h"
#include "domain/LocalDomainSetting.h"
#include "persistence/Storage.h"
#include "platform/ScopedTempDir.h"
#include "platform/dispatch/DispatchClock.h"
#include "platform/support/FileSystemWrapper.h"

namespace QelSS::testing {

// Points the per-user data folder, where the file key lives, at a temporary
// folder for the rest of the process, so that the machine's own key file is
// never read or made. Child processes inherit it and find the same key. Call it
// before the first domain opens: the folder then outlives the saves made at
// process exit, and goes after them.
inline void UsePrivateKeyFolder() {
  static ScopedTempDir folder;
  static const bool pointed = ::setenv("XDG_DATA_HOME", folder.path().c_str(), 1) == 0;
  (void)pointed;
}

// The machine's files, with a record of every completed replacement of a file
// (a finished write) and a switch that makes opening files for writing fail as
// a read-only folder would.
class DiskProbe final : public platform::FileSystemWrapper {
 public:
  DiskProbe() : FileSystemWrapper(platform::DefaultFileSystem()) {}

  std::error_code Open(const std::string& path, platform::OpenMode mode, int& fd) override {
    if (mode == platform::OpenMode::kWriteTruncate) {
      std::this_thread::sleep_for(std::chrono::milliseconds(delayMs_.load()));
    }
    if (mode == platform::OpenMode::kWriteTruncate && refuseWrites_) {
      std::lock_guard<std::mutex> lock(mutex_);
      ++refused_;
      return std::error_code(EACCES, std::system_category());
    }
    return FileSystemWrapper::Open(path, mode, fd);
  }

  std::error_code Rename(const std::string& from, const std::string& to) override {
    std::error_code renamed = FileSystemWrapper::Rename(from, to);
    if (renamed == kSuccess) {
      std::lock_guard<std::mutex> lock(mutex_);
      writes_.push_back(platform::DispatchClock::SystemNow());
    }
    return renamed;
  }

  void RefuseWrites(bool refuse) { refuseWrites_ = refuse; }
  // Makes every write take at least `delay`, as on a slow disk.
  void DelayWrites(std::chrono::milliseconds delay) { delayMs_ = delay.count(); }

  int Writes() {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(writes_.size());
  }
  int Refused() {
    std::lock_guard<std::mutex> lock(mutex_);
    return refused_;
  }
  // The test clock's wall time of each finished write.
  std::vector<std::chrono::system_clock::time_point> WriteTimes() {
    std::lock_guard<std::mutex> lock(mutex_);
    return writes_;
  }

  // True once at least `count` writes finished within `limit` of real time.
  bool WaitForWrites(int count, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (Writes() < count) {
      if (std::chrono::steady_clock::now() > end) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
  }

 private:
  std::atomic<bool> refuseWrites_{false};
  std::atomic<long long> delayMs_{0};
  std::mutex mutex_;
  std::vector<std::chrono::system_clock::time_point> writes_;  // guarded by mutex_
  int refused_ = 0;                                            // guarded by mutex_
};

inline unsigned FileMode(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 ? (info.st_mode & 07777) : 0;
}

// A local domain in `folder`, fetched; null when the fetch did not succeed
// (`fetched` says why).
inline std::shared_ptr<LocalDomainSetting> OpenLocal(const std::string& folder,
                                                     std::shared_ptr<IStorage> storage,
                                                     std::error_code& fetched,
                                                     const std::string& name = "Alerts",
                                                     bool create = true) {
  if (!storage) storage = std::make_shared<Storage>();
  auto domain = std::make_shared<LocalDomainSetting>(name, create, Configuration{folder, true},
                                                     std::move(storage));
  fetched = make_error_code(kFailure);
  if (domain->FetchSettings([&](std::error_code result) { fetched = result; }) != kSuccess ||
      fetched != kSuccess) {
    return nullptr;
  }
  return domain;
}

// Commits one change: `path` set to the number `value`.
inline std::error_code SetNumber(IDomainSetting& domain, const std::string& path, long long value) {
  auto transaction = NewTransaction(domain);
  if (!transaction) return make_error_code(kFailure);
  if (std::error_code set = transaction->Set(path, Int(value)); set != kSuccess) return set;
  return Commit(domain, transaction);
}

}  // namespace QelSS::testing
