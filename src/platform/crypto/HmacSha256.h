#pragma once

// HMAC-SHA256, one-shot or streamed.

#include <openssl/types.h>

#include <span>

#include "platform/crypto/CryptStatus.h"
#include "platform/crypto/Sha256.h"

namespace QelSS::platform::crypto {

// HMAC-SHA256 of `data` keyed with `key` (any length, empty included) into
// `mac`. kLibraryError (mac untouched) only when OpenSSL fails. Thread-safe;
// each thread reuses its own MAC context.
[[nodiscard]] CryptStatus HmacSha256(std::span<const uint8_t> key, std::span<const uint8_t> data,
                                     Sha256Digest& mac) noexcept;

// A keyed HMAC-SHA256 computation fed in pieces. The key is set once and kept:
// after Final the object is ready for the next message under the same key,
// which spares the two key-pad compressions a one-shot call repeats.
// Not thread-safe; use one object per thread.
class HmacSha256Stream {
 public:
  HmacSha256Stream() noexcept;
  ~HmacSha256Stream();
  HmacSha256Stream(const HmacSha256Stream&) = delete;
  HmacSha256Stream& operator=(const HmacSha256Stream&) = delete;

  // Sets the key and starts a message; until it succeeds, Update and Final
  // give kInvalidArgument.
  [[nodiscard]] CryptStatus SetKey(std::span<const uint8_t> key) noexcept;
  [[nodiscard]] CryptStatus Update(std::span<const uint8_t> data) noexcept;
  // Writes the message's MAC and starts the next message under the same key.
  [[nodiscard]] CryptStatus Final(Sha256Digest& mac) noexcept;

 private:
  EVP_MAC_CTX* context_;
  bool keyed_ = false;
};

}  // namespace QelSS::platform::crypto
