#include "ValueParser.h"

#include <array>
#include <cctype>
#include <charconv>
#include <cstdint>

#include "ByteFormText.h"
#include "DataText.h"
#include "DateText.h"
#include "qelss/values/DateFactory.h"
#include "qelss/values/IArray.h"
#include "qelss/values/IHash.h"
#include "qelss/values/NullFactory.h"
#include "qelss/values/NumberFactory.h"
#include "qelss/values/StringFactory.h"
#include "qelss/values/UUIDFactory.h"

namespace QelSS::Qss {
namespace {

std::error_code BadArgument() { return make_error_code(kInvalidArgument); }

Status BadValue(std::string_view type, const std::string& text, const std::string& expected) {
  return Status::Usage("\"" + text + "\" is not a valid " + std::string(type) + " value",
                       BadArgument(), "give " + expected);
}

// Hands a typed value out as a generic one, or reports the factory's failure.
template <typename T>
Status Made(std::error_code made, std::shared_ptr<T>& value, std::shared_ptr<IValue>& out) {
  if (!Succeeded(made)) return Status::Failure("cannot make the value", made, "");
  out = std::move(value);
  return Status::Ok();
}

template <typename Integer>
std::optional<Integer> ParseInteger(const std::string& text) {
  Integer value{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

Status ParseNumber(std::string_view type, const std::string& text, std::shared_ptr<IValue>& out) {
  std::shared_ptr<INumber> number;
  if (type == "int") {
    const auto value = ParseInteger<long long>(text);
    if (!value) {
      return BadValue(type, text,
                      "a whole number from -9223372036854775808 to 9223372036854775807");
    }
    return Made(NumberFactory::Create(number, *value), number, out);
  }
  if (type == "uint") {
    const auto value = ParseInteger<unsigned long long>(text);
    if (!value) return BadValue(type, text, "a whole number from 0 to 18446744073709551615");
    return Made(NumberFactory::Create(number, *value), number, out);
  }
  double value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || error != std::errc() || end != text.data() + text.size()) {
    return BadValue(type, text, "a decimal number such as 0.25 or 1.5e3");
  }
  return Made(NumberFactory::Create(number, value), number, out);
}

std::optional<bool> ParseBool(const std::string& text) {
  std::string lower;
  for (char c : text) lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (lower == "true" || lower == "yes" || lower == "on" || lower == "1") return true;
  if (lower == "false" || lower == "no" || lower == "off" || lower == "0") return false;
  return std::nullopt;
}

std::optional<UUIDBytes> ParseUuid(const std::string& text) {
  static constexpr std::array<size_t, 4> kDashes = {8, 13, 18, 23};
  if (text.size() != 36) return std::nullopt;
  UUIDBytes bytes{};
  size_t byte = 0;
  for (size_t i = 0; i < text.size();) {
    if (i == kDashes[0] || i == kDashes[1] || i == kDashes[2] || i == kDashes[3]) {
      if (text[i++] != '-') return std::nullopt;
      continue;
    }
    unsigned value = 0;
    const auto [end, error] = std::from_chars(text.data() + i, text.data() + i + 2, value, 16);
    if (error != std::errc() || end != text.data() + i + 2) return std::nullopt;
    bytes[byte++] = static_cast<uint8_t>(value);
    i += 2;
  }
  return bytes;
}

Status ParseContainer(std::string_view type, const std::string& text,
                      std::shared_ptr<IValue>& out) {
  std::shared_ptr<IValue> value;
  Status read = ReadByteForm(text, "VALUE", value);
  if (!read.ok()) return read.AsUsage();
  const uint32_t wanted = type == "hash" ? kValueTypeHash : kValueTypeArray;
  if (value->GetType() != wanted) {
    return Status::Usage("VALUE is not " + std::string(type == "hash" ? "a hash" : "an array"),
                         make_error_code(kInvalidData),
                         "give the XML byte form of one " + std::string(type) + ", such as <" +
                             (type == "hash" ? "Hash" : "Array") + "></" +
                             (type == "hash" ? "Hash" : "Array") + ">");
  }
  out = std::move(value);
  return Status::Ok();
}

Status ParseScalar(std::string_view type, const std::string& text, std::shared_ptr<IValue>& out) {
  if (type == "int" || type == "uint" || type == "double") return ParseNumber(type, text, out);
  if (type == "bool") {
    const auto value = ParseBool(text);
    if (!value) return BadValue(type, text, "true or false (also yes/no, on/off, 1/0)");
    std::shared_ptr<INumber> number;
    return Made(NumberFactory::Create(number, *value), number, out);
  }
  if (type == "string") {
    if (!IsStorableText(text)) {
      return Status::Usage("the string holds bytes a domain cannot keep", BadArgument(),
                           "give UTF-8 text without control characters other than tab and "
                           "line breaks; store raw bytes as data");
    }
    std::shared_ptr<IString> string;
    return Made(StringFactory::Create(string, text), string, out);
  }
  if (type == "date") {
    const auto seconds = ParseDate(text);
    if (!seconds) {
      return BadValue(type, text,
                      "seconds since 1970 or an ISO 8601 UTC time such as 2024-05-01T12:30:00Z");
    }
    // A domain file keeps whole seconds as its date reader gives them out,
    // unsigned, so an earlier date would come back as a very late one.
    std::shared_ptr<IDate> date;
    const std::error_code made = *seconds < 0
                                     ? make_error_code(kInvalidArgument)
                                     : DateFactory::Create(date, static_cast<long>(*seconds));
    if (made == make_error_code(kInvalidArgument)) {
      return Status::Usage("the date " + text + " is out of range", made,
                           "give a date from 1970-01-01 to 2262-04-11");
    }
    return Made(made, date, out);
  }
  if (type == "uuid") {
    const auto bytes = ParseUuid(text);
    if (!bytes) return BadValue(type, text, "a UUID such as 0F8A2C3E-4B5D-4E6F-8091-A2B3C4D5E6F7");
    std::shared_ptr<IUUID> uuid;
    return Made(UUIDFactory::Create(uuid, *bytes), uuid, out);
  }
  if (type == "data") {
    std::shared_ptr<IData> data;
    Status parsed = ParseData(text, data);
    if (!parsed.ok()) return parsed;
    out = std::move(data);
    return Status::Ok();
  }
  return ParseContainer(type, text, out);
}

bool IsKnownType(std::string_view type) {
  static constexpr std::array<std::string_view, 11> kTypes = {
      "int", "uint", "double", "bool", "string", "data", "date", "uuid", "null", "hash", "array"};
  for (std::string_view known : kTypes) {
    if (known == type) return true;
  }
  return false;
}

// Length of the UTF-8 sequence that starts with `lead`, or 0 for a byte that
// cannot start one.
size_t SequenceLength(unsigned char lead) {
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead <= 0xDF) return 2;
  if (lead >= 0xE0 && lead <= 0xEF) return 3;
  if (lead >= 0xF0 && lead <= 0xF4) return 4;
  return 0;
}

bool IsXmlCharacter(uint32_t c) {
  if (c < 0x20) return c == 0x09 || c == 0x0A || c == 0x0D;
  if (c >= 0xD800 && c <= 0xDFFF) return false;
  return c != 0xFFFE && c != 0xFFFF && c <= 0x10FFFF;
}

}  // namespace

bool IsStorableText(std::string_view text) {
  for (size_t i = 0; i < text.size();) {
    const auto lead = static_cast<unsigned char>(text[i]);
    const size_t length = SequenceLength(lead);
    if (length == 0 || i + length > text.size()) return false;
    uint32_t c = length == 1 ? lead : lead & (0x7F >> length);
    for (size_t k = 1; k < length; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      c = (c << 6) | (next & 0x3F);
    }
    // Overlong forms of three- and four-byte sequences decode below their range.
    if ((length == 3 && c < 0x800) || (length == 4 && c < 0x10000)) return false;
    if (!IsXmlCharacter(c)) return false;
    i += length;
  }
  return true;
}

Status ParseValue(std::string_view type, const std::optional<std::string>& text,
                  std::shared_ptr<IValue>& out) {
  if (!IsKnownType(type)) {
    return Status::Usage("unknown type \"" + std::string(type) + "\"", BadArgument(),
                         std::string("TYPE is one of ") + kValueTypeHelp);
  }
  if (type == "null") {
    if (text) {
      return Status::Usage("a null value takes no VALUE", BadArgument(),
                           "write it as `qss write DOMAIN KEYPATH null`");
    }
    std::shared_ptr<INull> null;
    return Made(NullFactory::Create(null), null, out);
  }
  if (!text) {
    return Status::Usage("missing VALUE for type " + std::string(type), BadArgument(),
                         "write it as `qss write DOMAIN KEYPATH " + std::string(type) + " VALUE`");
  }
  return ParseScalar(type, *text, out);
}

}  // namespace QelSS::Qss
