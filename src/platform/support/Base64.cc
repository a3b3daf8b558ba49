#include "platform/support/Base64.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <new>

namespace {

constexpr int kBadInput = EINVAL;  // 22: the status callers test for
constexpr int kNoMemory = ENOMEM;

// EVP's block calls take int lengths; work in slices well below that, each a
// whole number of base64 quanta (3 bytes in, 4 characters out).
constexpr size_t kEncodeSlice = 3 * (size_t{1} << 20);
constexpr size_t kDecodeSlice = 4 * (size_t{1} << 20);

bool IsWhiteSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

bool IsAlphabet(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
         c == '/';
}

// Keeps the alphabet and padding characters, dropping white space; false on any
// other character.
bool StripWhiteSpace(const char* text, size_t length, std::string& clean) {
  clean.reserve(length);
  for (size_t i = 0; i < length; ++i) {
    const char c = text[i];
    if (IsWhiteSpace(c)) continue;
    if (!IsAlphabet(c) && c != '=') return false;
    clean.push_back(c);
  }
  return true;
}

// Padding may only close the last quantum, as "x=" or "==". Returns the number of
// padding characters, or -1 when any "=" stands elsewhere.
int CountPadding(const std::string& clean) {
  size_t pads = 0;
  while (pads < clean.size() && clean[clean.size() - 1 - pads] == '=') ++pads;
  if (pads > 2) return -1;
  if (clean.find('=') < clean.size() - pads) return -1;
  return static_cast<int>(pads);
}

}  // namespace

int QelBase64Encode(const uint8_t* data, size_t length, std::string& out) {
  if (!data && length != 0) return kBadInput;
  if (length / 3 >= SIZE_MAX / 4 - 1) return kBadInput;
  try {
    std::string encoded(4 * ((length + 2) / 3), '\0');
    size_t written = 0;
    for (size_t done = 0; done < length; done += kEncodeSlice) {
      const size_t slice = std::min(kEncodeSlice, length - done);
      // EVP_EncodeBlock also writes a terminating NUL: inside the string it is
      // overwritten by the next slice, at the end it lands on the string's own.
      written += EVP_EncodeBlock(reinterpret_cast<unsigned char*>(encoded.data() + written),
                                 data + done, static_cast<int>(slice));
    }
    out.swap(encoded);
    return 0;
  } catch (const std::bad_alloc&) {
    return kNoMemory;
  }
}

int QelBase64Decode(const char* text, size_t length, std::vector<uint8_t>& out) {
  if (!text && length != 0) return kBadInput;
  try {
    std::string clean;
    if (!StripWhiteSpace(text, length, clean)) return kBadInput;
    if (clean.size() % 4 != 0) return kBadInput;
    const int pads = CountPadding(clean);
    if (pads < 0) return kBadInput;
    // EVP_DecodeBlock counts padding as zero bits and reports their bytes in its
    // length; feeding it 'A' (also zero bits) instead and dropping those bytes
    // ourselves keeps the result independent of how it treats "=".
    for (int i = 1; i <= pads; ++i) clean[clean.size() - i] = 'A';

    std::vector<uint8_t> decoded(clean.size() / 4 * 3);
    size_t written = 0;
    for (size_t done = 0; done < clean.size(); done += kDecodeSlice) {
      const size_t slice = std::min(kDecodeSlice, clean.size() - done);
      const int n = EVP_DecodeBlock(decoded.data() + written,
                                    reinterpret_cast<const unsigned char*>(clean.data() + done),
                                    static_cast<int>(slice));
      if (n < 0) return kBadInput;
      written += static_cast<size_t>(n);
    }
    decoded.resize(written - static_cast<size_t>(pads));
    out.swap(decoded);
    return 0;
  } catch (const std::bad_alloc&) {
    return kNoMemory;
  }
}
