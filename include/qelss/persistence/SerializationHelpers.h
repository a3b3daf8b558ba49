#pragma once

#include <system_error>
#include <vector>

#include "qelss/Export.h"

namespace QelSS::serialization_helpers {

// Re-indents a byte form (the bytes of IValue::Serialize) for people to read:
// an XML declaration, then one element per line, nested elements indented.
// Elements that hold text stay on one line; input that already holds blanks
// between elements keeps them as they are.
//
// On success `output` is replaced and the result is kSuccess. kInvalidArgument
// for empty input; kSerializationError when the input is not one XML element
// (or declares entities, or is larger than a domain file may be: 32,000,000
// bytes), or libxml2 cannot dump it; `output` is then untouched.
// Thread-safe.
[[nodiscard]] QELSS_EXPORT std::error_code FormatBytes(const std::vector<unsigned char>& input,
                                                       std::vector<unsigned char>& output);

}  // namespace QelSS::serialization_helpers
