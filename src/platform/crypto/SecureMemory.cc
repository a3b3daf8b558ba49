#include "platform/crypto/SecureMemory.h"

#include <openssl/crypto.h>

namespace QelSS::platform::crypto {

bool ConstantTimeEqual(std::span<const uint8_t> a, std::span<const uint8_t> b) noexcept {
  if (a.size() != b.size()) return false;
  if (a.empty()) return true;
  return CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

void SecureWipe(std::span<uint8_t> bytes) noexcept {
  if (!bytes.empty()) OPENSSL_cleanse(bytes.data(), bytes.size());
}

}  // namespace QelSS::platform::crypto
