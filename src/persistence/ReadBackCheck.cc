#include "persistence/ReadBackCheck.h"

#include <memory>

#include "qelss/values/ErrorCode.h"
#include "qelss/values/HashFactory.h"

namespace QelSS {
namespace {

// The code point of the UTF-8 sequence at `bytes[i]` and its length; length 0
// for anything that is not a shortest-form sequence.
struct Decoded {
  uint32_t code = 0;
  size_t length = 0;
};

Decoded DecodeUtf8(std::span<const uint8_t> bytes, size_t i) {
  const uint8_t lead = bytes[i];
  size_t length = 0;
  if (lead < 0x80) return {lead, 1};
  if ((lead & 0xE0) == 0xC0) length = 2;
  if ((lead & 0xF0) == 0xE0) length = 3;
  if ((lead & 0xF8) == 0xF0) length = 4;
  if (length == 0 || i + length > bytes.size()) return {};
  uint32_t code = lead & (0x7F >> length);
  for (size_t k = 1; k < length; ++k) {
    if ((bytes[i + k] & 0xC0) != 0x80) return {};
    code = (code << 6) | (bytes[i + k] & 0x3F);
  }
  static constexpr uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  if (code < kSmallest[length]) return {};
  return {code, length};
}

// The characters XML 1.0 allows.
bool IsXmlChar(uint32_t c) {
  if (c < 0x20) return c == '\t' || c == '\n' || c == '\r';
  return c <= 0xD7FF || (c >= 0xE000 && c <= 0xFFFD) || (c >= 0x10000 && c <= 0x10FFFF);
}

}  // namespace

bool IsPlainByteForm(std::span<const uint8_t> bytes) {
  if (bytes.size() > kPlainSize) return false;
  int depth = 0;
  for (size_t i = 0; i < bytes.size();) {
    const Decoded decoded = DecodeUtf8(bytes, i);
    if (decoded.length == 0 || !IsXmlChar(decoded.code)) return false;
    // Text and attribute values carry "<" escaped, so every "<" opens a tag.
    if (decoded.code == '<' && i + 1 < bytes.size()) {
      const uint8_t next = bytes[i + 1];
      if (next == '/') {
        --depth;
      } else if (next != '?' && next != '!') {
        if (++depth > kPlainDepth) return false;
      }
    } else if (decoded.code == '/' && i + 1 < bytes.size() && bytes[i + 1] == '>') {
      --depth;  // an element without content
    }
    i += decoded.length;
  }
  return true;
}

std::error_code CheckReadBack(const std::vector<uint8_t>& bytes) {
  if (IsPlainByteForm(bytes)) return make_error_code(kSuccess);
  std::shared_ptr<IHash> back;
  return HashFactory::CreateFromBytes(back, bytes);
}

}  // namespace QelSS
