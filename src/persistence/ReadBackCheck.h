#pragma once

// The writer puts into the byte form whatever a tree holds, but the reader
// refuses some of it: text that XML cannot carry (control characters, bytes
// that are not UTF-8), nesting deeper than libxml2 allows, text nodes beyond
// its size limits. A domain file made of such bytes would cost the whole
// domain at its next reading, so it is never written.

#include <cstdint>
#include <span>
#include <system_error>
#include <vector>

namespace QelSS {

// kSuccess when the reader accepts `bytes`, else the reader's code
// (kSerializationError). Bytes made of plain text within modest nesting and
// size are accepted without reading; anything else is read back in full, so
// the answer is always the reader's own.
[[nodiscard]] std::error_code CheckReadBack(const std::vector<uint8_t>& bytes);

// True when `bytes` are, beyond doubt, within what the reader accepts: valid
// UTF-8 of characters XML allows, at most kPlainDepth levels deep and at most
// kPlainSize bytes long. Exposed for tests.
[[nodiscard]] bool IsPlainByteForm(std::span<const uint8_t> bytes);

inline constexpr size_t kPlainSize = 8'000'000;
inline constexpr int kPlainDepth = 100;

}  // namespace QelSS
