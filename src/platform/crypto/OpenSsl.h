#pragma once

// Shared OpenSSL plumbing of the crypto layer: algorithm objects fetched once per
// process and contexts kept once per thread, so that a call pays neither a
// provider lookup nor a context allocation.

#include <openssl/types.h>

#include "platform/crypto/CryptStatus.h"

namespace QelSS::platform::crypto::detail {

struct Algorithms {
  EVP_CIPHER* aes256Cbc = nullptr;
  EVP_MD* sha256 = nullptr;
  EVP_MAC* hmac = nullptr;
};

// Members are null when OpenSSL cannot provide the algorithm.
const Algorithms& GetAlgorithms() noexcept;

// This thread's contexts, created on first use; null when allocation fails.
// The cipher context comes back already bound to AES-256-CBC and the MAC
// context to HMAC-SHA256, so callers only supply keys and IVs.
EVP_CIPHER_CTX* ThreadCipherContext() noexcept;

// Readies this thread's cipher context for one message under `key` (32 bytes)
// and `iv` (16 bytes). The expanded key of the previous message is kept when
// key and direction are unchanged, which is most of the cost of a short
// message. Null on failure.
EVP_CIPHER_CTX* ThreadCipherFor(const unsigned char* key, const unsigned char* iv,
                                bool encrypt) noexcept;
EVP_MD_CTX* ThreadDigestContext() noexcept;
EVP_MAC_CTX* ThreadMacContext() noexcept;

// Creates a MAC context bound to HMAC-SHA256; null on failure.
EVP_MAC_CTX* NewHmacSha256Context() noexcept;

// Drops whatever OpenSSL queued for this thread and returns `status`.
CryptStatus Fail(CryptStatus status) noexcept;

}  // namespace QelSS::platform::crypto::detail
