#pragma once

// AES-256 in CBC mode with PKCS#7 padding, one call per message.

#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/crypto/CryptStatus.h"

namespace QelSS::platform::crypto {

inline constexpr size_t kAesKeySize = 32;
inline constexpr size_t kAesBlockSize = 16;

enum class CipherDirection { kEncrypt, kDecrypt };

// Output capacity that Aes256CbcCrypt asks for: the input plus one block, for
// either direction.
constexpr size_t Aes256CbcOutputSize(size_t inputSize) { return inputSize + kAesBlockSize; }

// Encrypts (padding always added, so at least one block comes out) or decrypts
// (padding checked and removed) `input` into `out`. `out` may be input.data(),
// for work in place, but must not overlap the input otherwise.
//
// Size query: when `outCapacity` is below Aes256CbcOutputSize(input.size()),
// nothing is processed, `*produced` is set to that size and kBufferTooSmall is
// returned; `out` may then be null. Pass a null `out` with capacity 0 to ask.
//
// On success `*produced` holds the bytes written. Otherwise it is 0 and the
// status says why: kInvalidArgument for a key that is not 32 bytes, an IV that
// is not 16 bytes or a null `produced`; kDecodeError for ciphertext that is
// empty, not a whole number of blocks or badly padded; kLibraryError when
// OpenSSL fails. Thread-safe; each thread reuses its own cipher context.
[[nodiscard]] CryptStatus Aes256CbcCrypt(CipherDirection direction, std::span<const uint8_t> key,
                                         std::span<const uint8_t> iv,
                                         std::span<const uint8_t> input, uint8_t* out,
                                         size_t outCapacity, size_t* produced) noexcept;

}  // namespace QelSS::platform::crypto
