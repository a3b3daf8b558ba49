#include "configurations/StringsTable.h"

#include <cstdint>
#include <optional>

#include "configurations/BoundedFile.h"
#include "qelss/platform/ErrorCode.h"

namespace QelSS {
namespace {

constexpr size_t kMaxTableFile = 1 << 20;

void AppendUtf8(uint32_t code, std::string& out) {
  if (code < 0x80) {
    out += static_cast<char>(code);
  } else if (code < 0x800) {
    out += static_cast<char>(0xC0 | (code >> 6));
    out += static_cast<char>(0x80 | (code & 0x3F));
  } else if (code < 0x10000) {
    out += static_cast<char>(0xE0 | (code >> 12));
    out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (code & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (code >> 18));
    out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (code & 0x3F));
  }
}

bool IsHighSurrogate(uint32_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; }
bool IsLowSurrogate(uint32_t unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }

uint32_t CombineSurrogates(uint32_t high, uint32_t low) {
  return 0x10000 + ((high - 0xD800) << 10) + (low - 0xDC00);
}

// UTF-16 with a byte-order mark to UTF-8; nullopt for an odd length or an
// unpaired surrogate.
std::optional<std::string> FromUtf16(std::string_view bytes, bool bigEndian) {
  if (bytes.size() % 2 != 0) return std::nullopt;
  auto unitAt = [&](size_t i) {
    const auto a = static_cast<uint8_t>(bytes[i]);
    const auto b = static_cast<uint8_t>(bytes[i + 1]);
    return bigEndian ? uint32_t(a << 8 | b) : uint32_t(b << 8 | a);
  };
  std::string out;
  for (size_t i = 2; i < bytes.size(); i += 2) {
    uint32_t unit = unitAt(i);
    if (IsHighSurrogate(unit)) {
      if (i + 3 >= bytes.size() || !IsLowSurrogate(unitAt(i + 2))) return std::nullopt;
      unit = CombineSurrogates(unit, unitAt(i + 2));
      i += 2;
    } else if (IsLowSurrogate(unit)) {
      return std::nullopt;
    }
    AppendUtf8(unit, out);
  }
  return out;
}

std::optional<std::string> ToUtf8(std::string_view bytes) {
  if (bytes.starts_with("\xFF\xFE")) return FromUtf16(bytes, false);
  if (bytes.starts_with("\xFE\xFF")) return FromUtf16(bytes, true);
  if (bytes.starts_with("\xEF\xBB\xBF")) bytes.remove_prefix(3);
  return std::string(bytes);
}

bool IsBareChar(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' ||
         c == '.' || c == ':' || c == '$' || c == '/' || c == '-';
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

class Parser {
 public:
  explicit Parser(std::string_view text) : text_(text) {}

  bool ParseTable(StringsTable& table) {
    for (;;) {
      if (!SkipSpaceAndComments()) return false;
      if (AtEnd()) return true;
      std::string key;
      std::string value;
      if (!ParseString(key) || !SkipSpaceAndComments()) return false;
      if (Peek() == '=') {
        ++pos_;
        if (!SkipSpaceAndComments() || !ParseString(value) || !SkipSpaceAndComments()) {
          return false;
        }
      } else {
        value = key;
      }
      if (Peek() != ';') return false;
      ++pos_;
      table[std::move(key)] = std::move(value);
    }
  }

 private:
  bool AtEnd() const { return pos_ >= text_.size(); }
  char Peek() const { return AtEnd() ? '\0' : text_[pos_]; }

  // False for a comment that never ends.
  bool SkipSpaceAndComments() {
    while (!AtEnd()) {
      const char c = text_[pos_];
      if (c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v') {
        ++pos_;
      } else if (text_.substr(pos_, 2) == "//") {
        const size_t end = text_.find('\n', pos_);
        pos_ = end == std::string_view::npos ? text_.size() : end + 1;
      } else if (text_.substr(pos_, 2) == "/*") {
        const size_t end = text_.find("*/", pos_ + 2);
        if (end == std::string_view::npos) return false;
        pos_ = end + 2;
      } else {
        break;
      }
    }
    return true;
  }

  bool ParseString(std::string& out) {
    if (Peek() == '"') return ParseQuoted(out);
    const size_t start = pos_;
    while (!AtEnd() && IsBareChar(text_[pos_])) ++pos_;
    out.assign(text_.substr(start, pos_ - start));
    return pos_ > start;
  }

  bool ParseQuoted(std::string& out) {
    ++pos_;
    while (!AtEnd()) {
      const char c = text_[pos_++];
      if (c == '"') return true;
      if (c != '\\') {
        out += c;
      } else if (!ParseEscape(out)) {
        return false;
      }
    }
    return false;
  }

  bool ParseEscape(std::string& out) {
    if (AtEnd()) return false;
    const char c = text_[pos_++];
    switch (c) {
      case 'n':
        out += '\n';
        return true;
      case 't':
        out += '\t';
        return true;
      case 'r':
        out += '\r';
        return true;
      case 'a':
        out += '\a';
        return true;
      case 'b':
        out += '\b';
        return true;
      case 'f':
        out += '\f';
        return true;
      case 'v':
        out += '\v';
        return true;
      case 'U':
      case 'u':
        return ParseUnicodeEscape(out);
      default:
        break;
    }
    if (c >= '0' && c <= '7') {
      unsigned value = static_cast<unsigned>(c - '0');
      for (int digits = 1; digits < 3 && Peek() >= '0' && Peek() <= '7'; ++digits) {
        value = value * 8 + static_cast<unsigned>(text_[pos_++] - '0');
      }
      AppendUtf8(value, out);
      return true;
    }
    out += c;
    return true;
  }

  std::optional<uint32_t> ParseHexUnit() {
    if (pos_ + 4 > text_.size()) return std::nullopt;
    uint32_t unit = 0;
    for (int i = 0; i < 4; ++i) {
      const int digit = HexValue(text_[pos_ + i]);
      if (digit < 0) return std::nullopt;
      unit = unit * 16 + static_cast<uint32_t>(digit);
    }
    pos_ += 4;
    return unit;
  }

  bool ParseUnicodeEscape(std::string& out) {
    std::optional<uint32_t> unit = ParseHexUnit();
    if (!unit || IsLowSurrogate(*unit)) return false;
    if (IsHighSurrogate(*unit)) {
      const bool escapeFollows = text_.substr(pos_, 2) == "\\U" || text_.substr(pos_, 2) == "\\u";
      if (!escapeFollows) return false;
      pos_ += 2;
      std::optional<uint32_t> low = ParseHexUnit();
      if (!low || !IsLowSurrogate(*low)) return false;
      unit = CombineSurrogates(*unit, *low);
    }
    AppendUtf8(*unit, out);
    return true;
  }

  std::string_view text_;
  size_t pos_ = 0;
};

}  // namespace

std::error_code ParseStringsTable(std::string_view text, StringsTable& table) {
  std::optional<std::string> utf8 = ToUtf8(text);
  if (!utf8) return make_error_code(kInvalidData);
  StringsTable parsed;
  if (!Parser(*utf8).ParseTable(parsed)) return make_error_code(kInvalidData);
  table = std::move(parsed);
  return make_error_code(kSuccess);
}

std::error_code ReadStringsTable(const std::string& path, StringsTable& table) {
  std::string bytes;
  const std::error_code rc = ReadBoundedFile(path, kMaxTableFile, bytes);
  if (!Succeeded(rc)) return rc;
  return ParseStringsTable(bytes, table);
}

}  // namespace QelSS
