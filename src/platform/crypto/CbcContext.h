#pragma once

// One direction's AES-256-CBC context, kept between messages so that a short
// message pays for neither a key expansion nor a re-initialisation.
//
// OpenSSL's per-message cost for a short input is dominated by setting the IV
// (a parameter round trip through the provider), not by the cipher. The
// context is therefore primed once per key and then streamed through: CBC
// carries its chaining value from one call to the next, so after a message
// the context chains from that message's last ciphertext block. Starting the
// next message with IV v from chaining value c is the same as XORing v ^ c
// into the first block: before the cipher when encrypting, after it when
// decrypting. The context remembers c, so no IV is ever handed to OpenSSL
// after the key is set.

#include <openssl/types.h>

#include <cstddef>
#include <cstdint>

namespace QelSS::platform::crypto::detail {

class CbcContext {
 public:
  static constexpr size_t kKeySize = 32;
  static constexpr size_t kBlockSize = 16;

  explicit CbcContext(bool encrypt) noexcept : encrypt_(encrypt) {}
  // Wipes the cached key and frees (and so wipes) the key schedule.
  ~CbcContext();
  CbcContext(const CbcContext&) = delete;
  CbcContext& operator=(const CbcContext&) = delete;

  // Starts a message under `key` (32 bytes) and `iv` (16 bytes). The key
  // schedule is kept when the key is the one of the previous message. False
  // when OpenSSL fails; the next Start then sets the key again.
  [[nodiscard]] bool Start(const uint8_t* key, const uint8_t* iv) noexcept;

  // Processes `size` bytes, a whole number of blocks, of the started message;
  // successive calls continue the message. Encryption works in place only
  // (`in` is `out`): the IV is folded into the first block where it lies.
  // Decryption may write elsewhere, but not to a buffer that overlaps `in`
  // otherwise. False when OpenSSL fails, the buffers break these rules or
  // nothing was started.
  [[nodiscard]] bool Update(const uint8_t* in, size_t size, uint8_t* out) noexcept;

 private:
  bool Bind() noexcept;
  bool SetKey(const uint8_t* key) noexcept;
  bool Run(const uint8_t* in, size_t size, uint8_t* out) noexcept;
  void Forget() noexcept;

  const bool encrypt_;
  EVP_CIPHER_CTX* context_ = nullptr;
  // Valid only while keyed_: the key whose schedule the context holds and the
  // chaining value it will use for the next block.
  bool keyed_ = false;
  uint8_t key_[kKeySize] = {};
  uint8_t chain_[kBlockSize] = {};
  // IV ^ chaining value, still to be folded into the message's first block.
  bool adjustPending_ = false;
  uint8_t adjust_[kBlockSize] = {};
};

}  // namespace QelSS::platform::crypto::detail
