#include "platform/crypto/Aes256Cbc.h"

#include <cstdint>
#include <cstring>

#include "platform/crypto/CbcContext.h"
#include "platform/crypto/OpenSsl.h"
#include "platform/crypto/SecureMemory.h"

namespace QelSS::platform::crypto {
namespace {

// The message and its padding are laid out in `out` and encrypted there in
// place: one pass through OpenSSL instead of one for the body and another for
// the last block, which for a short message is most of the overhead.
bool Encrypt(detail::CbcContext& context, std::span<const uint8_t> input, uint8_t* out,
             size_t* produced) {
  const size_t padded = input.size() - input.size() % kAesBlockSize + kAesBlockSize;
  if (!input.empty()) std::memmove(out, input.data(), input.size());
  std::memset(out + input.size(), static_cast<int>(padded - input.size()), padded - input.size());
  if (!context.Update(out, padded, out)) return false;
  *produced = padded;
  return true;
}

// The number of pad bytes ending `block`, or 0 when they are not valid
// PKCS#7 padding. Every byte is looked at whatever the pad length, so the time
// taken says nothing about where the padding went wrong; the loop has no
// branch, so the compiler can check the block as one vector.
size_t PadLength(const uint8_t* block) {
  const uint8_t pad = block[kAesBlockSize - 1];
  uint8_t wrong = 0;
  for (unsigned i = 0; i < kAesBlockSize; ++i) {
    const auto inPad = static_cast<uint8_t>(0 - static_cast<unsigned>(i + pad >= kAesBlockSize));
    wrong |= static_cast<uint8_t>(inPad & (block[i] ^ pad));
  }
  const bool valid = (wrong == 0) & (pad != 0) & (pad <= kAesBlockSize);
  return valid ? pad : 0;
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

  detail::CbcContext* context = detail::ThreadCbcContext(encrypt);
  if (context == nullptr || !context->Start(key.data(), iv.data())) {
    return detail::Fail(CryptStatus::kLibraryError);
  }
  if (encrypt) {
    if (!Encrypt(*context, input, out, produced)) return detail::Fail(CryptStatus::kLibraryError);
    return CryptStatus::kSuccess;
  }
  if (!context->Update(input.data(), input.size(), out)) {
    return detail::Fail(CryptStatus::kLibraryError);
  }
  const size_t pad = PadLength(out + input.size() - kAesBlockSize);
  if (pad == 0) {
    // Nothing of a message that fails its padding check is handed out.
    SecureWipe(std::span(out, input.size()));
    return CryptStatus::kDecodeError;
  }
  *produced = input.size() - pad;
  return CryptStatus::kSuccess;
}

}  // namespace QelSS::platform::crypto
