#include "platform/crypto/HmacSha256.h"

#include <openssl/evp.h>

#include "platform/crypto/MacContext.h"
#include "platform/crypto/OpenSsl.h"

namespace QelSS::platform::crypto {
namespace {

bool Finish(EVP_MAC_CTX* context, Sha256Digest& mac) {
  Sha256Digest result;
  size_t length = 0;
  if (EVP_MAC_final(context, result.data(), &length, result.size()) != 1 || length != kSha256Size) {
    return false;
  }
  mac = result;
  return true;
}

}  // namespace

CryptStatus HmacSha256(std::span<const uint8_t> key, std::span<const uint8_t> data,
                       Sha256Digest& mac) noexcept {
  detail::MacContext* cached = detail::ThreadMacContext();
  EVP_MAC_CTX* context = cached == nullptr ? nullptr : cached->Start(key);
  if (context == nullptr || EVP_MAC_update(context, data.data(), data.size()) != 1 ||
      !Finish(context, mac)) {
    return detail::Fail(CryptStatus::kLibraryError);
  }
  return CryptStatus::kSuccess;
}

HmacSha256Stream::HmacSha256Stream() noexcept : context_(detail::NewHmacSha256Context()) {}

HmacSha256Stream::~HmacSha256Stream() { EVP_MAC_CTX_free(context_); }

CryptStatus HmacSha256Stream::SetKey(std::span<const uint8_t> key) noexcept {
  keyed_ = false;
  if (context_ == nullptr) return detail::Fail(CryptStatus::kLibraryError);
  if (EVP_MAC_init(context_, detail::MacKeyBytes(key), key.size(), nullptr) != 1) {
    return detail::Fail(CryptStatus::kLibraryError);
  }
  keyed_ = true;
  return CryptStatus::kSuccess;
}

CryptStatus HmacSha256Stream::Update(std::span<const uint8_t> data) noexcept {
  if (!keyed_) return CryptStatus::kInvalidArgument;
  if (EVP_MAC_update(context_, data.data(), data.size()) != 1) {
    return detail::Fail(CryptStatus::kLibraryError);
  }
  return CryptStatus::kSuccess;
}

CryptStatus HmacSha256Stream::Final(Sha256Digest& mac) noexcept {
  if (!keyed_) return CryptStatus::kInvalidArgument;
  // Re-initialising with a null key restarts under the key already set.
  if (!Finish(context_, mac) || EVP_MAC_init(context_, nullptr, 0, nullptr) != 1) {
    keyed_ = false;
    return detail::Fail(CryptStatus::kLibraryError);
  }
  return CryptStatus::kSuccess;
}

}  // namespace QelSS::platform::crypto
