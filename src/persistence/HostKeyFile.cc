#include "persistence/HostKeyFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <memory>

#include "persistence/CryptoTables.h"
#include "platform/crypto/SecureMemory.h"
#include "platform/crypto/SecureRandom.h"
#include "platform/crypto/Sha256.h"
#include "platform/support/Base64.h"
#include "platform/support/FilePermissions.h"
#include "qelss/values/ErrorCode.h"
#include "values/FailureReport.h"

namespace QelSS {
namespace {

namespace crypto = platform::crypto;

constexpr uint32_t kTag = QelErrTag("SSKC");
constexpr const char* kMismatchText = "SHA Mismatch (calculatedHostKeySHA != SHA256HostKey)";
// A real key file is 88 bytes; anything this large is not one and is not read
// into memory.
constexpr off_t kMaxKeyFileSize = 1 << 20;
constexpr mode_t kKeyFileMode = 0640;

using File = std::unique_ptr<FILE, int (*)(FILE*)>;

void ApplyMask(std::vector<uint8_t>& blob) {
  for (size_t i = 0; i < blob.size(); ++i) blob[i] ^= kHostKeyMask[i % kHostKeyMask.size()];
}

std::error_code Report(const char* operation, const char* domain, const char* message,
                       std::error_code code) {
  return ReportFailure(FailureReport{kTag, operation, domain, message}, code);
}

std::error_code ReadWholeFile(const std::string& path, std::string& text) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) return kNotFound;
  if (info.st_size > kMaxKeyFileSize) return kFileReadError;
  File file(std::fopen(path.c_str(), "rb"), &std::fclose);
  if (!file) return kFileReadError;
  std::string content;
  char buffer[512];
  size_t got;
  while ((got = std::fread(buffer, 1, sizeof buffer, file.get())) > 0) {
    content.append(buffer, got);
    if (content.size() > static_cast<size_t>(kMaxKeyFileSize)) return kFileReadError;
  }
  if (std::ferror(file.get())) return kFileReadError;
  text = std::move(content);
  return kSuccess;
}

// Opens for writing with the key file's mode from the start, so that the key
// is never readable by others between creation and the permission change.
File OpenForWriting(const std::string& path) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kKeyFileMode);
  if (fd < 0) return File(nullptr, &std::fclose);
  FILE* stream = ::fdopen(fd, "wb");
  if (stream == nullptr) ::close(fd);
  return File(stream, &std::fclose);
}

}  // namespace

std::error_code ReadHostKeyFile(const std::string& path, std::vector<uint8_t>& hostKey) {
  std::string text;
  if (std::error_code read = ReadWholeFile(path, text); read != kSuccess) return read;

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

std::error_code WriteHostKeyFile(const std::string& path, std::span<const uint8_t> hostKey) {
  if (hostKey.empty()) return kInvalidArgument;
  File file = OpenForWriting(path);
  if (!file) return kFileWriteError;

  crypto::Sha256Digest digest{};
  if (crypto::Sha256(hostKey, digest) != crypto::CryptStatus::kSuccess) return kKeyReadError;
  std::vector<uint8_t> blob(digest.begin(), digest.end());
  blob.insert(blob.end(), hostKey.begin(), hostKey.end());
  ApplyMask(blob);
  std::string text;
  const int status = QelBase64Encode(blob.data(), blob.size(), text);
  crypto::SecureWipe(blob);
  // An empty text would silently orphan every domain file, so any encoder
  // failure stops here.
  if (status != 0) return kKeyReadError;

  const bool written = std::fwrite(text.data(), 1, text.size(), file.get()) == text.size() &&
                       std::fflush(file.get()) == 0;
  if (std::fclose(file.release()) != 0 || !written) return kFileWriteError;

  const std::error_code permissions = platform::SetFilePermissions(
      path, kKeyFileMode, static_cast<uid_t>(-1), static_cast<gid_t>(0));
  if (permissions != kSuccess) {
    return Report("SetFilePermissions failure", kKeyErrorDomain,
                  "Failed to set permissions on key file", permissions);
  }
  return kSuccess;
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
