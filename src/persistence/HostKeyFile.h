#pragma once

// The host key file: one random key per machine, kept in a file that every
// process of the library shares.
//
//   file = base64(blob XOR mask)            standard alphabet, no line breaks
//   blob = digest[32] hostKey[n]            digest = SHA-256(hostKey)
//   mask = kHostKeyMask, byte i of the blob with entry (i mod 256)
//
// Files this library writes hold a 32-byte key: a 64-byte blob, 88 characters
// of text. Longer keys are accepted on reading when their digest matches.
//
// Failures that these functions report go out with component tag "SSKC".
// None of them throws; all are safe to call from any thread, but two writers
// of one file are not coordinated (the last one wins).

#include <cstdint>
#include <span>
#include <string>
#include <system_error>
#include <vector>

#include "platform/support/FileSystem.h"

namespace QelSS {

inline constexpr size_t kHostKeySize = 32;

// Reads and checks the key file at `path`. On success `hostKey` receives the
// key; otherwise it is left untouched and the result is kNotFound (no file),
// kFileReadError (cannot be read, or too large to be a key file),
// kKeyDecodeError (not base64; reported) or kKeyChecksumMismatch (digest does
// not match; reported).
[[nodiscard]] std::error_code ReadHostKeyFile(const std::string& path,
                                              std::vector<uint8_t>& hostKey);
[[nodiscard]] std::error_code ReadHostKeyFile(platform::IFileSystem& files,
                                              const std::string& path,
                                              std::vector<uint8_t>& hostKey);

// Writes `hostKey` to `path`, replacing any file there, through a temporary
// file beside it: written, synced, given mode 0640 and group 0 (0600 where
// group 0 cannot be given), renamed into place, and the folder synced. A
// failure leaves whatever was at `path` before, and no temporary file:
// kInvalidArgument for an empty key, kFileWriteError when writing, syncing or
// renaming fails, kKeyReadError when encoding fails, and the permission
// operation's code (reported) when the permissions cannot be set.
[[nodiscard]] std::error_code WriteHostKeyFile(const std::string& path,
                                               std::span<const uint8_t> hostKey);
[[nodiscard]] std::error_code WriteHostKeyFile(platform::IFileSystem& files,
                                               const std::string& path,
                                               std::span<const uint8_t> hostKey);

// The machine's host key: read from `path`, or, when there is no file, a new
// random 32-byte key written there. A file that exists but cannot be used is
// reported and its code returned; it is never replaced, so a damaged key file
// needs removing by hand. Random-generator failure gives kKeyDerivationError.
[[nodiscard]] std::error_code GetHostKey(const std::string& path, std::vector<uint8_t>& hostKey);

}  // namespace QelSS
