#include "persistence/XmlEscape.h"

#include <array>

namespace QelSS::byteform {
namespace {

constexpr size_t kBase64LineLength = 72;
constexpr char kBase64Alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// The replacement of each byte in element text; empty for a byte kept as it is.
constexpr std::array<std::string_view, 256> TextEscapes() {
  std::array<std::string_view, 256> table{};
  table['<'] = "&lt;";
  table['>'] = "&gt;";
  table['&'] = "&amp;";
  table['"'] = "&quot;";
  table['\r'] = "&#13;";
  return table;
}
constexpr std::array<std::string_view, 256> kTextEscapes = TextEscapes();

void Append(std::string_view text, std::vector<uint8_t>& out) {
  out.insert(out.end(), text.begin(), text.end());
}

size_t HexDigits(uint32_t value) {
  size_t digits = 1;
  while (value >>= 4) ++digits;
  return digits;
}

// Length of the UTF-8 sequence starting with `lead`, 0 for a byte that cannot
// start one.
size_t SequenceLength(uint8_t lead) {
  if (lead < 0x80) return 1;
  if ((lead & 0xE0) == 0xC0) return 2;
  if ((lead & 0xF0) == 0xE0) return 3;
  if ((lead & 0xF8) == 0xF0) return 4;
  return 0;
}

}  // namespace

void AppendEscapedText(std::string_view text, std::vector<uint8_t>& out) {
  size_t run = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    const std::string_view escape = kTextEscapes[static_cast<uint8_t>(text[i])];
    if (escape.empty()) continue;
    Append(text.substr(run, i - run), out);
    Append(escape, out);
    run = i + 1;
  }
  Append(text.substr(run), out);
}

size_t EscapedTextSize(std::string_view text) {
  size_t size = text.size();
  for (char c : text) {
    const std::string_view escape = kTextEscapes[static_cast<uint8_t>(c)];
    if (!escape.empty()) size += escape.size() - 1;
  }
  return size;
}

size_t EscapedAttributeSize(std::string_view text) {
  constexpr size_t kLargestEscape = 6;  // "&quot;"
  size_t size = 0;
  for (size_t i = 0; i < text.size();) {
    const auto lead = static_cast<uint8_t>(text[i]);
    const size_t length = SequenceLength(lead);
    if (length == 1) {
      const std::string_view escape = kTextEscapes[lead];
      if (lead == '\n') {
        size += 5;  // "&#10;"
      } else if (lead == '\t') {
        size += 4;  // "&#9;"
      } else {
        size += escape.empty() ? 1 : escape.size();
      }
      ++i;
      continue;
    }
    if (length == 0 || i + length > text.size()) {
      size += kLargestEscape;
      ++i;
      continue;
    }
    uint32_t codePoint = lead & (0x7F >> length);
    for (size_t k = 1; k < length; ++k) {
      codePoint = (codePoint << 6) | (static_cast<uint8_t>(text[i + k]) & 0x3F);
    }
    size += 4 + HexDigits(codePoint);  // "&#x" HEX ";"
    i += length;
  }
  return size;
}

void AppendBase64Lines(const uint8_t* data, size_t size, std::vector<uint8_t>& out,
                       std::string_view lineBreak) {
  size_t lineLength = 0;
  for (size_t i = 0; i < size; i += 3) {
    const size_t n = size - i < 3 ? size - i : 3;
    const uint32_t group = (uint32_t{data[i]} << 16) | (n > 1 ? uint32_t{data[i + 1]} << 8 : 0) |
                           (n > 2 ? uint32_t{data[i + 2]} : 0);
    if (lineLength >= kBase64LineLength) {
      Append(lineBreak, out);
      lineLength = 0;
    }
    out.push_back(kBase64Alphabet[(group >> 18) & 0x3F]);
    out.push_back(kBase64Alphabet[(group >> 12) & 0x3F]);
    out.push_back(n > 1 ? kBase64Alphabet[(group >> 6) & 0x3F] : '=');
    out.push_back(n > 2 ? kBase64Alphabet[group & 0x3F] : '=');
    lineLength += 4;
  }
}

size_t Base64LinesSize(size_t size) {
  const size_t groups = (size + 2) / 3;
  const size_t groupsPerLine = kBase64LineLength / 4;
  const size_t breaks = groups == 0 ? 0 : (groups - 1) / groupsPerLine;
  return groups * 4 + breaks * 2;
}

}  // namespace QelSS::byteform
