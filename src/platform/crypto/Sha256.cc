#include "platform/crypto/Sha256.h"

#include <openssl/evp.h>

#include "platform/crypto/OpenSsl.h"

namespace QelSS::platform::crypto {

CryptStatus Sha256(std::span<const uint8_t> data, Sha256Digest& digest) noexcept {
  const EVP_MD* md = detail::GetAlgorithms().sha256;
  EVP_MD_CTX* context = detail::ThreadDigestContext();
  if (md == nullptr || context == nullptr) return detail::Fail(CryptStatus::kLibraryError);
  Sha256Digest result;
  unsigned int length = 0;
  if (EVP_DigestInit_ex2(context, md, nullptr) != 1 ||
      EVP_DigestUpdate(context, data.data(), data.size()) != 1 ||
      EVP_DigestFinal_ex(context, result.data(), &length) != 1 || length != kSha256Size) {
    return detail::Fail(CryptStatus::kLibraryError);
  }
  digest = result;
  return CryptStatus::kSuccess;
}

}  // namespace QelSS::platform::crypto
