#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Status.h"
#include "qelss/values/IValue.h"

namespace QelSS::Qss {

// The TYPE words of `qss write`, and how VALUE is read for each:
//   int     signed 64-bit decimal          uint    unsigned 64-bit decimal
//   double  decimal or exponent form       bool    true/false, yes/no, on/off, 1/0
//   string  the text as it stands          data    hex digits, or base64:TEXT
//   date    seconds since 1970, or ISO 8601 UTC (2024-05-01T12:30:00Z)
//   uuid    8-4-4-4-12 hexadecimal         null    no VALUE
//   hash, array   the XML byte form of the value
inline constexpr const char* kValueTypeHelp =
    "int, uint, double, bool, string, data, date, uuid, null, hash or array";

// Makes the value that TYPE and VALUE describe. A wrong TYPE, a missing or
// superfluous VALUE, or a VALUE that does not parse is a usage failure that
// says what was expected; `out` is then untouched.
Status ParseValue(std::string_view type, const std::optional<std::string>& text,
                  std::shared_ptr<IValue>& out);

// True when `text` can be kept in a domain file and read back unchanged: valid
// UTF-8 made only of characters XML carries (no control characters but tab,
// line feed and carriage return). Key path components and string values must
// be; anything else would make the domain file unreadable.
bool IsStorableText(std::string_view text);

}  // namespace QelSS::Qss
