#include "platform/crypto/SecureMemory.h"

#include <openssl/crypto.h>

#include <cstring>

namespace QelSS::platform::crypto {

bool ConstantTimeEqual(std::span<const uint8_t> a, std::span<const uint8_t> b) noexcept {
  if (a.size() != b.size()) return false;
  // Word-wise rather than OpenSSL's byte loop: keys are compared on every
  // cipher and MAC call, where the byte loop costs as much as a short message.
  // The empty asm keeps the compiler from reasoning about `diff` and leaving
  // the loop early once a difference is seen.
  uint64_t diff = 0;
  size_t i = 0;
  for (; i + sizeof diff <= a.size(); i += sizeof diff) {
    uint64_t x, y;
    std::memcpy(&x, a.data() + i, sizeof x);
    std::memcpy(&y, b.data() + i, sizeof y);
    diff |= x ^ y;
    asm volatile("" : "+r"(diff));
  }
  for (; i < a.size(); ++i) {
    diff |= static_cast<uint64_t>(a[i] ^ b[i]);
    asm volatile("" : "+r"(diff));
  }
  return diff == 0;
}

void SecureWipe(std::span<uint8_t> bytes) noexcept {
  if (!bytes.empty()) OPENSSL_cleanse(bytes.data(), bytes.size());
}

}  // namespace QelSS::platform::crypto
