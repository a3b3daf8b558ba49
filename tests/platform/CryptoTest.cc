#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <unistd.h>

#include <cstdlib>

#include <cstdint>
#include <optional>
#include <random>
#include <span>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/ChildProcess.h"
#include "platform/crypto/Aes256Cbc.h"
#include "platform/crypto/HmacSha256.h"
#include "platform/crypto/Pbkdf2.h"
#include "platform/crypto/SecureMemory.h"
#include "platform/crypto/SecureRandom.h"
#include "platform/crypto/SelfTest.h"
#include "platform/crypto/Sha256.h"

namespace QelSS::platform::crypto {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes FromHex(std::string_view hex) {
  Bytes out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    out.push_back(static_cast<uint8_t>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
  }
  return out;
}

Bytes FromText(std::string_view text) { return Bytes(text.begin(), text.end()); }

Bytes Pattern(size_t size, uint8_t start = 1) {
  Bytes out(size);
  for (size_t i = 0; i < size; ++i) out[i] = static_cast<uint8_t>(start + i * 7);
  return out;
}

// Runs one direction with a buffer of exactly the size the call asks for.
CryptStatus Crypt(CipherDirection direction, const Bytes& key, const Bytes& iv, const Bytes& in,
                  Bytes& out) {
  out.assign(Aes256CbcOutputSize(in.size()), 0);
  size_t produced = 0;
  CryptStatus status = Aes256CbcCrypt(direction, key, iv, in, out.data(), out.size(), &produced);
  out.resize(produced);
  return status;
}

const Bytes kKey = FromHex("603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4");
const Bytes kIv = FromHex("000102030405060708090a0b0c0d0e0f");

TEST(Aes256Cbc, SizeQueryAnswersBufferTooSmallWithTheNeededSize) {
  const Bytes plain = Pattern(33);
  size_t produced = 0;
  EXPECT_EQ(Aes256CbcCrypt(CipherDirection::kEncrypt, kKey, kIv, plain, nullptr, 0, &produced),
            CryptStatus::kBufferTooSmall);
  EXPECT_EQ(produced, 33u + 16u);

  Bytes out(48);  // enough for the result, one byte short of what the call asks for
  EXPECT_EQ(Aes256CbcCrypt(CipherDirection::kEncrypt, kKey, kIv, plain, out.data(), out.size(),
                           &produced),
            CryptStatus::kBufferTooSmall);
  EXPECT_EQ(produced, 49u);

  // Decryption asks the same, even for input it will go on to reject.
  EXPECT_EQ(Aes256CbcCrypt(CipherDirection::kDecrypt, kKey, kIv, plain, nullptr, 0, &produced),
            CryptStatus::kBufferTooSmall);
  EXPECT_EQ(produced, 49u);
}

TEST(Aes256Cbc, PaddingAlwaysAddsUpToOneBlock) {
  for (size_t size : {0u, 1u, 15u, 16u, 17u, 31u, 32u, 1000u}) {
    Bytes cipher, back;
    const Bytes plain = Pattern(size);
    ASSERT_EQ(Crypt(CipherDirection::kEncrypt, kKey, kIv, plain, cipher), CryptStatus::kSuccess);
    EXPECT_EQ(cipher.size(), (size / 16 + 1) * 16) << size;
    ASSERT_EQ(Crypt(CipherDirection::kDecrypt, kKey, kIv, cipher, back), CryptStatus::kSuccess);
    EXPECT_EQ(back, plain) << size;
  }
}

TEST(Aes256Cbc, WorksInPlace) {
  for (size_t size : {0u, 5u, 16u, 40u}) {
    const Bytes plain = Pattern(size);
    Bytes expected;
    ASSERT_EQ(Crypt(CipherDirection::kEncrypt, kKey, kIv, plain, expected), CryptStatus::kSuccess);

    Bytes buffer = plain;
    buffer.resize(Aes256CbcOutputSize(size));
    size_t produced = 0;
    ASSERT_EQ(Aes256CbcCrypt(CipherDirection::kEncrypt, kKey, kIv, std::span(buffer).first(size),
                             buffer.data(), buffer.size(), &produced),
              CryptStatus::kSuccess);
    EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + produced), expected) << size;

    buffer.resize(Aes256CbcOutputSize(produced));
    ASSERT_EQ(
        Aes256CbcCrypt(CipherDirection::kDecrypt, kKey, kIv, std::span(buffer).first(produced),
                       buffer.data(), buffer.size(), &produced),
        CryptStatus::kSuccess);
    EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + produced), plain) << size;
  }
}

TEST(Aes256Cbc, RejectsBadArgumentsAndBadCiphertext) {
  Bytes out;
  const Bytes shortKey(31, 1), shortIv(15, 1);
  EXPECT_EQ(Crypt(CipherDirection::kEncrypt, shortKey, kIv, Pattern(4), out),
            CryptStatus::kInvalidArgument);
  EXPECT_EQ(Crypt(CipherDirection::kEncrypt, kKey, shortIv, Pattern(4), out),
            CryptStatus::kInvalidArgument);
  EXPECT_EQ(Aes256CbcCrypt(CipherDirection::kEncrypt, kKey, kIv, Pattern(4), nullptr, 64, nullptr),
            CryptStatus::kInvalidArgument);

  EXPECT_EQ(Crypt(CipherDirection::kDecrypt, kKey, kIv, Bytes{}, out), CryptStatus::kDecodeError);
  EXPECT_EQ(Crypt(CipherDirection::kDecrypt, kKey, kIv, Pattern(17), out),
            CryptStatus::kDecodeError);
  EXPECT_TRUE(out.empty());

  // The pad block of an empty message decrypts to sixteen 0x10 bytes; changing
  // the IV's last byte changes the pad byte, which must be refused.
  Bytes cipher;
  ASSERT_EQ(Crypt(CipherDirection::kEncrypt, kKey, kIv, Bytes{}, cipher), CryptStatus::kSuccess);
  Bytes iv = kIv;
  iv[15] ^= 0x01;
  EXPECT_EQ(Crypt(CipherDirection::kDecrypt, kKey, iv, cipher, out), CryptStatus::kDecodeError);
  // A failure must not poison the thread's context for the next call.
  EXPECT_EQ(Crypt(CipherDirection::kDecrypt, kKey, kIv, cipher, out), CryptStatus::kSuccess);
}

TEST(Aes256Cbc, ThreadsWithDifferentKeysDoNotInterfere) {
  auto work = [](uint8_t keyByte, bool* ok) {
    const Bytes key(32, keyByte);
    for (int i = 0; i < 200; ++i) {
      const Bytes plain = Pattern(100 + i, keyByte);
      Bytes cipher, back;
      *ok = Crypt(CipherDirection::kEncrypt, key, kIv, plain, cipher) == CryptStatus::kSuccess &&
            Crypt(CipherDirection::kDecrypt, key, kIv, cipher, back) == CryptStatus::kSuccess &&
            back == plain;
      if (!*ok) return;
    }
  };
  bool ok1 = false, ok2 = false;
  std::thread t1(work, uint8_t{1}, &ok1), t2(work, uint8_t{2}, &ok2);
  t1.join();
  t2.join();
  EXPECT_TRUE(ok1);
  EXPECT_TRUE(ok2);
}

// OpenSSL itself, through a context made for the one message, as the cached
// contexts' oracle. Empty when it refuses the input (bad padding).
std::optional<Bytes> FreshContextCrypt(CipherDirection direction, const Bytes& key, const Bytes& iv,
                                       const Bytes& in) {
  EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
  Bytes out(in.size() + 16);
  int body = 0, tail = 0;
  const bool ok =
      EVP_CipherInit_ex(context, EVP_aes_256_cbc(), nullptr, key.data(), iv.data(),
                        direction == CipherDirection::kEncrypt ? 1 : 0) == 1 &&
      EVP_CipherUpdate(context, out.data(), &body, in.data(), static_cast<int>(in.size())) == 1 &&
      EVP_CipherFinal_ex(context, out.data() + body, &tail) == 1;
  EVP_CIPHER_CTX_free(context);
  if (!ok) return std::nullopt;
  out.resize(static_cast<size_t>(body + tail));
  return out;
}

Bytes Noise(std::mt19937& random, size_t size) {
  Bytes out(size);
  for (uint8_t& byte : out) byte = static_cast<uint8_t>(random());
  return out;
}

// The thread's contexts keep key schedules and chaining values between calls;
// whatever came before, each message must come out as if it were the first.
// Keys that differ only in their last byte, changing IVs, both directions and
// refused ciphertext are mixed in one sequence on purpose.
TEST(Aes256Cbc, EveryMessageMatchesAFreshContextWhateverCameBefore) {
  std::mt19937 random(7);
  Bytes nearKey = kKey;
  nearKey[31] ^= 1;
  const Bytes keys[] = {kKey, nearKey, Pattern(32, 200)};
  for (int step = 0; step < 3000; ++step) {
    const Bytes& key = keys[random() % 3];
    const Bytes iv = Noise(random, 16);
    const auto direction = random() % 2 ? CipherDirection::kEncrypt : CipherDirection::kDecrypt;
    Bytes input;
    if (direction == CipherDirection::kEncrypt) {
      input = Noise(random, random() % 80);
    } else if (random() % 2) {
      // Ciphertext that decrypts: a message under this key, a random IV.
      input = *FreshContextCrypt(CipherDirection::kEncrypt, key, Noise(random, 16),
                                 Noise(random, random() % 80));
    } else {
      input = Noise(random, 16 * (1 + random() % 5));  // almost always badly padded
    }
    Bytes out;
    const CryptStatus status = Crypt(direction, key, iv, input, out);
    const std::optional<Bytes> expected = FreshContextCrypt(direction, key, iv, input);
    ASSERT_EQ(status, expected ? CryptStatus::kSuccess : CryptStatus::kDecodeError) << step;
    if (expected) {
      ASSERT_EQ(out, *expected) << step;
    }
  }
}

// Pending saves still encrypt while the process exits, after the exiting
// thread's thread_local objects are gone; the primitives must keep working
// from an exit handler on the main thread.
TEST(Aes256Cbc, StillWorksFromAnExitHandler) {
  const testing::ChildResult child = testing::RunInChild(
      [] {
        Bytes warmUp;
        if (Crypt(CipherDirection::kEncrypt, kKey, kIv, Pattern(40), warmUp) !=
            CryptStatus::kSuccess) {
          return 2;
        }
        std::atexit([] {
          Bytes cipher, back;
          Sha256Digest mac{};
          const bool ok =
              Crypt(CipherDirection::kEncrypt, kKey, kIv, Pattern(40), cipher) ==
                  CryptStatus::kSuccess &&
              Crypt(CipherDirection::kDecrypt, kKey, kIv, cipher, back) == CryptStatus::kSuccess &&
              back == Pattern(40) && HmacSha256(kKey, back, mac) == CryptStatus::kSuccess;
          ::_exit(ok ? 0 : 1);
        });
        return 3;  // only reached through the handler's own exit code
      },
      testing::ChildExit::kNormal);
  ASSERT_TRUE(child.exited);
  EXPECT_EQ(child.exitCode, 0);
}

std::string Hex(std::span<const uint8_t> bytes) {
  static const char* digits = "0123456789abcdef";
  std::string out;
  for (uint8_t b : bytes) {
    out += digits[b >> 4];
    out += digits[b & 15];
  }
  return out;
}

std::string Hmac(const Bytes& key, const Bytes& data) {
  Sha256Digest mac{};
  EXPECT_EQ(HmacSha256(key, data, mac), CryptStatus::kSuccess);
  return Hex(mac);
}

TEST(HmacSha256, MatchesPublishedVectors) {
  // RFC 4231 cases 1 and 6 (a key longer than a block is hashed first); case 2
  // is part of the self-test.
  EXPECT_EQ(Hmac(Bytes(20, 0x0b), FromText("Hi There")),
            "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7");
  EXPECT_EQ(
      Hmac(Bytes(131, 0xaa), FromText("Test Using Larger Than Block-Size Key - Hash Key First")),
      "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54");
  EXPECT_EQ(Hmac(Bytes{}, Bytes{}),
            "b613679a0814d9ec772f95d778c35fc5ff1697c493715653c6c712144292c5ad");
}

// The thread's MAC context keeps the pads of its last key; a key that is a
// prefix of it, differs in one byte or is longer than a block must not be
// mistaken for it.
TEST(HmacSha256, EveryCallMatchesOpenSslWhateverKeyCameBefore) {
  const Bytes base = Pattern(131, 3);
  std::vector<Bytes> keys;
  for (size_t size : {0u, 1u, 31u, 32u, 64u, 65u, 131u})
    keys.emplace_back(base.begin(), base.begin() + size);
  Bytes changed = keys[3];
  changed[31] ^= 0x40;
  keys.push_back(changed);

  std::mt19937 random(11);
  for (int step = 0; step < 500; ++step) {
    const Bytes& key = keys[random() % keys.size()];
    const Bytes data = Noise(random, random() % 200);
    // OpenSSL takes a null pointer for "no key given", not for an empty one.
    const unsigned char none = 0;
    unsigned char expected[32];
    unsigned length = 0;
    ASSERT_NE(HMAC(EVP_sha256(), key.empty() ? &none : key.data(), static_cast<int>(key.size()),
                   data.empty() ? &none : data.data(), data.size(), expected, &length),
              nullptr);
    ASSERT_EQ(Hmac(key, data), Hex(std::span(expected, length))) << step;
  }
}

TEST(HmacSha256, StreamAgreesWithOneShotAndKeepsItsKey) {
  const Bytes key = Pattern(32, 9);
  HmacSha256Stream stream;
  Sha256Digest mac{};
  EXPECT_EQ(stream.Update(Pattern(3)), CryptStatus::kInvalidArgument);
  EXPECT_EQ(stream.Final(mac), CryptStatus::kInvalidArgument);
  ASSERT_EQ(stream.SetKey(key), CryptStatus::kSuccess);
  for (size_t size : {0u, 1u, 63u, 64u, 65u, 5000u}) {
    const Bytes data = Pattern(size);
    const std::span<const uint8_t> all(data);
    ASSERT_EQ(stream.Update(all.first(size / 3)), CryptStatus::kSuccess);
    ASSERT_EQ(stream.Update(all.subspan(size / 3)), CryptStatus::kSuccess);
    ASSERT_EQ(stream.Final(mac), CryptStatus::kSuccess);
    EXPECT_EQ(Hex(mac), Hmac(key, data)) << size;
  }
}

TEST(Sha256, MatchesPublishedVectors) {
  auto digest = [](const Bytes& data) {
    Sha256Digest out{};
    EXPECT_EQ(Sha256(data, out), CryptStatus::kSuccess);
    return Hex(out);
  };
  EXPECT_EQ(digest(Bytes{}), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(digest(FromText("abc")),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(digest(FromText("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq")),
            "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
}

TEST(Pbkdf2HmacSha256, MatchesPublishedVectorsAndRejectsBadParameters) {
  Bytes derived(32);
  ASSERT_EQ(Pbkdf2HmacSha256(FromText("password"), FromText("salt"), 4096, derived),
            CryptStatus::kSuccess);
  EXPECT_EQ(Hex(derived), "c5e478d59288c841aa530db6845c4c8d962893a001ce4e11a4963873aa98134a");
  EXPECT_EQ(Pbkdf2HmacSha256(FromText("p"), FromText("s"), 0, derived),
            CryptStatus::kInvalidArgument);
  EXPECT_EQ(Pbkdf2HmacSha256(FromText("p"), FromText("s"), 1, std::span<uint8_t>{}),
            CryptStatus::kInvalidArgument);
}

TEST(SecureMemory, ComparesWholeContentsAndLengths) {
  const Bytes a = Pattern(40);
  Bytes b = a;
  EXPECT_TRUE(ConstantTimeEqual(a, b));
  EXPECT_TRUE(ConstantTimeEqual(Bytes{}, Bytes{}));
  b.front() ^= 1;
  EXPECT_FALSE(ConstantTimeEqual(a, b));
  b = a;
  b.back() ^= 0x80;
  EXPECT_FALSE(ConstantTimeEqual(a, b));
  EXPECT_FALSE(ConstantTimeEqual(a, std::span(a).first(39)));

  SecureWipe(b);
  EXPECT_EQ(b, Bytes(40, 0));
}

TEST(SecureRandom, FillsWithFreshBytes) {
  Bytes first(32, 0), second(32, 0);
  ASSERT_EQ(RandomBytes(first), CryptStatus::kSuccess);
  ASSERT_EQ(RandomBytes(second), CryptStatus::kSuccess);
  EXPECT_NE(first, second);
  EXPECT_NE(first, Bytes(32, 0));
  EXPECT_EQ(RandomBytes(std::span<uint8_t>{}), CryptStatus::kSuccess);
}

TEST(SelfTest, PassesOnThisBuildAndNamesEveryOutcome) {
  EXPECT_EQ(RunSelfTest(), SelfTestResult::kPassed);
  EXPECT_STREQ(SelfTestResultName(SelfTestResult::kPassed), "passed");
  EXPECT_STREQ(SelfTestResultName(SelfTestResult::kXmlLibraryFailed), "libxml2 version");
}

}  // namespace
}  // namespace QelSS::platform::crypto
