#include "platform/crypto/MacContext.h"

#include <openssl/evp.h>

#include <cstring>

#include "platform/crypto/OpenSsl.h"
#include "platform/crypto/SecureMemory.h"

namespace QelSS::platform::crypto::detail {

MacContext::~MacContext() {
  Forget();
  EVP_MAC_CTX_free(context_);
}

EVP_MAC_CTX* MacContext::Start(std::span<const uint8_t> key) noexcept {
  if (context_ == nullptr) context_ = NewHmacSha256Context();
  if (context_ == nullptr) return nullptr;
  if (keyed_ && keySize_ == key.size() && ConstantTimeEqual(std::span(key_, keySize_), key)) {
    // A null key restarts from the pads of the key already set.
    if (EVP_MAC_init(context_, nullptr, 0, nullptr) == 1) return context_;
    Forget();
    return nullptr;
  }
  Forget();
  if (EVP_MAC_init(context_, MacKeyBytes(key), key.size(), nullptr) != 1) return nullptr;
  if (key.size() <= kMaxKeptKeySize) {
    if (!key.empty()) std::memcpy(key_, key.data(), key.size());
    keySize_ = key.size();
    keyed_ = true;
  }
  return context_;
}

void MacContext::Forget() noexcept {
  keyed_ = false;
  keySize_ = 0;
  SecureWipe(key_);
}

const unsigned char* MacKeyBytes(std::span<const uint8_t> key) noexcept {
  static const unsigned char kNoKey = 0;
  return key.empty() ? &kNoKey : key.data();
}

}  // namespace QelSS::platform::crypto::detail
