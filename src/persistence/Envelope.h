#pragma once

// The encrypted envelope of a domain file: the payload authenticated with
// HMAC-SHA256 and encrypted, MAC included, with AES-256-CBC under the file key.
// The layout is described at the top of Envelope.cc.
//
// Failures are reported with component tag "SSEH". All functions are stateless
// apart from the process's file key and safe to call from any thread; none
// throws. Outputs are written only on success.

#include <cstdint>
#include <span>
#include <system_error>
#include <vector>

namespace QelSS {

// Encrypts `plaintext` under the process's file key (Key.h) into `out`.
// kInvalidArgument for an empty plaintext; the key's own code when it could not
// be derived; kCryptError (reported) when the cipher fails; kFailure when an
// exception (memory) cut the work short.
[[nodiscard]] std::error_code Encrypt(const std::vector<uint8_t>& plaintext,
                                      std::vector<uint8_t>& out);

// Decrypts and verifies `envelope` into `out`. kCryptError (reported) for empty
// input or when decryption fails (bad length or padding); the key's own code when
// it could not be derived; kVerificationError (reported) when the MAC does not
// match, including an inner block too short to hold one; kFailure when an
// exception cut the work short. The payload is never handed out unverified.
[[nodiscard]] std::error_code Decrypt(const std::vector<uint8_t>& envelope,
                                      std::vector<uint8_t>& out);

// The same with an explicit 32-byte key (kInvalidArgument for another size),
// for tools that hold a key of their own and for measurements.
[[nodiscard]] std::error_code EncryptWithKey(std::span<const uint8_t> key,
                                             std::span<const uint8_t> plaintext,
                                             std::vector<uint8_t>& out);
[[nodiscard]] std::error_code DecryptWithKey(std::span<const uint8_t> key,
                                             std::span<const uint8_t> envelope,
                                             std::vector<uint8_t>& out);

// The fixed 16-byte IV shared by every envelope. Always kSuccess.
[[nodiscard]] std::error_code GetEnvelopeIV(std::vector<uint8_t>& iv);

}  // namespace QelSS
