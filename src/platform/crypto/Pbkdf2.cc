#include "platform/crypto/Pbkdf2.h"

#include <openssl/evp.h>

#include <climits>

#include "platform/crypto/OpenSsl.h"

namespace QelSS::platform::crypto {

CryptStatus Pbkdf2HmacSha256(std::span<const uint8_t> password, std::span<const uint8_t> salt,
                             unsigned rounds, std::span<uint8_t> derived) noexcept {
  if (rounds == 0 || rounds > INT_MAX || derived.empty() || derived.size() > INT_MAX ||
      password.size() > INT_MAX || salt.size() > INT_MAX) {
    return CryptStatus::kInvalidArgument;
  }
  const EVP_MD* md = detail::GetAlgorithms().sha256;
  if (md == nullptr) return detail::Fail(CryptStatus::kLibraryError);
  static const unsigned char kEmpty = 0;
  const char* passwordBytes =
      reinterpret_cast<const char*>(password.empty() ? &kEmpty : password.data());
  const unsigned char* saltBytes = salt.empty() ? &kEmpty : salt.data();
  if (PKCS5_PBKDF2_HMAC(passwordBytes, static_cast<int>(password.size()), saltBytes,
                        static_cast<int>(salt.size()), static_cast<int>(rounds), md,
                        static_cast<int>(derived.size()), derived.data()) != 1) {
    return detail::Fail(CryptStatus::kLibraryError);
  }
  return CryptStatus::kSuccess;
}

}  // namespace QelSS::platform::crypto
