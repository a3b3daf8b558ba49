#include "persistence/HostKeyFile.h"

#include <unistd.h>

#include <memory>

#include "persistence/CryptoTables.h"
#include "platform/crypto/SecureMemory.h"
#include "platform/crypto/SecureRandom.h"
#include "platform/crypto/Sha256.h"
#include "platform/report/Failure.h"
#include "platform/support/Base64.h"
#include "platform/support/ScopedFile.h"
#include "qelss/platform/ErrorCode.h"

namespace QelSS {
namespace {

namespace crypto = platform::crypto;

constexpr uint32_t kTag = QelErrTag("SSKC");
constexpr const char* kMismatchText = "SHA Mismatch (calculatedHostKeySHA != SHA256HostKey)";
// A real key file is 88 bytes; anything this large is not one and is not read
// into memory.
constexpr uint64_t kMaxKeyFileSize = 1 << 20;
constexpr unsigned kKeyFileMode = 0640;
constexpr gid_t kKeyFileGroup = 0;

using platform::IFileSystem;
using platform::OpenMode;
using platform::ScopedFile;

void ApplyMask(std::vector<uint8_t>& blob) {
  for (size_t i = 0; i < blob.size(); ++i) blob[i] ^= kHostKeyMask[i % kHostKeyMask.size()];
}

std::error_code Report(const char* operation, const char* domain, const char* message,
                       std::error_code code) {
  return ReportFailure(FailureReport{kTag, operation, domain, message}, code);
}

std::error_code ReadWholeFile(IFileSystem& files, const std::string& path, std::string& text) {
  uint64_t size = 0;
  if (files.Stat(path, size) != kSuccess) return kNotFound;
  if (size > kMaxKeyFileSize) return kFileReadError;
  int fd = -1;
  if (files.Open(path, OpenMode::kRead, fd) != kSuccess) return kFileReadError;
  ScopedFile file(files, fd);
  std::string content;
  uint8_t buffer[512];
  for (;;) {
    size_t got = 0;
    if (files.Read(fd, buffer, got) != kSuccess) return kFileReadError;
    if (got == 0) break;
    content.append(reinterpret_cast<const char*>(buffer), got);
    if (content.size() > kMaxKeyFileSize) return kFileReadError;
  }
  text = std::move(content);
  return kSuccess;
}

std::error_code WriteAll(IFileSystem& files, int fd, const std::string& text) {
  std::span<const uint8_t> rest(reinterpret_cast<const uint8_t*>(text.data()), text.size());
  while (!rest.empty()) {
    size_t count = 0;
    if (files.Write(fd, rest, count) != kSuccess || count == 0) return kFileWriteError;
    rest = rest.subspan(count);
  }
  return kSuccess;
}

// The key reaches its own name only whole and on stable storage: a failure
// at any step (a full disk, say) leaves no key file rather than an empty or
// partial one, which would lock every domain out for good.
std::error_code WriteKeyText(IFileSystem& files, const std::string& path, const std::string& text) {
  const std::string temporary = path + ".new-" + std::to_string(::getpid());
  int fd = -1;
  if (files.Open(temporary, OpenMode::kWriteTruncate, fd) != kSuccess) return kFileWriteError;
  ScopedFile file(files, fd);
  std::error_code code = WriteAll(files, fd, text);
  if (code == kSuccess && files.Sync(fd) != kSuccess) code = kFileWriteError;
  if (file.Close() != kSuccess) code = kFileWriteError;
  if (code == kSuccess) {
    const std::error_code permissions =
        files.SetPermissions(temporary, kKeyFileMode, static_cast<uid_t>(-1), kKeyFileGroup);
    if (permissions != kSuccess) {
      code = Report("SetFilePermissions failure", kKeyErrorDomain,
                    "Failed to set permissions on key file", permissions);
    }
  }
  if (code == kSuccess && files.Rename(temporary, path) != kSuccess) code = kFileWriteError;
  if (code != kSuccess) {
    (void)files.Remove(temporary);
    return code;
  }
  if (files.SyncDirectory(platform::ParentDirectory(path)) != kSuccess) return kFileWriteError;
  return kSuccess;
}

}  // namespace

std::error_code ReadHostKeyFile(IFileSystem& files, const std::string& path,
                                std::vector<uint8_t>& hostKey) {
  std::string text;
  if (std::error_code read = ReadWholeFile(files, path, text); read != kSuccess) return read;

  std::vector<uint8_t> blob;
  if (QelBase64Decode(text.data(), text.size(), blob) != 0) {
    return Report("base64decode", kQelSharedSettingsErrorDomain, kMismatchText, kKeyDecodeError);
  }
  ApplyMask(blob);

  const size_t digestSize = std::min(blob.size(), crypto::kSha256Size);
  const std::span<const uint8_t> stored(blob.data(), digestSize);
  const std::span<const uint8_t> key(blob.data() + digestSize, blob.size() - digestSize);
  crypto::Sha256Digest computed{};
  if (crypto::Sha256(key, computed) != crypto::CryptStatus::kSuccess ||
      !crypto::ConstantTimeEqual(computed, stored)) {
    crypto::SecureWipe(blob);
    return Report("SHAMismatch", kQelSharedSettingsErrorDomain, kMismatchText,
                  kKeyChecksumMismatch);
  }
  hostKey.assign(key.begin(), key.end());
  crypto::SecureWipe(blob);
  return kSuccess;
}

std::error_code WriteHostKeyFile(IFileSystem& files, const std::string& path,
                                 std::span<const uint8_t> hostKey) {
  if (hostKey.empty()) return kInvalidArgument;
  crypto::Sha256Digest digest{};
  if (crypto::Sha256(hostKey, digest) != crypto::CryptStatus::kSuccess) return kKeyReadError;
  std::vector<uint8_t> blob(digest.begin(), digest.end());
  for (const uint8_t byte : hostKey) blob.push_back(byte);
  ApplyMask(blob);
  std::string text;
  const int status = QelBase64Encode(blob.data(), blob.size(), text);
  crypto::SecureWipe(blob);
  // An empty text would silently orphan every domain file, so any encoder
  // failure stops here.
  if (status != 0) return kKeyReadError;
  return WriteKeyText(files, path, text);
}

std::error_code ReadHostKeyFile(const std::string& path, std::vector<uint8_t>& hostKey) {
  return ReadHostKeyFile(*platform::DefaultFileSystem(), path, hostKey);
}

std::error_code WriteHostKeyFile(const std::string& path, std::span<const uint8_t> hostKey) {
  return WriteHostKeyFile(*platform::DefaultFileSystem(), path, hostKey);
}

std::error_code GetHostKey(const std::string& path, std::vector<uint8_t>& hostKey) {
  const std::error_code read = ReadHostKeyFile(path, hostKey);
  if (read == kSuccess) return read;
  if (read != kNotFound) {
    // Every unusable file is reported as "file not found", though it was found:
    // the text is part of the report vocabulary and stays as it is.
    return Report("readfile", kQelSharedSettingsErrorDomain, "file not found", read);
  }

  std::vector<uint8_t> fresh(kHostKeySize);
  if (crypto::RandomBytes(fresh) != crypto::CryptStatus::kSuccess) return kKeyDerivationError;
  const std::error_code written = WriteHostKeyFile(path, fresh);
  if (written != kSuccess) {
    crypto::SecureWipe(fresh);
    return written;
  }
  hostKey = std::move(fresh);
  return kSuccess;
}

}  // namespace QelSS
