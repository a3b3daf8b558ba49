#pragma once

#include <cstdint>
#include <mutex>
#include <span>
#include <string>
#include <system_error>
#include <vector>

namespace QelSS {

// The process's file key. On first use it finds the machine's host key file in
// the per-user data folder "DomainSettings" (creating file and key when there
// is none), checks it, and derives the 32-byte key that encrypts domain files.
// This happens once per process: a failed derivation is not retried, and a
// damaged key file makes every process fail until it is removed by hand.
//
// Failures are reported with component tag "SSKC". Thread-safe: concurrent
// first users wait for the one derivation; afterwards the object is immutable.
//
// Testing: the instance cannot be reset, so tests that need a fresh derivation
// run in a child process with XDG_DATA_HOME pointing at a temporary folder; the
// steps themselves are tested directly through HostKeyFile.h and
// KeyDerivation.h.
class Key {
 public:
  // The one instance, created (and derived) on first call.
  static Key& Instance();

  virtual ~Key();
  Key(const Key&) = delete;
  Key& operator=(const Key&) = delete;

  // kSuccess once derived; kFailure when the per-user folder could not be
  // found or derivation never ran to the end; otherwise the code of the step
  // that failed.
  std::error_code Result() const noexcept { return result_; }
  bool IsDerived() const noexcept { return derived_; }
  // The 32-byte file key; empty unless IsDerived().
  std::span<const uint8_t> DerivedKey() const noexcept { return derivedKey_; }
  // The host key file's path; empty when the per-user folder is unknown.
  const std::string& KeyFilePath() const noexcept { return keyFilePath_; }

 private:
  Key();
  void Derive();

  std::vector<uint8_t> derivedKey_;
  bool derived_ = false;
  std::string keyFilePath_;
  std::once_flag once_;
  std::error_code result_;
};

}  // namespace QelSS
