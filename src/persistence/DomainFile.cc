#include "persistence/DomainFile.h"

#include <ctime>

#include "persistence/Envelope.h"
#include "persistence/ReadBackCheck.h"
#include "platform/report/Failure.h"
#include "platform/support/ScopedFile.h"
#include "qelss/platform/ErrorCode.h"
#include "qelss/values/HashFactory.h"

namespace QelSS {
namespace {

using platform::IFileSystem;
using platform::OpenMode;
using platform::ScopedFile;
using platform::SeekFrom;

constexpr uint32_t kTag = QelErrTag("QSST");
constexpr unsigned kDomainFileMode = 0640;
constexpr uid_t kKeepOwner = static_cast<uid_t>(-1);
constexpr gid_t kDomainFileGroup = 0;

std::error_code Report(const char* operation, const char* message, std::error_code code) {
  return ReportFailure(FailureReport{kTag, operation, kQelSharedSettingsErrorDomain, message},
                       code);
}

std::error_code ReadFailure() {
  return Report("ReadSettings", "Error reading File specified by inFilePath", kFileReadError);
}

std::error_code DumpFailure() {
  return Report("WriteSettings", "Error dumping contents to disk", kFileWriteError);
}

constexpr size_t kMaxFileNameLength = 255;
// Damaged copies of one file within one second get "-1", "-2", ... appended.
constexpr int kMaxDamagedNames = 100;

// The whole-operation hold on one domain file against other processes.
class DomainLock {
 public:
  explicit DomainLock(IFileSystem& files) : files_(files) {}
  ~DomainLock() {
    if (fd_ >= 0) (void)files_.Close(fd_);
  }
  DomainLock(const DomainLock&) = delete;
  DomainLock& operator=(const DomainLock&) = delete;

  std::error_code Take(const std::string& path) {
    const std::error_code code = files_.LockFile(path + kLockFileSuffix, kDomainLockWait, fd_);
    if (code == kSuccess || CannotMakeLockFile(code)) return kSuccess;
    if (code == std::errc::timed_out) {
      return Report("lock", "Another process held the domain file too long", kTimeout);
    }
    return Report("lock", "Failed to lock the domain file", code);
  }

 private:
  // No folder yet, or one this process may not write: it cannot change the
  // files either, so there is nothing to keep it from.
  static bool CannotMakeLockFile(std::error_code code) {
    return code == std::errc::no_such_file_or_directory || code == std::errc::not_a_directory ||
           code == std::errc::permission_denied || code == std::errc::operation_not_permitted ||
           code == std::errc::read_only_file_system;
  }

  IFileSystem& files_;
  int fd_ = -1;
};

std::string TemporaryPath(const std::string& path) { return path + kTemporaryFileSuffix; }
std::string FirstWritePath(const std::string& path) { return path + kFirstWriteFileSuffix; }

// T alone is the new tree of a write that stopped after removing P: finishing
// the rename completes that write. `found` is false when there is neither.
std::error_code PromoteLoneTemporary(IFileSystem& files, const std::string& path, bool& found) {
  found = true;
  if (files.Exists(path)) return kSuccess;
  const std::string temporary = TemporaryPath(path);
  if (!files.Exists(temporary)) {
    found = false;
    return kSuccess;
  }
  if (std::error_code code = files.Rename(temporary, path); code != kSuccess) {
    return Report("rename", "Failed to rename file.", code);
  }
  return kSuccess;
}

std::error_code ReadAll(IFileSystem& files, int fd, std::vector<uint8_t>& out) {
  uint64_t length = 0, start = 0;
  if (files.Seek(fd, 0, SeekFrom::kEnd, length) != kSuccess) return ReadFailure();
  // The file may have grown since it was measured; the limit still holds.
  if (length > kMaxDomainFileSize) return kStorageError;
  if (files.Seek(fd, 0, SeekFrom::kStart, start) != kSuccess) return ReadFailure();
  std::vector<uint8_t> bytes(length);
  size_t done = 0;
  while (done < bytes.size()) {
    size_t count = 0;
    if (files.Read(fd, std::span(bytes).subspan(done), count) != kSuccess) return ReadFailure();
    if (count == 0) break;
    done += count;
  }
  bytes.resize(done);  // a file that shrank meanwhile fails in decryption
  out = std::move(bytes);
  return kSuccess;
}

std::error_code WriteAll(IFileSystem& files, int fd, const std::vector<uint8_t>& data) {
  size_t done = 0;
  while (done < data.size()) {
    size_t count = 0;
    if (files.Write(fd, std::span(data).subspan(done), count) != kSuccess || count == 0) {
      return DumpFailure();
    }
    done += count;
  }
  return kSuccess;
}

// The temporary file is complete and on stable storage when this succeeds.
std::error_code WriteTemporary(IFileSystem& files, const std::string& temporary,
                               const std::vector<uint8_t>& envelope) {
  int fd = -1;
  if (files.Open(temporary, OpenMode::kWriteTruncate, fd) != kSuccess) {
    return Report("WriteSettings", "Error reading file specified by inFilePath", kFileWriteError);
  }
  ScopedFile file(files, fd);
  if (std::error_code code = WriteAll(files, fd, envelope); code != kSuccess) return code;
  if (files.Sync(fd) != kSuccess) return DumpFailure();
  if (file.Close() != kSuccess) return DumpFailure();
  return kSuccess;
}

// Runs while P is still untouched. On failure T goes too: a partial T must
// never be promoted when there is no P, and with P present it is worthless.
std::error_code PrepareTemporary(IFileSystem& files, const std::string& temporary,
                                 const std::vector<uint8_t>& envelope) {
  std::error_code code = WriteTemporary(files, temporary, envelope);
  // T's directory entry must be durable before P's removal can be: otherwise
  // a power cut could keep the removal and lose T.
  if (code == kSuccess && files.SyncDirectory(platform::ParentDirectory(temporary)) != kSuccess) {
    code = DumpFailure();
  }
  if (code != kSuccess) (void)files.Remove(temporary);
  return code;
}

// "20261124T053912Z": sorts by time and holds no character a file name or
// a shell would stumble on.
std::string UtcStamp() {
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  char text[32] = {};
  if (gmtime_r(&now, &utc) == nullptr ||
      std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &utc) == 0) {
    return "unknown-time";
  }
  return text;
}

// P ".damaged-<stamp>[-n]", with P's own name shortened where the whole name
// would pass the file system's limit: the copy matters more than its name.
std::string DamagedPath(const std::string& path, const std::string& stamp, int attempt) {
  std::string suffix = std::string(kDamagedFileSuffix) + stamp;
  if (attempt > 0) suffix += "-" + std::to_string(attempt);
  const size_t slash = path.find_last_of('/');
  const size_t nameStart = slash == std::string::npos ? 0 : slash + 1;
  std::string name = path.substr(nameStart);
  if (name.size() + suffix.size() > kMaxFileNameLength) {
    name.resize(kMaxFileNameLength - suffix.size());
  }
  return path.substr(0, nameStart) + name + suffix;
}

// For file systems without hard links: a synced copy under the new name.
std::error_code CopyFile(IFileSystem& files, const std::string& from, const std::string& to) {
  if (files.Exists(to)) return std::make_error_code(std::errc::file_exists);
  std::vector<uint8_t> bytes;
  int in = -1;
  if (std::error_code code = files.Open(from, OpenMode::kRead, in); code != kSuccess) return code;
  ScopedFile source(files, in);
  if (std::error_code code = ReadAll(files, in, bytes); code != kSuccess) return code;
  if (std::error_code code = WriteTemporary(files, to, bytes); code != kSuccess) {
    (void)files.Remove(to);
    return code;
  }
  return files.SetPermissions(to, kDomainFileMode, kKeepOwner, kDomainFileGroup);
}

bool LinksUnsupported(std::error_code code) {
  return code == std::errc::operation_not_permitted || code == std::errc::cross_device_link ||
         code == std::errc::operation_not_supported || code == std::errc::too_many_links;
}

}  // namespace

std::error_code ReadDomainBytes(IFileSystem& files, const std::string& path,
                                std::vector<uint8_t>& out) {
  if (path.empty()) return kInvalidArgument;
  DomainLock lock(files);
  if (std::error_code code = lock.Take(path); code != kSuccess) return code;
  bool found = false;
  if (std::error_code code = PromoteLoneTemporary(files, path, found); code != kSuccess) {
    return code;
  }
  if (!found) return kDomainNotOpen;

  uint64_t size = 0;
  if (std::error_code code = files.Stat(path, size); code != kSuccess) return code;
  if (size > kMaxDomainFileSize) return kStorageError;

  int fd = -1;
  if (files.Open(path, OpenMode::kRead, fd) != kSuccess) return ReadFailure();
  ScopedFile file(files, fd);
  return ReadAll(files, fd, out);
}

std::error_code ReadDomainFile(IFileSystem& files, const std::string& path,
                               std::shared_ptr<IHash>& out) {
  std::vector<uint8_t> envelope;
  if (std::error_code code = ReadDomainBytes(files, path, envelope); code != kSuccess) {
    return code;
  }
  std::vector<uint8_t> bytes;
  if (std::error_code code = Decrypt(envelope, bytes); code != kSuccess) {
    return Report("ReadSettings", "Failed to decrypt objectBytes", code);
  }
  std::shared_ptr<IHash> hash;
  if (std::error_code code = HashFactory::CreateFromBytes(hash, bytes); code != kSuccess) {
    return Report("ReadSettings", "Error Deserializing bytes to IHash", code);
  }
  out = std::move(hash);
  return kSuccess;
}

std::error_code ReplaceDomainBytes(IFileSystem& files, const std::string& path,
                                   const std::vector<uint8_t>& envelope) {
  if (path.empty()) return kInvalidArgument;
  DomainLock lock(files);
  if (std::error_code code = lock.Take(path); code != kSuccess) return code;
  // A lone T holds the previous tree; truncating it for this write would leave
  // nothing to fall back on should this write fail too.
  bool found = false;
  if (std::error_code code = PromoteLoneTemporary(files, path, found); code != kSuccess) {
    return code;
  }

  // With no P, a T cut short by a crash would be alone and promoted as if whole;
  // the first tree is therefore written under another name and renamed into
  // place only once complete.
  const std::string temporary = found ? TemporaryPath(path) : FirstWritePath(path);
  if (std::error_code code = PrepareTemporary(files, temporary, envelope); code != kSuccess) {
    return code;
  }
  // From here on T is whole: whichever step fails, the next read finds the old
  // P, or T alone and promotes it.
  if (found && files.Exists(path)) {
    if (std::error_code code = files.Remove(path); code != kSuccess) {
      return Report("remove", "Failed to remove file.", code);
    }
  }
  if (std::error_code code = files.Rename(temporary, path); code != kSuccess) {
    // A first tree left under its own name would never be read: the domain is
    // still missing, as the caller is told.
    if (!found) (void)files.Remove(temporary);
    return Report("rename", "Failed to rename file.", code);
  }
  if (std::error_code code =
          files.SetPermissions(path, kDomainFileMode, kKeepOwner, kDomainFileGroup);
      code != kSuccess) {
    return Report("SetFilePermissions failure", "Failed to set domain permissions", code);
  }
  // Without this a power cut could bring back the old P, or T alone, after the
  // caller was told that the new tree is stored.
  if (files.SyncDirectory(platform::ParentDirectory(path)) != kSuccess) return DumpFailure();
  return kSuccess;
}

std::error_code WriteDomainFile(IFileSystem& files, const std::string& path,
                                const std::shared_ptr<IHash>& hash) {
  if (path.empty() || !hash) return kInvalidArgument;
  std::vector<uint8_t> bytes;
  if (std::error_code code = hash->Serialize(bytes); code != kSuccess) {
    return Report("WriteSettings", "Error serializing IHash to objectBytes", code);
  }
  // Bytes the reader refuses would replace a readable file: the write fails
  // instead, and the old tree stays.
  if (std::error_code code = CheckReadBack(bytes); code != kSuccess) {
    return Report("WriteSettings", "Error serializing IHash to objectBytes", code);
  }
  std::vector<uint8_t> envelope;
  if (std::error_code code = Encrypt(bytes, envelope); code != kSuccess) {
    return Report("WriteSettings", "Failed to encrypt objectBytes", code);
  }
  return ReplaceDomainBytes(files, path, envelope);
}

std::error_code DomainFileExists(IFileSystem& files, const std::string& path, bool& exists) {
  if (path.empty()) return kInvalidArgument;
  DomainLock lock(files);
  if (std::error_code code = lock.Take(path); code != kSuccess) return code;
  exists = files.Exists(path) || files.Exists(TemporaryPath(path));
  return kSuccess;
}

std::error_code KeepDamagedFile(IFileSystem& files, const std::string& path, std::string& kept) {
  if (path.empty()) return kInvalidArgument;
  DomainLock lock(files);
  if (std::error_code code = lock.Take(path); code != kSuccess) return code;
  const std::string stamp = UtcStamp();
  std::error_code code = make_error_code(kFailure);
  for (int attempt = 0; attempt < kMaxDamagedNames; ++attempt) {
    const std::string candidate = DamagedPath(path, stamp, attempt);
    // A second name for the same file: P's removal by the next write then
    // leaves the damaged bytes under it, untouched and with P's mode.
    code = files.Link(path, candidate);
    if (LinksUnsupported(code)) code = CopyFile(files, path, candidate);
    if (code == std::errc::file_exists) continue;
    if (code != kSuccess) break;
    if (files.SyncDirectory(platform::ParentDirectory(candidate)) != kSuccess) {
      code = DumpFailure();
      break;
    }
    kept = candidate;
    return kSuccess;
  }
  return Report("KeepDamagedFile", "Failed to keep the damaged domain file", code);
}

}  // namespace QelSS
