#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace QelSS::Qss {

// Dates on the command line, in UTC: whole seconds since 1970 ("1700000000"),
// a day ("2024-05-01", midnight), or a time ("2024-05-01T12:30:00Z",
// seconds optional). Nothing else: no fractions, no other zones. Empty when the
// text is none of these or names an impossible day or time.
std::optional<int64_t> ParseDate(std::string_view text);

// "2024-05-01T12:30:00Z": the form ParseDate reads back.
std::string FormatDate(int64_t secondsSince1970);

}  // namespace QelSS::Qss
