// Envelope layout (the whole file; no header, magic, version or stored IV):
//
//   file      := AES-256-CBC(fileKey, iv, pkcs7(inner))    length 16*k, k >= 3
//   inner     := mac[32] payload[n]                        n >= 1 when written
//   mac       := HMAC-SHA256(fileKey, payload)
//   iv[i]     := A[i] ^ B[15 - i]                      for odd i
//             := ((A[i] ^ B[15 - i]) << 1) & 0xff      for even i
//
// A and B are kEnvelopeIvTableA and kEnvelopeIvTableB. The IV is the same for
// every file, so equal payloads give equal files; confidentiality rests on the
// key, integrity on the MAC.
//
// Reading checks, in order: input present, key available, decryption (bad
// padding surfaces here), MAC. The payload leaves only after the MAC matched.

#include "persistence/Envelope.h"

#include <algorithm>
#include <array>

#include "persistence/CryptoTables.h"
#include "persistence/Key.h"
#include "platform/crypto/Aes256Cbc.h"
#include "platform/crypto/HmacSha256.h"
#include "platform/crypto/SecureMemory.h"
#include "platform/report/Failure.h"
#include "qelss/platform/ErrorCode.h"

namespace QelSS {
namespace {

namespace crypto = platform::crypto;

constexpr uint32_t kTag = QelErrTag("SSEH");

std::error_code Report(const char* operation, const char* message, std::error_code code) {
  return ReportFailure(FailureReport{kTag, operation, kQelSharedSettingsErrorDomain, message},
                       code);
}

std::error_code FileKey(std::span<const uint8_t>& key) {
  const Key& instance = Key::Instance();
  if (instance.Result() != kSuccess) return instance.Result();
  key = instance.DerivedKey();
  return kSuccess;
}

using Iv = std::array<uint8_t, crypto::kAesBlockSize>;

Iv BuildIV() {
  Iv iv{};
  for (size_t i = 0; i < iv.size(); ++i) {
    uint8_t byte = kEnvelopeIvTableA[i] ^ kEnvelopeIvTableB[kEnvelopeIvTableB.size() - 1 - i];
    if (i % 2 == 0) byte = static_cast<uint8_t>(byte << 1);
    iv[i] = byte;
  }
  return iv;
}

const Iv& EnvelopeIV() {
  static const Iv iv = BuildIV();
  return iv;
}

// Encrypts or decrypts `input` into `buffer`, which holds
// Aes256CbcOutputSize(input.size()) bytes and may hold the input itself at its
// front (the cipher works in place). The cipher is asked for the output size
// first, as a caller with a fixed buffer would; anything but "buffer too
// small" with a size that fits means it cannot be trusted.
std::error_code Crypt(crypto::CipherDirection direction, std::span<const uint8_t> key,
                      std::span<const uint8_t> input, std::vector<uint8_t>& buffer) {
  const bool encrypt = direction == crypto::CipherDirection::kEncrypt;
  const char* operation = encrypt ? "Encryption" : "Decryption";
  size_t needed = 0;
  if (crypto::Aes256CbcCrypt(direction, key, EnvelopeIV(), input, nullptr, 0, &needed) !=
          crypto::CryptStatus::kBufferTooSmall ||
      needed > buffer.size()) {
    return Report(operation, "sizeRequired could not be calculated with CCCrypt call", kCryptError);
  }
  size_t produced = 0;
  if (crypto::Aes256CbcCrypt(direction, key, EnvelopeIV(), input, buffer.data(), buffer.size(),
                             &produced) != crypto::CryptStatus::kSuccess) {
    return Report(operation,
                  encrypt ? "Failed to encrypt using CCCrypt" : "Failed to decrypt using CCCrypt",
                  kCryptError);
  }
  buffer.resize(produced);
  return kSuccess;
}

std::error_code EmptyInput() {
  return ReportFailure(
      FailureReport{kTag, "Input", kQelSharedSettingsErrorDomain, "Domain Filesize is 0"},
      kCryptError);
}

// The inner block is laid out in the output buffer and encrypted there, so a
// file costs one allocation and no copy beyond the payload's own.
std::error_code SealWithKey(std::span<const uint8_t> key, std::span<const uint8_t> plaintext,
                            std::vector<uint8_t>& out) {
  crypto::Sha256Digest mac{};
  if (crypto::HmacSha256(key, plaintext, mac) != crypto::CryptStatus::kSuccess) {
    return Report("Encryption", "Failed to compute HMAC", kCryptError);
  }
  const size_t innerSize = mac.size() + plaintext.size();
  std::vector<uint8_t> buffer(crypto::Aes256CbcOutputSize(innerSize));
  std::copy(mac.begin(), mac.end(), buffer.begin());
  std::copy(plaintext.begin(), plaintext.end(), buffer.begin() + mac.size());
  if (std::error_code code =
          Crypt(crypto::CipherDirection::kEncrypt, key, std::span(buffer).first(innerSize), buffer);
      code != kSuccess) {
    return code;
  }
  out = std::move(buffer);
  return kSuccess;
}

std::error_code OpenWithKey(std::span<const uint8_t> key, std::span<const uint8_t> envelope,
                            std::vector<uint8_t>& out) {
  std::vector<uint8_t> inner(crypto::Aes256CbcOutputSize(envelope.size()));
  if (std::error_code code = Crypt(crypto::CipherDirection::kDecrypt, key, envelope, inner);
      code != kSuccess) {
    return code;
  }

  // Encrypt never makes an inner block without a whole MAC; such input is
  // forged or damaged and fails verification without reading past its end.
  crypto::Sha256Digest computed{};
  const bool verified =
      inner.size() >= computed.size() &&
      crypto::HmacSha256(key, std::span(inner).subspan(computed.size()), computed) ==
          crypto::CryptStatus::kSuccess &&
      crypto::ConstantTimeEqual(computed, std::span(inner).first(computed.size()));
  if (!verified) {
    return Report("SHAMismatch", "HMAC Mismatch (calculatedHMAC != HMACfromFile)",
                  kVerificationError);
  }
  inner.erase(inner.begin(), inner.begin() + static_cast<ptrdiff_t>(computed.size()));
  out = std::move(inner);
  return kSuccess;
}

}  // namespace

std::error_code GetEnvelopeIV(std::vector<uint8_t>& iv) {
  iv.assign(EnvelopeIV().begin(), EnvelopeIV().end());
  return kSuccess;
}

std::error_code EncryptWithKey(std::span<const uint8_t> key, std::span<const uint8_t> plaintext,
                               std::vector<uint8_t>& out) {
  if (plaintext.empty() || key.size() != crypto::kAesKeySize) return kInvalidArgument;
  try {
    return SealWithKey(key, plaintext, out);
  } catch (...) {
    ReportCaughtException(1, kTag, "Encrypt");
    return kFailure;
  }
}

std::error_code DecryptWithKey(std::span<const uint8_t> key, std::span<const uint8_t> envelope,
                               std::vector<uint8_t>& out) {
  if (envelope.empty()) return EmptyInput();
  if (key.size() != crypto::kAesKeySize) return kInvalidArgument;
  try {
    return OpenWithKey(key, envelope, out);
  } catch (...) {
    ReportCaughtException(1, kTag, "Decrypt");
    return kFailure;
  }
}

std::error_code Encrypt(const std::vector<uint8_t>& plaintext, std::vector<uint8_t>& out) {
  if (plaintext.empty()) return kInvalidArgument;
  std::span<const uint8_t> key;
  if (std::error_code code = FileKey(key); code != kSuccess) return code;
  return EncryptWithKey(key, plaintext, out);
}

std::error_code Decrypt(const std::vector<uint8_t>& envelope, std::vector<uint8_t>& out) {
  if (envelope.empty()) return EmptyInput();
  std::span<const uint8_t> key;
  if (std::error_code code = FileKey(key); code != kSuccess) return code;
  return DecryptWithKey(key, envelope, out);
}

}  // namespace QelSS
