#include "platform/crypto/OpenSsl.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <pthread.h>

#include <cstring>
#include <new>

namespace QelSS::platform::crypto::detail {
namespace {

Algorithms FetchAlgorithms() noexcept {
  // OpenSSL normally tears itself down from an atexit handler. Local domains
  // save their pending changes at process exit, after such a handler may have
  // run, so the library keeps OpenSSL alive until the process is gone. When the
  // application initialised OpenSSL first this flag changes nothing.
  OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
  Algorithms algorithms;
  algorithms.aes256Cbc = EVP_CIPHER_fetch(nullptr, "AES-256-CBC", nullptr);
  algorithms.sha256 = EVP_MD_fetch(nullptr, "SHA2-256", nullptr);
  algorithms.hmac = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
  ERR_clear_error();
  return algorithms;
}

constexpr size_t kCipherKeySize = 32;

struct ThreadContexts {
  EVP_CIPHER_CTX* cipher = nullptr;
  // The key and direction whose expansion the cipher context holds.
  unsigned char cipherKey[kCipherKeySize] = {};
  int cipherDirection = -1;
  EVP_MD_CTX* digest = nullptr;
  EVP_MAC_CTX* mac = nullptr;

  ~ThreadContexts() {
    OPENSSL_cleanse(cipherKey, sizeof cipherKey);
    EVP_CIPHER_CTX_free(cipher);
    EVP_MD_CTX_free(digest);
    EVP_MAC_CTX_free(mac);
  }
};

// A plain pointer rather than a thread_local object: pending saves may still
// encrypt during process exit, after the exiting thread's thread_local objects
// are gone. The contexts are freed by a thread-exit hook on other threads and
// left to the process's end on the main thread.
thread_local ThreadContexts* tContexts = nullptr;

void FreeThreadContexts(void* contexts) {
  delete static_cast<ThreadContexts*>(contexts);
  tContexts = nullptr;
}

pthread_key_t ContextsKey() {
  static const pthread_key_t key = [] {
    pthread_key_t created{};
    pthread_key_create(&created, &FreeThreadContexts);
    return created;
  }();
  return key;
}

// Null only when memory runs out.
ThreadContexts* Contexts() {
  if (tContexts == nullptr) {
    tContexts = new (std::nothrow) ThreadContexts;
    if (tContexts != nullptr) pthread_setspecific(ContextsKey(), tContexts);
  }
  return tContexts;
}

}  // namespace

const Algorithms& GetAlgorithms() noexcept {
  // Deliberately never freed: see FetchAlgorithms.
  static const Algorithms algorithms = FetchAlgorithms();
  return algorithms;
}

EVP_CIPHER_CTX* ThreadCipherContext() noexcept {
  ThreadContexts* contexts = Contexts();
  if (contexts == nullptr) return nullptr;
  if (contexts->cipher != nullptr) return contexts->cipher;
  const Algorithms& algorithms = GetAlgorithms();
  if (algorithms.aes256Cbc == nullptr) return nullptr;
  EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
  if (context == nullptr) return nullptr;
  // Binding the cipher once lets every later call pass only key and IV, which
  // skips OpenSSL's per-init algorithm setup.
  if (EVP_CipherInit_ex2(context, algorithms.aes256Cbc, nullptr, nullptr, 1, nullptr) != 1) {
    EVP_CIPHER_CTX_free(context);
    ERR_clear_error();
    return nullptr;
  }
  contexts->cipher = context;
  return context;
}

EVP_CIPHER_CTX* ThreadCipherFor(const unsigned char* key, const unsigned char* iv,
                                bool encrypt) noexcept {
  EVP_CIPHER_CTX* context = ThreadCipherContext();
  if (context == nullptr) return nullptr;
  ThreadContexts& contexts = *tContexts;
  const int direction = encrypt ? 1 : 0;
  const bool sameKey = contexts.cipherDirection == direction &&
                       CRYPTO_memcmp(contexts.cipherKey, key, kCipherKeySize) == 0;
  // Forget the cached key first: should the init fail, the context's key
  // schedule is no longer known.
  contexts.cipherDirection = -1;
  if (EVP_CipherInit_ex2(context, nullptr, sameKey ? nullptr : key, iv, direction, nullptr) != 1) {
    return nullptr;
  }
  if (!sameKey) std::memcpy(contexts.cipherKey, key, kCipherKeySize);
  contexts.cipherDirection = direction;
  return context;
}

EVP_MD_CTX* ThreadDigestContext() noexcept {
  ThreadContexts* contexts = Contexts();
  if (contexts == nullptr) return nullptr;
  if (contexts->digest == nullptr) contexts->digest = EVP_MD_CTX_new();
  return contexts->digest;
}

EVP_MAC_CTX* NewHmacSha256Context() noexcept {
  const Algorithms& algorithms = GetAlgorithms();
  if (algorithms.hmac == nullptr) return nullptr;
  EVP_MAC_CTX* context = EVP_MAC_CTX_new(algorithms.hmac);
  if (context == nullptr) return nullptr;
  char digestName[] = "SHA2-256";
  const OSSL_PARAM params[] = {
      OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digestName, 0),
      OSSL_PARAM_construct_end()};
  if (EVP_MAC_CTX_set_params(context, params) != 1) {
    EVP_MAC_CTX_free(context);
    ERR_clear_error();
    return nullptr;
  }
  return context;
}

EVP_MAC_CTX* ThreadMacContext() noexcept {
  ThreadContexts* contexts = Contexts();
  if (contexts == nullptr) return nullptr;
  if (contexts->mac == nullptr) contexts->mac = NewHmacSha256Context();
  return contexts->mac;
}

CryptStatus Fail(CryptStatus status) noexcept {
  ERR_clear_error();
  return status;
}

}  // namespace QelSS::platform::crypto::detail
