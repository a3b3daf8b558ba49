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
// Reading checks, in order: input present, key available, IV, decryption (bad
// padding surfaces here), MAC. The payload leaves only after the MAC matched.

#include "persistence/Envelope.h"

#include "persistence/CaughtException.h"
#include "persistence/CryptoTables.h"
#include "persistence/Key.h"
#include "platform/crypto/Aes256Cbc.h"
#include "platform/crypto/HmacSha256.h"
#include "platform/crypto/SecureMemory.h"
#include "qelss/values/ErrorCode.h"
#include "values/FailureReport.h"

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

std::error_code IV(std::vector<uint8_t>& iv) {
  std::error_code code = GetEnvelopeIV(iv);
  if (code != kSuccess) return Report("iv", "Failed to get iv", code);
  return code;
}

// The cipher is asked for the output size first, as a caller with a fixed
// buffer would; anything but "buffer too small" means it cannot be trusted.
std::error_code Crypt(crypto::CipherDirection direction, std::span<const uint8_t> key,
                      std::span<const uint8_t> iv, std::span<const uint8_t> input,
                      std::vector<uint8_t>& output) {
  const bool encrypt = direction == crypto::CipherDirection::kEncrypt;
  const char* operation = encrypt ? "Encryption" : "Decryption";
  size_t needed = 0;
  if (crypto::Aes256CbcCrypt(direction, key, iv, input, nullptr, 0, &needed) !=
      crypto::CryptStatus::kBufferTooSmall) {
    return Report(operation, "sizeRequired could not be calculated with CCCrypt call", kCryptError);
  }
  std::vector<uint8_t> buffer(needed);
  size_t produced = 0;
  if (crypto::Aes256CbcCrypt(direction, key, iv, input, buffer.data(), buffer.size(), &produced) !=
      crypto::CryptStatus::kSuccess) {
    return Report(operation,
                  encrypt ? "Failed to encrypt using CCCrypt" : "Failed to decrypt using CCCrypt",
                  kCryptError);
  }
  buffer.resize(produced);
  output = std::move(buffer);
  return kSuccess;
}

std::error_code EmptyInput() {
  return ReportFailure(
      FailureReport{kTag, "Input", kQelSharedSettingsErrorDomain, "Domain Filesize is 0"},
      kCryptError);
}

std::error_code SealWithKey(std::span<const uint8_t> key, std::span<const uint8_t> plaintext,
                            std::vector<uint8_t>& out) {
  crypto::Sha256Digest mac{};
  if (crypto::HmacSha256(key, plaintext, mac) != crypto::CryptStatus::kSuccess) {
    return Report("Encryption", "Failed to compute HMAC", kCryptError);
  }
  std::vector<uint8_t> inner;
  inner.reserve(mac.size() + plaintext.size());
  inner.insert(inner.end(), mac.begin(), mac.end());
  inner.insert(inner.end(), plaintext.begin(), plaintext.end());

  std::vector<uint8_t> iv;
  if (std::error_code code = IV(iv); code != kSuccess) return code;
  return Crypt(crypto::CipherDirection::kEncrypt, key, iv, inner, out);
}

std::error_code OpenWithKey(std::span<const uint8_t> key, std::span<const uint8_t> envelope,
                            std::vector<uint8_t>& out) {
  std::vector<uint8_t> iv;
  if (std::error_code code = IV(iv); code != kSuccess) return code;
  std::vector<uint8_t> inner;
  if (std::error_code code = Crypt(crypto::CipherDirection::kDecrypt, key, iv, envelope, inner);
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
  out.assign(inner.begin() + computed.size(), inner.end());
  return kSuccess;
}

}  // namespace

std::error_code GetEnvelopeIV(std::vector<uint8_t>& iv) {
  std::vector<uint8_t> result(kEnvelopeIvTableA.size());
  for (size_t i = 0; i < result.size(); ++i) {
    uint8_t byte = kEnvelopeIvTableA[i] ^ kEnvelopeIvTableB[kEnvelopeIvTableB.size() - 1 - i];
    if (i % 2 == 0) byte = static_cast<uint8_t>(byte << 1);
    result[i] = byte;
  }
  iv = std::move(result);
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
