#include "platform/crypto/SelfTest.h"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string_view>
#include <vector>

#include "platform/crypto/Aes256Cbc.h"
#include "platform/crypto/HmacSha256.h"
#include "platform/crypto/Pbkdf2.h"
#include "platform/crypto/SecureMemory.h"
#include "platform/crypto/Sha256.h"
#include "platform/xml/Xml.h"

namespace QelSS::platform::crypto {
namespace {

std::vector<uint8_t> FromHex(std::string_view hex) {
  auto nibble = [](char c) -> uint8_t {
    return static_cast<uint8_t>(c <= '9' ? c - '0' : c - 'a' + 10);
  };
  std::vector<uint8_t> bytes(hex.size() / 2);
  for (size_t i = 0; i < bytes.size(); ++i) {
    bytes[i] = static_cast<uint8_t>(nibble(hex[2 * i]) << 4 | nibble(hex[2 * i + 1]));
  }
  return bytes;
}

std::span<const uint8_t> Bytes(std::string_view text) {
  return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

bool Same(std::span<const uint8_t> actual, std::string_view expectedHex) {
  return ConstantTimeEqual(actual, FromHex(expectedHex));
}

// NIST SP 800-38A F.2.5 (CBC-AES256.Encrypt); the last block is the PKCS#7 pad
// block that the NIST vector leaves out.
bool CheckAes256Cbc() {
  const auto key = FromHex("603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4");
  const auto iv = FromHex("000102030405060708090a0b0c0d0e0f");
  const auto plain = FromHex(
      "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
      "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710");
  const std::string_view cipherHex =
      "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"
      "39f23369a9d9bacfa530e26304231461b2eb05e2c39be9fcda6c19078c6a9d1b"
      "3f461796d6b0d6b2e0c2a72b4d80e644";
  std::vector<uint8_t> out(Aes256CbcOutputSize(plain.size()));
  size_t produced = 0;
  if (Aes256CbcCrypt(CipherDirection::kEncrypt, key, iv, plain, out.data(), out.size(),
                     &produced) != CryptStatus::kSuccess ||
      !Same(std::span(out).first(produced), cipherHex)) {
    return false;
  }
  const auto cipher = FromHex(cipherHex);
  out.assign(Aes256CbcOutputSize(cipher.size()), 0);
  return Aes256CbcCrypt(CipherDirection::kDecrypt, key, iv, cipher, out.data(), out.size(),
                        &produced) == CryptStatus::kSuccess &&
         ConstantTimeEqual(std::span(out).first(produced), plain);
}

// RFC 4231 test case 2.
bool CheckHmacSha256() {
  Sha256Digest mac{};
  return HmacSha256(Bytes("Jefe"), Bytes("what do ya want for nothing?"), mac) ==
             CryptStatus::kSuccess &&
         Same(mac, "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
}

// RFC 7914 section 11 (one round), and a two-round vector so that the
// iteration itself is exercised.
bool CheckPbkdf2() {
  std::array<uint8_t, 64> one{};
  std::array<uint8_t, 32> two{};
  return Pbkdf2HmacSha256(Bytes("passwd"), Bytes("salt"), 1, one) == CryptStatus::kSuccess &&
         Same(one,
              "55ac046e56e3089fec1691c22544b605f94185216dde0465e68b9d57c20dacbc"
              "49ca9cccf179b645991664b39d77ef317c71b845b1e30bd509112041d3a19783") &&
         Pbkdf2HmacSha256(Bytes("password"), Bytes("salt"), 2, two) == CryptStatus::kSuccess &&
         Same(two, "ae4d0c95af6b46d32d0adff928f06dd02a303f8ef3c251dfd6e2d85a95474c43");
}

// FIPS 180-2 "abc".
bool CheckSha256() {
  Sha256Digest digest{};
  return Sha256(Bytes("abc"), digest) == CryptStatus::kSuccess &&
         Same(digest, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

}  // namespace

SelfTestResult RunSelfTest() noexcept {
  struct Check {
    bool (*run)();
    SelfTestResult failure;
  };
  static constexpr Check kChecks[] = {
      {CheckAes256Cbc, SelfTestResult::kAes256CbcFailed},
      {CheckHmacSha256, SelfTestResult::kHmacSha256Failed},
      {CheckPbkdf2, SelfTestResult::kPbkdf2Failed},
      {CheckSha256, SelfTestResult::kSha256Failed},
      {xml::XmlLibraryMatches, SelfTestResult::kXmlLibraryFailed},
  };
  for (const Check& check : kChecks) {
    bool passed = false;
    try {
      passed = check.run();
    } catch (...) {
      // Only an allocation of the vectors above can throw; a check that cannot
      // run has not passed.
    }
    if (!passed) return check.failure;
  }
  return SelfTestResult::kPassed;
}

const char* SelfTestResultName(SelfTestResult result) noexcept {
  switch (result) {
    case SelfTestResult::kPassed:
      return "passed";
    case SelfTestResult::kAes256CbcFailed:
      return "AES-256-CBC";
    case SelfTestResult::kHmacSha256Failed:
      return "HMAC-SHA256";
    case SelfTestResult::kPbkdf2Failed:
      return "PBKDF2-HMAC-SHA256";
    case SelfTestResult::kSha256Failed:
      return "SHA-256";
    case SelfTestResult::kXmlLibraryFailed:
      return "libxml2 version";
  }
  return "unknown";
}

}  // namespace QelSS::platform::crypto
