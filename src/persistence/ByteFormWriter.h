#pragma once

// Writes byte forms into one growing buffer, emitting exactly the bytes that
// the element-by-element libxml2 writer of ByteFormReference.h produces,
// including its escaping, its base64 line breaks and its way of cutting a
// container short when a child cannot be written.

#include <cstdint>
#include <memory>
#include <system_error>
#include <unordered_map>
#include <vector>

#include "qelss/values/IValue.h"

namespace QelSS::byteform {

// Appends the byte form of `value` to `out`. On failure `out` may hold part of
// it; the caller cuts it back. Exceptions are reported ("QSSH") and give
// kFailure, as they would for one element of the reference writer.
[[nodiscard]] std::error_code AppendByteForm(const std::shared_ptr<IValue>& value,
                                             std::vector<uint8_t>& out) noexcept;

// Byte forms already written for containers of a tree, which are copied
// instead of being written again. They must be what writing them would give.
using WrittenContainers = std::unordered_map<std::shared_ptr<IValue>, std::vector<uint8_t>>;

// As above, copying the byte form of any container found in `written`.
[[nodiscard]] std::error_code AppendByteForm(const std::shared_ptr<IValue>& value,
                                             std::vector<uint8_t>& out,
                                             const WrittenContainers& written) noexcept;

}  // namespace QelSS::byteform
