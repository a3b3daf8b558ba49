#pragma once

// The journal of one domain: a sealed record per accepted commit, appended
// before the commit is answered, so that nothing acknowledged is lost while
// the domain's snapshot is older than its state. The file format is at the
// top of Journal.cc.

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "platform/support/Mutex.h"

namespace QelSS::service {

enum class SyncMode {
  kFull,  // answer once the record is on stable storage
  kNone,  // answer once the record reached the kernel
};

class Journal {
 public:
  using Durable = std::function<void(std::error_code)>;

  // Opens (creating it, mode 0600) the journal at `path`. kFileWriteError when
  // it cannot be opened.
  [[nodiscard]] static std::error_code Open(const std::string& path, SyncMode mode,
                                            std::unique_ptr<Journal>& out);
  // Waits for the last sync and closes the file.
  ~Journal();
  Journal(const Journal&) = delete;
  Journal& operator=(const Journal&) = delete;

  // Calls `apply` with the payload of every whole record, in order. A torn or
  // damaged record and everything after it are cut off the file (they were
  // never answered). Stops at the first failure of `apply` and returns it.
  [[nodiscard]] std::error_code Replay(
      const std::function<std::error_code(const std::vector<uint8_t>&)>& apply);

  // Seals `payload` and appends it. kFileWriteError when the write fails; the
  // file is then cut back to where it was.
  [[nodiscard]] std::error_code Append(const std::vector<uint8_t>& payload);

  // Calls `then` once everything appended so far is durable: at once with
  // SyncMode::kNone, else after the next sync, which every record appended
  // meanwhile shares. Calls happen in the order of WhenDurable calls.
  void WhenDurable(Durable then);

  // Empties the journal once a snapshot holds everything in it.
  [[nodiscard]] std::error_code Reset();

  // Records in the file (replayed or appended), for the log and tests.
  uint64_t Records() const;

 private:
  Journal(int fd, SyncMode mode);
  void SyncLoop();

  const int fd_;
  const SyncMode mode_;
  mutable platform::Mutex mutex_;
  std::condition_variable wake_;
  std::deque<Durable> waiting_ QELSS_GUARDED_BY(mutex_);
  uint64_t records_ QELSS_GUARDED_BY(mutex_) = 0;
  bool stopping_ QELSS_GUARDED_BY(mutex_) = false;
  std::thread syncer_;
};

}  // namespace QelSS::service
