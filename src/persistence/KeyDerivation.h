#pragma once

#include <cstdint>
#include <span>
#include <system_error>
#include <vector>

namespace QelSS {

inline constexpr size_t kFileKeySize = 32;

// The key that encrypts domain files, derived from the host key:
//   PBKDF2-HMAC-SHA256(password = SHA-256(hostKey[0..16)),
//                      salt = SHA-256(kKeySaltTable), 7042 rounds, 32 bytes)
// Only the first 16 bytes of the host key count; that is how the format was
// defined, and using more would derive a different key from existing files.
// kKeyDerivationError (nothing reported, `derived` untouched) when the host key
// is shorter than 16 bytes or a primitive fails. Thread-safe.
[[nodiscard]] std::error_code DeriveFileKey(std::span<const uint8_t> hostKey,
                                            std::vector<uint8_t>& derived);

}  // namespace QelSS
