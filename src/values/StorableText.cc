#include "values/StorableText.h"

#include "qelss/platform/ErrorCode.h"
#include "qelss/values/IArray.h"
#include "qelss/values/IHash.h"
#include "qelss/values/IString.h"
#include "values/ValueCast.h"

namespace QelSS {
namespace {

bool IsStorable(const std::shared_ptr<IString>& text) {
  return text && IsStorableText(std::string_view(text->GetCString(), text->GetLength()));
}

bool Storable(const std::shared_ptr<IValue>& value, int levels) {
  if (levels < 1) return false;
  if (!value) return true;
  if (auto text = AsString(value)) return IsStorable(text);
  bool storable = true;
  if (auto hash = AsHash(value)) {
    (void)hash->Iterate(
        [&](const std::shared_ptr<IString>& key, const std::shared_ptr<IValue>& item, bool& stop) {
          storable = IsStorable(key) && Storable(item, levels - 1);
          stop = !storable;
        });
  } else if (auto array = AsArray(value)) {
    (void)array->Iterate([&](const std::shared_ptr<IValue>& item, unsigned int, bool& stop) {
      storable = Storable(item, levels - 1);
      stop = !storable;
    });
  }
  return storable;
}

}  // namespace

Utf8Char DecodeUtf8(std::span<const uint8_t> bytes, size_t at) {
  const uint8_t lead = bytes[at];
  if (lead < 0x80) return {lead, 1};
  size_t length = 0;
  if ((lead & 0xE0) == 0xC0) length = 2;
  if ((lead & 0xF0) == 0xE0) length = 3;
  if ((lead & 0xF8) == 0xF0) length = 4;
  if (length == 0 || at + length > bytes.size()) return {};
  uint32_t code = lead & (0x7F >> length);
  for (size_t k = 1; k < length; ++k) {
    if ((bytes[at + k] & 0xC0) != 0x80) return {};
    code = (code << 6) | (bytes[at + k] & 0x3F);
  }
  static constexpr uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  if (code < kSmallest[length]) return {};
  return {code, length};
}

bool IsXmlChar(uint32_t code) {
  if (code < 0x20) return code == '\t' || code == '\n' || code == '\r';
  return code <= 0xD7FF || (code >= 0xE000 && code <= 0xFFFD) ||
         (code >= 0x10000 && code <= 0x10FFFF);
}

bool IsStorableText(std::string_view text) {
  const std::span<const uint8_t> bytes(reinterpret_cast<const uint8_t*>(text.data()), text.size());
  for (size_t i = 0; i < bytes.size();) {
    const Utf8Char c = DecodeUtf8(bytes, i);
    if (c.length == 0 || !IsXmlChar(c.code)) return false;
    i += c.length;
  }
  return true;
}

std::error_code CheckStorable(const std::shared_ptr<IValue>& value, int levels) {
  return make_error_code(Storable(value, levels) ? kSuccess : kInvalidArgument);
}

}  // namespace QelSS
