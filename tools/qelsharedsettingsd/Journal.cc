// Journal file format:
//
//   journal = record*
//   record  = length envelope
//   length  = u32 little-endian, the size of envelope; at most kMaxRecord
//   envelope = the payload sealed as a domain file is (authenticated and
//              encrypted under this machine's file key)
//
// Records are only ever appended. A crash may leave the last one torn (short,
// or failing its authentication): it was never answered, and replay cuts it
// off together with anything behind it.

#include "Journal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "persistence/Envelope.h"
#include "platform/ipc/Frame.h"
#include "qelss/platform/ErrorCode.h"

namespace QelSS::service {
namespace {

// A sealed payload is at most a frame's body plus the envelope's padding and
// authentication code.
constexpr uint32_t kMaxRecord = platform::ipc::kMaxFrameBody + 4096;

bool WriteAll(int fd, const uint8_t* bytes, size_t length) {
  while (length > 0) {
    const ssize_t written = ::write(fd, bytes, length);
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes += written;
    length -= static_cast<size_t>(written);
  }
  return true;
}

bool ReadAt(int fd, off_t offset, uint8_t* into, size_t length) {
  while (length > 0) {
    const ssize_t got = ::pread(fd, into, length, offset);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    into += got;
    length -= static_cast<size_t>(got);
    offset += got;
  }
  return true;
}

}  // namespace

std::error_code Journal::Open(const std::string& path, SyncMode mode,
                              std::unique_ptr<Journal>& out) {
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (fd < 0) return make_error_code(kFileWriteError);
  out.reset(new Journal(fd, mode));
  return make_error_code(kSuccess);
}

Journal::Journal(int fd, SyncMode mode) : fd_(fd), mode_(mode) {
  if (mode_ == SyncMode::kFull) syncer_ = std::thread([this] { SyncLoop(); });
}

Journal::~Journal() {
  {
    platform::MutexLock lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (syncer_.joinable()) syncer_.join();
  ::close(fd_);
}

std::error_code Journal::Replay(
    const std::function<std::error_code(const std::vector<uint8_t>&)>& apply) {
  struct stat info {};
  if (::fstat(fd_, &info) != 0) return make_error_code(kFileReadError);
  const off_t end = info.st_size;
  off_t offset = 0;
  uint64_t whole = 0;
  std::vector<uint8_t> envelope;
  std::vector<uint8_t> payload;
  std::error_code result = make_error_code(kSuccess);
  while (offset < end) {
    uint8_t header[4];
    if (end - offset < 4 || !ReadAt(fd_, offset, header, 4)) break;
    const uint32_t length = uint32_t(header[0]) | uint32_t(header[1]) << 8 |
                            uint32_t(header[2]) << 16 | uint32_t(header[3]) << 24;
    if (length == 0 || length > kMaxRecord || end - offset - 4 < static_cast<off_t>(length)) break;
    envelope.resize(length);
    if (!ReadAt(fd_, offset + 4, envelope.data(), length)) break;
    if (Decrypt(envelope, payload) != make_error_code(kSuccess)) break;
    if (result = apply(payload); result != make_error_code(kSuccess)) return result;
    offset += 4 + static_cast<off_t>(length);
    ++whole;
  }
  if (offset < end && ::ftruncate(fd_, offset) != 0) return make_error_code(kFileWriteError);
  platform::MutexLock lock(mutex_);
  records_ = whole;
  return result;
}

std::error_code Journal::Append(const std::vector<uint8_t>& payload) {
  std::vector<uint8_t> sealed;
  if (std::error_code made = Encrypt(payload, sealed); made != make_error_code(kSuccess)) {
    return made;
  }
  if (sealed.size() > kMaxRecord) return make_error_code(kInvalidData);
  std::vector<uint8_t> record(4);
  for (int i = 0; i < 4; ++i) record[i] = static_cast<uint8_t>(sealed.size() >> (8 * i));
  record.insert(record.end(), sealed.begin(), sealed.end());
  struct stat before {};
  if (::fstat(fd_, &before) != 0) return make_error_code(kFileWriteError);
  if (!WriteAll(fd_, record.data(), record.size())) {
    // A part of a record would be read as a torn tail; take it back now so
    // that the next record is not written behind it.
    (void)::ftruncate(fd_, before.st_size);
    return make_error_code(kFileWriteError);
  }
  platform::MutexLock lock(mutex_);
  ++records_;
  return make_error_code(kSuccess);
}

void Journal::WhenDurable(Durable then) {
  if (mode_ == SyncMode::kNone) {
    then(make_error_code(kSuccess));
    return;
  }
  {
    platform::MutexLock lock(mutex_);
    waiting_.push_back(std::move(then));
  }
  wake_.notify_one();
}

// Group commit: each round takes every waiter present when it starts, so the
// records appended while one sync runs share the next one.
void Journal::SyncLoop() {
  for (;;) {
    std::deque<Durable> round;
    {
      platform::MutexLock lock(mutex_);
      lock.Wait(wake_, [this]() QELSS_REQUIRES(mutex_) { return stopping_ || !waiting_.empty(); });
      if (waiting_.empty()) return;
      round.swap(waiting_);
    }
    const std::error_code synced =
        ::fdatasync(fd_) == 0 ? make_error_code(kSuccess) : make_error_code(kFileWriteError);
    for (Durable& then : round) then(synced);
  }
}

std::error_code Journal::Reset() {
  if (::ftruncate(fd_, 0) != 0) return make_error_code(kFileWriteError);
  platform::MutexLock lock(mutex_);
  records_ = 0;
  return make_error_code(kSuccess);
}

uint64_t Journal::Records() const {
  platform::MutexLock lock(mutex_);
  return records_;
}

}  // namespace QelSS::service
