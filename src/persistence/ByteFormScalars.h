#pragma once

// The text of scalar elements, shared by every writer and reader of the byte
// form so that they cannot drift apart:
//
//   Number := <Number type="int">%lld</Number>     int64
//           | <Number type="uint">%llu</Number>    uint64
//           | <Number type="bool">%d</Number>      1 or 0
//           | <Number type="double">%f</Number>    six decimals, lossy on purpose
//   Date   := <Date>%ld</Date>                     IDate::GetTime() as a long
//
// Reading accepts more than this: the Number kind is taken from the first
// attribute whatever its name, and the conversions are those of std::stoll,
// std::stoull, std::stoi, std::stod and std::stol (leading blanks and trailing
// garbage allowed; no digits or out of range throws).

#include "platform/xml/Xml.h"

#include <cstdint>
#include <memory>
#include <system_error>

#include "qelss/values/IDate.h"
#include "qelss/values/INumber.h"
#include "qelss/values/IValue.h"

namespace QelSS::byteform {

struct NumberText {
  const char* kind = nullptr;  // "int", "uint", "bool" or "double"
  char digits[400] = {};       // enough for "%f" of the largest double
};

// kSuccess, or the code of the failing getter; kFailure when the number claims
// a kind that is none of the four.
[[nodiscard]] std::error_code FormatNumber(const INumber& number, NumberText& out);

struct DateText {
  char digits[24] = {};
};

void FormatDate(const IDate& date, DateText& out);

// Makes the scalar that an element of kind `type` (a scalar tag) with this
// first-attribute text and content stands for. `attribute` is used by numbers
// only; a number whose attribute names no known kind gives kSuccess and leaves
// `out` empty. Conversions throw as described above; other failures:
// kSerializationError for data that is not base64, kInvalidData for a UUID that
// is not in its canonical form, and the factories' own codes.
[[nodiscard]] std::error_code ScalarFromText(uint32_t type, const char* attribute,
                                             const char* content, std::shared_ptr<IValue>& out);

// Reads a scalar element of kind `type` straight from the parsed tree: a Number
// without attributes gives kFailure, missing content kSerializationError, and
// then as ScalarFromText. Null elements ignore content and attributes.
[[nodiscard]] std::error_code ReadScalarElement(const xmlNode* node, uint32_t type,
                                                std::shared_ptr<IValue>& out);

}  // namespace QelSS::byteform
