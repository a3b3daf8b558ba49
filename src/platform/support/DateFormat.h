#pragma once

#include <cstdint>
#include <string>

namespace QelSS::platform {

// The date and time in local time, in the long style of the current locale
// (LC_TIME's date-and-time format). A date that local time cannot represent
// gives the seconds in decimal. Thread-safe as long as no thread changes the
// locale or the time zone meanwhile.
std::string FormatLongDateTime(int64_t secondsSince1970);

}  // namespace QelSS::platform
