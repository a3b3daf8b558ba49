#pragma once

#include <cstdint>
#include <span>

#include "platform/crypto/CryptStatus.h"

namespace QelSS::platform::crypto {

// PBKDF2 with HMAC-SHA256 as its pseudo-random function: fills all of `derived`
// from `password`, `salt` and `rounds` iterations. kInvalidArgument for zero
// rounds, an empty output or a size beyond INT_MAX; kLibraryError when OpenSSL
// fails (the output's contents are then unspecified). Thread-safe.
[[nodiscard]] CryptStatus Pbkdf2HmacSha256(std::span<const uint8_t> password,
                                           std::span<const uint8_t> salt, unsigned rounds,
                                           std::span<uint8_t> derived) noexcept;

}  // namespace QelSS::platform::crypto
