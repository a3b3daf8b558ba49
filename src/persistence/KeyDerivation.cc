#include "persistence/KeyDerivation.h"

#include "persistence/CryptoTables.h"
#include "platform/crypto/Pbkdf2.h"
#include "platform/crypto/SecureMemory.h"
#include "platform/crypto/Sha256.h"
#include "qelss/platform/ErrorCode.h"

namespace QelSS {
namespace {

namespace crypto = platform::crypto;

constexpr size_t kPasswordSourceSize = 16;
constexpr unsigned kRounds = 7042;

}  // namespace

std::error_code DeriveFileKey(std::span<const uint8_t> hostKey, std::vector<uint8_t>& derived) {
  if (hostKey.size() < kPasswordSourceSize) return kKeyDerivationError;
  crypto::Sha256Digest password{};
  crypto::Sha256Digest salt{};
  std::vector<uint8_t> key(kFileKeySize);
  const bool ok =
      crypto::Sha256(hostKey.first(kPasswordSourceSize), password) ==
          crypto::CryptStatus::kSuccess &&
      crypto::Sha256(kKeySaltTable, salt) == crypto::CryptStatus::kSuccess &&
      crypto::Pbkdf2HmacSha256(password, salt, kRounds, key) == crypto::CryptStatus::kSuccess;
  crypto::SecureWipe(password);
  if (!ok) {
    crypto::SecureWipe(key);
    return kKeyDerivationError;
  }
  derived = std::move(key);
  return kSuccess;
}

}  // namespace QelSS
