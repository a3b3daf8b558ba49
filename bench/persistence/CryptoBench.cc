// Throughput of the crypto primitives under domain files, at the block sizes
// that `openssl speed` reports, so the two can be compared line by line:
//   openssl speed -bytes N -evp aes-256-cbc [-decrypt]
//   openssl speed -bytes N -evp sha256
//   openssl speed -bytes N -hmac sha256
// What differs: openssl speed streams N bytes at a time through one context.
// Each iteration here is a whole message through the public call: key checked
// against the thread's cached one, IV set, padding added or checked. Padding
// always adds a block, so encrypting N bytes puts N rounded down plus 16 bytes
// through the cipher (32 for N = 16), and the decrypt benchmarks take that
// ciphertext. CBC encryption is serial, which makes the extra block cost a
// whole block's time at small N; CBC decryption runs blocks in parallel.
// Bytes per second count N, the message, not the padding.
//
// BM_Aes256CbcCipher{Encrypt,Decrypt} time the cipher stage of one message of
// N bytes, a whole number of blocks, without padding: what openssl speed
// times, plus the key check and IV set that start every message here. It is
// the comparison for equal amounts of cipher work; a message of N bytes
// through the public call is that stage at N rounded down plus 16.
//
// BM_HmacSha256Keyed sets the key once, as openssl speed does;
// BM_HmacSha256OneShot passes the key on every call, as the envelope does.
// The envelope benchmarks are a MAC over N bytes plus an encryption of N + 32.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "persistence/Envelope.h"
#include "platform/crypto/Aes256Cbc.h"
#include "platform/crypto/CbcContext.h"
#include "platform/crypto/HmacSha256.h"
#include "platform/crypto/Sha256.h"
#include "qelss/platform/ErrorCode.h"

namespace {

namespace crypto = QelSS::platform::crypto;
using Bytes = std::vector<uint8_t>;

const Bytes kKey(32, 0x2b);
const Bytes kIv(16, 0x11);

void Sizes(benchmark::internal::Benchmark* bench) {
  for (int64_t size : {16, 64, 256, 1024, 8192, 16384}) bench->Arg(size);
}

void BM_Aes256CbcEncrypt(benchmark::State& state) {
  const Bytes input(static_cast<size_t>(state.range(0)), 0x5c);
  Bytes output(crypto::Aes256CbcOutputSize(input.size()));
  for (auto _ : state) {
    size_t produced = 0;
    if (crypto::Aes256CbcCrypt(crypto::CipherDirection::kEncrypt, kKey, kIv, input, output.data(),
                               output.size(), &produced) != crypto::CryptStatus::kSuccess) {
      state.SkipWithError("encryption failed");
    }
    benchmark::DoNotOptimize(output.data());
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Aes256CbcEncrypt)->Apply(Sizes);

void BM_Aes256CbcDecrypt(benchmark::State& state) {
  const Bytes plain(static_cast<size_t>(state.range(0)), 0x5c);
  Bytes cipher(crypto::Aes256CbcOutputSize(plain.size()));
  size_t produced = 0;
  if (crypto::Aes256CbcCrypt(crypto::CipherDirection::kEncrypt, kKey, kIv, plain, cipher.data(),
                             cipher.size(), &produced) != crypto::CryptStatus::kSuccess) {
    state.SkipWithError("setup failed");
    return;
  }
  cipher.resize(produced);
  Bytes output(crypto::Aes256CbcOutputSize(cipher.size()));
  for (auto _ : state) {
    if (crypto::Aes256CbcCrypt(crypto::CipherDirection::kDecrypt, kKey, kIv, cipher, output.data(),
                               output.size(), &produced) != crypto::CryptStatus::kSuccess) {
      state.SkipWithError("decryption failed");
    }
    benchmark::DoNotOptimize(output.data());
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Aes256CbcDecrypt)->Apply(Sizes);

void CipherStage(benchmark::State& state, bool encrypt) {
  crypto::detail::CbcContext context(encrypt);
  Bytes buffer(static_cast<size_t>(state.range(0)), 0x5c);
  for (auto _ : state) {
    if (!context.Start(kKey.data(), kIv.data()) ||
        !context.Update(buffer.data(), buffer.size(), buffer.data())) {
      state.SkipWithError("the cipher failed");
    }
    benchmark::DoNotOptimize(buffer.data());
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

void BM_Aes256CbcCipherEncrypt(benchmark::State& state) { CipherStage(state, true); }
BENCHMARK(BM_Aes256CbcCipherEncrypt)->Apply(Sizes);

void BM_Aes256CbcCipherDecrypt(benchmark::State& state) { CipherStage(state, false); }
BENCHMARK(BM_Aes256CbcCipherDecrypt)->Apply(Sizes);

void BM_HmacSha256OneShot(benchmark::State& state) {
  const Bytes input(static_cast<size_t>(state.range(0)), 0x5c);
  crypto::Sha256Digest mac{};
  for (auto _ : state) {
    if (crypto::HmacSha256(kKey, input, mac) != crypto::CryptStatus::kSuccess) {
      state.SkipWithError("hmac failed");
    }
    benchmark::DoNotOptimize(mac);
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_HmacSha256OneShot)->Apply(Sizes);

// Key set once, as openssl speed does.
void BM_HmacSha256Keyed(benchmark::State& state) {
  const Bytes input(static_cast<size_t>(state.range(0)), 0x5c);
  crypto::HmacSha256Stream stream;
  crypto::Sha256Digest mac{};
  if (stream.SetKey(kKey) != crypto::CryptStatus::kSuccess) {
    state.SkipWithError("setup failed");
    return;
  }
  for (auto _ : state) {
    if (stream.Update(input) != crypto::CryptStatus::kSuccess ||
        stream.Final(mac) != crypto::CryptStatus::kSuccess) {
      state.SkipWithError("hmac failed");
    }
    benchmark::DoNotOptimize(mac);
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_HmacSha256Keyed)->Apply(Sizes);

void BM_Sha256(benchmark::State& state) {
  const Bytes input(static_cast<size_t>(state.range(0)), 0x5c);
  crypto::Sha256Digest digest{};
  for (auto _ : state) {
    if (crypto::Sha256(input, digest) != crypto::CryptStatus::kSuccess) {
      state.SkipWithError("digest failed");
    }
    benchmark::DoNotOptimize(digest);
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Sha256)->Apply(Sizes);

// A whole domain file's worth of work: MAC, copy, encrypt (or the reverse).
void BM_EnvelopeSeal(benchmark::State& state) {
  const Bytes payload(static_cast<size_t>(state.range(0)), 0x5c);
  Bytes sealed;
  for (auto _ : state) {
    if (QelSS::EncryptWithKey(kKey, payload, sealed) != QelSS::make_error_code(QelSS::kSuccess)) {
      state.SkipWithError("seal failed");
    }
    benchmark::DoNotOptimize(sealed.data());
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_EnvelopeSeal)->Apply(Sizes);

void BM_EnvelopeOpen(benchmark::State& state) {
  const Bytes payload(static_cast<size_t>(state.range(0)), 0x5c);
  Bytes sealed, opened;
  if (QelSS::EncryptWithKey(kKey, payload, sealed) != QelSS::make_error_code(QelSS::kSuccess)) {
    state.SkipWithError("setup failed");
    return;
  }
  for (auto _ : state) {
    if (QelSS::DecryptWithKey(kKey, sealed, opened) != QelSS::make_error_code(QelSS::kSuccess)) {
      state.SkipWithError("open failed");
    }
    benchmark::DoNotOptimize(opened.data());
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_EnvelopeOpen)->Apply(Sizes);

}  // namespace
