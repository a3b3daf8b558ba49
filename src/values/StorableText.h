#pragma once

// What a domain can keep. Its file holds XML, which carries only valid UTF-8
// of the characters XML allows, and whose reader stops at a nesting depth; a
// value beyond either would make the whole file unreadable.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <system_error>

#include "qelss/values/IValue.h"

namespace QelSS {

// Levels a committed value may sit below the top of its domain's file,
// counting its key path; well inside the XML reader's own limit of 256.
inline constexpr int kMaxStorableDepth = 200;

struct Utf8Char {
  uint32_t code = 0;
  size_t length = 0;  // 0: not a complete, shortest-form sequence
};

// The character whose UTF-8 sequence starts at `bytes[at]`.
Utf8Char DecodeUtf8(std::span<const uint8_t> bytes, size_t at);

// The characters XML 1.0 allows.
bool IsXmlChar(uint32_t code);

// Valid UTF-8 made only of characters XML allows.
bool IsStorableText(std::string_view text);

// kSuccess, or kInvalidArgument when `value` holds text a domain cannot keep
// (in a string or in a hash key) or nests more than `levels` levels deep (a
// scalar takes one level, each container one more).
[[nodiscard]] std::error_code CheckStorable(const std::shared_ptr<IValue>& value, int levels);

}  // namespace QelSS
