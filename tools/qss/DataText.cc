#include "DataText.h"

#include <vector>

#include "qelss/values/DataFactory.h"

namespace QelSS::Qss {
namespace {

constexpr std::string_view kHexPrefix = "hex:";
constexpr std::string_view kBase64Prefix = "base64:";
constexpr char kHexDigits[] = "0123456789abcdef";

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

Status BadData(const std::string& why, std::error_code code = make_error_code(kInvalidArgument)) {
  return Status::Usage("the data value " + why, code,
                       "give data as hexadecimal digits (0aff10) or as base64:TEXT");
}

Status ParseHex(std::string_view digits, std::shared_ptr<IData>& out) {
  if (digits.size() % 2 != 0) return BadData("has an odd number of hexadecimal digits");
  std::vector<unsigned char> bytes;
  bytes.reserve(digits.size() / 2);
  for (size_t i = 0; i < digits.size(); i += 2) {
    const int high = HexValue(digits[i]);
    const int low = HexValue(digits[i + 1]);
    if (high < 0 || low < 0) return BadData("holds a character that is not a hexadecimal digit");
    bytes.push_back(static_cast<unsigned char>(high * 16 + low));
  }
  static const unsigned char kNoBytes = 0;
  const std::error_code made =
      DataFactory::Create(out, bytes.empty() ? &kNoBytes : bytes.data(), bytes.size());
  if (!Succeeded(made)) return Status::Failure("cannot make the data value", made, "");
  return Status::Ok();
}

bool IsBase64Character(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
         c == '/' || c == '=' || c == ' ' || c == '\n' || c == '\t' || c == '\r';
}

// The text goes into a Data element of the byte form; checking the alphabet
// first keeps it from being read as markup.
Status ParseBase64(std::string_view text, std::shared_ptr<IData>& out) {
  for (char c : text) {
    if (!IsBase64Character(c)) return BadData("holds a character that base64 does not use");
  }
  std::string element = "<Data>";
  element.append(text);
  element += "</Data>";
  const std::vector<unsigned char> bytes(element.begin(), element.end());
  const std::error_code read = DataFactory::CreateFromBytes(out, bytes);
  if (!Succeeded(read)) return BadData("is not valid base64", read);
  return Status::Ok();
}

}  // namespace

Status ParseData(std::string_view text, std::shared_ptr<IData>& out) {
  if (text.starts_with(kBase64Prefix)) return ParseBase64(text.substr(kBase64Prefix.size()), out);
  if (text.starts_with(kHexPrefix)) text.remove_prefix(kHexPrefix.size());
  return ParseHex(text, out);
}

std::string FormatData(const IData& data) {
  std::string text;
  text.reserve(data.GetLength() * 2);
  const unsigned char* bytes = data.GetBytes();
  for (size_t i = 0; i < data.GetLength(); ++i) {
    text += kHexDigits[bytes[i] >> 4];
    text += kHexDigits[bytes[i] & 0x0f];
  }
  return text;
}

}  // namespace QelSS::Qss
