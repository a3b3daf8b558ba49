#pragma once

#include <cstdint>
#include <span>

namespace QelSS::platform::crypto {

// True when both hold the same bytes. The time taken depends on the length only,
// never on where the first difference lies; unequal lengths are unequal (the
// length is not a secret). Thread-safe.
bool ConstantTimeEqual(std::span<const uint8_t> a, std::span<const uint8_t> b) noexcept;

// Overwrites `bytes` with zeros in a way the compiler cannot drop.
void SecureWipe(std::span<uint8_t> bytes) noexcept;

}  // namespace QelSS::platform::crypto
