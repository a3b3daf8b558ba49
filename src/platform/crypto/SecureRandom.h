#pragma once

#include <cstdint>
#include <span>

#include "platform/crypto/CryptStatus.h"

namespace QelSS::platform::crypto {

// Fills `out` from OpenSSL's cryptographically secure generator.
// kLibraryError when the generator cannot deliver (for instance before it
// has gathered enough entropy); the contents of `out` must then not be used. Thread-safe.
[[nodiscard]] CryptStatus RandomBytes(std::span<uint8_t> out) noexcept;

}  // namespace QelSS::platform::crypto
