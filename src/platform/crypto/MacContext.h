#pragma once

// An HMAC-SHA256 context that keeps the key pads of its last key, so that the
// next message under the same key skips the two compressions and the
// parameter round trip that setting a key costs in OpenSSL.

#include <openssl/types.h>

#include <cstddef>
#include <cstdint>
#include <span>

namespace QelSS::platform::crypto::detail {

class MacContext {
 public:
  // HMAC-SHA256 hashes longer keys first; those are rare enough to be set
  // anew every time rather than kept.
  static constexpr size_t kMaxKeptKeySize = 64;

  MacContext() noexcept = default;
  // Wipes the kept key and frees (and so wipes) the key pads.
  ~MacContext();
  MacContext(const MacContext&) = delete;
  MacContext& operator=(const MacContext&) = delete;

  // Starts a message under `key` (any length) and returns the context, ready
  // for EVP_MAC_update and EVP_MAC_final. Null when OpenSSL fails; the next
  // Start then sets the key again.
  EVP_MAC_CTX* Start(std::span<const uint8_t> key) noexcept;

 private:
  void Forget() noexcept;

  EVP_MAC_CTX* context_ = nullptr;
  // Valid only while keyed_: the key whose pads the context holds.
  bool keyed_ = false;
  size_t keySize_ = 0;
  uint8_t key_[kMaxKeptKeySize] = {};
};

// The key pointer to give EVP_MAC_init: it reads a null key as "keep the
// previous key", so an empty key must still come with a valid pointer.
const unsigned char* MacKeyBytes(std::span<const uint8_t> key) noexcept;

}  // namespace QelSS::platform::crypto::detail
