#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/crypto/CryptStatus.h"

namespace QelSS::platform::crypto {

inline constexpr size_t kSha256Size = 32;
using Sha256Digest = std::array<uint8_t, kSha256Size>;

// SHA-256 of `data` into `digest`. kLibraryError (digest untouched) only when
// OpenSSL fails. Thread-safe; each thread reuses its own digest context.
[[nodiscard]] CryptStatus Sha256(std::span<const uint8_t> data, Sha256Digest& digest) noexcept;

}  // namespace QelSS::platform::crypto
