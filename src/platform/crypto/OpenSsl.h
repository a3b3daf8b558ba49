#pragma once

// Shared OpenSSL plumbing of the crypto layer: algorithm objects fetched once per
// process and contexts kept once per thread, so that a call pays neither a
// provider lookup nor a context allocation.

#include <openssl/types.h>

#include "platform/crypto/CryptStatus.h"

namespace QelSS::platform::crypto::detail {

class CbcContext;
class MacContext;

struct Algorithms {
  EVP_CIPHER* aes256Cbc = nullptr;
  EVP_MD* sha256 = nullptr;
  EVP_MAC* hmac = nullptr;
};

// Members are null when OpenSSL cannot provide the algorithm.
const Algorithms& GetAlgorithms() noexcept;

// This thread's contexts, created on first use; null when memory runs out.
// They keep their keys between calls (wiped when the thread ends), so a
// thread that reads and writes files under one key sets it up only once;
// each cipher direction has a context of its own for the same reason.
EVP_MD_CTX* ThreadDigestContext() noexcept;
CbcContext* ThreadCbcContext(bool encrypt) noexcept;
MacContext* ThreadMacContext() noexcept;

// Creates a MAC context bound to HMAC-SHA256; null on failure.
EVP_MAC_CTX* NewHmacSha256Context() noexcept;

// Drops whatever OpenSSL queued for this thread and returns `status`.
CryptStatus Fail(CryptStatus status) noexcept;

}  // namespace QelSS::platform::crypto::detail
