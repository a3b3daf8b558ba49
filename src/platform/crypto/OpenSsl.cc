#include "platform/crypto/OpenSsl.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <pthread.h>

#include <new>

#include "platform/crypto/CbcContext.h"
#include "platform/crypto/MacContext.h"

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

struct ThreadContexts {
  CbcContext encryptor{true};
  CbcContext decryptor{false};
  MacContext mac;
  EVP_MD_CTX* digest = nullptr;

  ~ThreadContexts() { EVP_MD_CTX_free(digest); }
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

CbcContext* ThreadCbcContext(bool encrypt) noexcept {
  ThreadContexts* contexts = Contexts();
  if (contexts == nullptr) return nullptr;
  return encrypt ? &contexts->encryptor : &contexts->decryptor;
}

MacContext* ThreadMacContext() noexcept {
  ThreadContexts* contexts = Contexts();
  return contexts == nullptr ? nullptr : &contexts->mac;
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

CryptStatus Fail(CryptStatus status) noexcept {
  ERR_clear_error();
  return status;
}

}  // namespace QelSS::platform::crypto::detail
