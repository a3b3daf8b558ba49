#include "persistence/ReadBackCheck.h"

#include <memory>

#include "qelss/platform/ErrorCode.h"
#include "qelss/values/HashFactory.h"
#include "values/StorableText.h"

namespace QelSS {

bool IsPlainByteForm(std::span<const uint8_t> bytes) {
  if (bytes.size() > kPlainSize) return false;
  int depth = 0;
  for (size_t i = 0; i < bytes.size();) {
    const Utf8Char decoded = DecodeUtf8(bytes, i);
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
