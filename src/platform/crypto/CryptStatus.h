#pragma once

namespace QelSS::platform::crypto {

// Outcome of a crypto primitive. Nothing in this layer throws or prints, and a
// failure leaves OpenSSL's per-thread error queue empty so that it cannot be
// mistaken later for somebody else's error.
enum class CryptStatus {
  kSuccess,
  kBufferTooSmall,   // the output capacity is below what the operation needs
  kInvalidArgument,  // a key, IV or parameter of the wrong size or value
  kDecodeError,      // ciphertext that is not whole blocks, or bad padding
  kLibraryError,     // OpenSSL could not do the work (allocation, provider)
};

}  // namespace QelSS::platform::crypto
