#pragma once

// A dropped file's settings as the list of values an import sets.

#include <cstdint>
#include <string>
#include <system_error>
#include <vector>

#include "qelss/predefine/PreDefineManager.h"

namespace QelSS::predefine {

// Reads `bytes` (a byte form) and lists every leaf of the Hash it holds: each
// value that is not a hash, and each empty hash, under its key path, in the
// hashes' key order. Refusals, with `problem` saying why:
//   the reader's code   the bytes do not parse
//   kInvalidType        the root is not a Hash
//   kInvalidArgument    a key that a key path cannot address (empty, or
//                       holding "/"), or a value a domain cannot keep where
//                       it stands (nested too deep, text it cannot store)
[[nodiscard]] std::error_code ReadLeaves(const std::vector<uint8_t>& bytes,
                                         std::vector<PreDefineManager::Leaf>& leaves,
                                         std::string& problem);

}  // namespace QelSS::predefine
