#include "platform/crypto/Aes256Cbc.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cstdint>

#include "platform/crypto/OpenSsl.h"

namespace QelSS::platform::crypto {
namespace {

// EVP takes int lengths; larger inputs go through in slices of whole blocks so
// that CBC chaining carries on unchanged across slices.
constexpr size_t kMaxSlice = size_t{1} << 30;

bool UpdateInSlices(EVP_CIPHER_CTX* context, std::span<const uint8_t> input, uint8_t* out,
                    size_t* written) {
  size_t total = 0;
  for (size_t offset = 0; offset < input.size(); offset += kMaxSlice) {
    const size_t slice = std::min(kMaxSlice, input.size() - offset);
    int moved = 0;
    if (EVP_CipherUpdate(context, out + total, &moved, input.data() + offset,
                         static_cast<int>(slice)) != 1) {
      return false;
    }
    total += static_cast<size_t>(moved);
  }
  *written = total;
  return true;
}

}  // namespace

CryptStatus Aes256CbcCrypt(CipherDirection direction, std::span<const uint8_t> key,
                           std::span<const uint8_t> iv, std::span<const uint8_t> input,
                           uint8_t* out, size_t outCapacity, size_t* produced) noexcept {
  if (produced == nullptr) return CryptStatus::kInvalidArgument;
  *produced = 0;
  if (key.size() != kAesKeySize || iv.size() != kAesBlockSize ||
      input.size() > SIZE_MAX - kAesBlockSize) {
    return CryptStatus::kInvalidArgument;
  }
  const size_t needed = Aes256CbcOutputSize(input.size());
  if (outCapacity < needed) {
    *produced = needed;
    return CryptStatus::kBufferTooSmall;
  }
  if (out == nullptr) return CryptStatus::kInvalidArgument;
  const bool encrypt = direction == CipherDirection::kEncrypt;
  if (!encrypt && (input.empty() || input.size() % kAesBlockSize != 0)) {
    return CryptStatus::kDecodeError;
  }

  EVP_CIPHER_CTX* context = detail::ThreadCipherFor(key.data(), iv.data(), encrypt);
  if (context == nullptr) return detail::Fail(CryptStatus::kLibraryError);
  size_t body = 0;
  if (!UpdateInSlices(context, input, out, &body)) return detail::Fail(CryptStatus::kLibraryError);
  int tail = 0;
  if (EVP_CipherFinal_ex(context, out + body, &tail) != 1) {
    // With whole blocks in, the only way decryption's final step fails is bad padding.
    return detail::Fail(encrypt ? CryptStatus::kLibraryError : CryptStatus::kDecodeError);
  }
  *produced = body + static_cast<size_t>(tail);
  return CryptStatus::kSuccess;
}

}  // namespace QelSS::platform::crypto
