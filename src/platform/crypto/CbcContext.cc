#include "platform/crypto/CbcContext.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cstring>
#include <span>

#include "platform/crypto/OpenSsl.h"
#include "platform/crypto/SecureMemory.h"

namespace QelSS::platform::crypto::detail {
namespace {

// EVP takes int lengths; larger inputs go through in slices of whole blocks so
// that CBC chaining carries on unchanged across slices.
constexpr size_t kMaxSlice = size_t{1} << 30;

// Two words rather than sixteen bytes: the compiler cannot rule out that the
// buffers overlap, so a byte loop stays a byte loop.
void XorBlock(uint8_t* target, const uint8_t* a, const uint8_t* b) {
  uint64_t x[2], y[2];
  std::memcpy(x, a, sizeof x);
  std::memcpy(y, b, sizeof y);
  x[0] ^= y[0];
  x[1] ^= y[1];
  std::memcpy(target, x, sizeof x);
}

}  // namespace

CbcContext::~CbcContext() {
  Forget();
  SecureWipe(chain_);
  EVP_CIPHER_CTX_free(context_);
}

bool CbcContext::Start(const uint8_t* key, const uint8_t* iv) noexcept {
  adjustPending_ = false;
  if (!keyed_ || !ConstantTimeEqual(key_, std::span(key, kKeySize))) {
    if (!SetKey(key)) return false;
  }
  XorBlock(adjust_, iv, chain_);
  adjustPending_ = true;
  return true;
}

bool CbcContext::Update(const uint8_t* in, size_t size, uint8_t* out) noexcept {
  if (!keyed_ || size % kBlockSize != 0 || (encrypt_ && in != out)) return false;
  if (size == 0) return true;
  // Decryption chains from the last input block, which working in place
  // overwrites.
  uint8_t nextChain[kBlockSize];
  if (!encrypt_) std::memcpy(nextChain, in + size - kBlockSize, kBlockSize);

  bool ran = false;
  if (!adjustPending_) {
    ran = Run(in, size, out);
  } else if (encrypt_) {
    XorBlock(out, out, adjust_);
    ran = Run(out, size, out);
  } else {
    ran = Run(in, size, out);
    if (ran) XorBlock(out, out, adjust_);
  }
  adjustPending_ = false;
  if (!ran) {
    Forget();
    return false;
  }
  std::memcpy(chain_, encrypt_ ? out + size - kBlockSize : nextChain, kBlockSize);
  return true;
}

bool CbcContext::Bind() noexcept {
  const EVP_CIPHER* cipher = GetAlgorithms().aes256Cbc;
  if (cipher == nullptr) return false;
  EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
  if (context == nullptr) return false;
  // Binding the cipher once lets every key change skip OpenSSL's algorithm
  // setup. Padding is added and checked by the caller, which knows where a
  // message ends; the context only ever sees whole blocks.
  if (EVP_CipherInit_ex2(context, cipher, nullptr, nullptr, encrypt_ ? 1 : 0, nullptr) != 1 ||
      EVP_CIPHER_CTX_set_padding(context, 0) != 1) {
    EVP_CIPHER_CTX_free(context);
    return false;
  }
  context_ = context;
  return true;
}

bool CbcContext::SetKey(const uint8_t* key) noexcept {
  Forget();
  if (context_ == nullptr && !Bind()) return false;
  // A zero IV makes the chaining value known without asking OpenSSL for it.
  static constexpr uint8_t kZeroIv[kBlockSize] = {};
  if (EVP_CipherInit_ex2(context_, nullptr, key, kZeroIv, encrypt_ ? 1 : 0, nullptr) != 1) {
    return false;
  }
  std::memcpy(key_, key, kKeySize);
  std::memset(chain_, 0, kBlockSize);
  keyed_ = true;
  return true;
}

bool CbcContext::Run(const uint8_t* in, size_t size, uint8_t* out) noexcept {
  for (size_t offset = 0; offset < size; offset += kMaxSlice) {
    const size_t slice = std::min(kMaxSlice, size - offset);
    int moved = 0;
    // With padding off and whole blocks in, every block comes straight out;
    // anything else means the context is not in the state assumed here.
    if (EVP_CipherUpdate(context_, out + offset, &moved, in + offset, static_cast<int>(slice)) !=
            1 ||
        static_cast<size_t>(moved) != slice) {
      return false;
    }
  }
  return true;
}

void CbcContext::Forget() noexcept {
  keyed_ = false;
  adjustPending_ = false;
  SecureWipe(key_);
  SecureWipe(adjust_);
}

}  // namespace QelSS::platform::crypto::detail
