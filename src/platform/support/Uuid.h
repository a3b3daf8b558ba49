#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace QelSS::platform {

using UuidBytes = std::array<uint8_t, 16>;

// A new random (version 4) UUID. Thread-safe.
UuidBytes NewRandomUuid();

// The canonical text: 36 characters, upper-case hexadecimal in groups 8-4-4-4-12
// separated by "-".
std::string UuidToString(const uint8_t (&bytes)[16]);
std::string UuidToString(const UuidBytes& bytes);

// Parses canonical text in either case. False, with `out` untouched, for
// anything that is not exactly 36 characters of that form.
bool ParseUuid(std::string_view text, UuidBytes& out);

}  // namespace QelSS::platform
