#pragma once

// The byte form of values (the XML text that domain files and predefined
// domains carry) is written and read by the persistence layer, which sits above
// the value model and builds on it. Values reach it only through this hook, so
// that the value model never depends on persistence: persistence installs its
// codec once, and Serialize / CreateFromBytes answer kNotImplemented until then.

#include <cstdint>
#include <memory>
#include <system_error>
#include <vector>

#include "qelss/values/IValue.h"

namespace QelSS {

struct ByteFormCodec {
  // Writes the byte form of `value` into `bytes`. The caller hands over a value
  // of its own (a clone) and an empty scratch vector, and keeps the bytes only
  // when the result is kSuccess.
  std::error_code (*serialize)(const std::shared_ptr<IValue>& value, std::vector<uint8_t>& bytes);
  // Reads one value tree from `bytes` into `value`. kSuccess with an empty
  // `value` is allowed: the bytes held nothing the reader could make a value of.
  std::error_code (*deserialize)(const std::vector<uint8_t>& bytes, std::shared_ptr<IValue>& value);
};

// Makes `codec` the one every later Serialize and CreateFromBytes uses; nullptr
// removes it. The codec must stay valid while installed (keep it static). Safe
// to call from any thread, though a codec is meant to be installed once at
// start-up.
void InstallByteFormCodec(const ByteFormCodec* codec) noexcept;

// The installed codec, or nullptr.
const ByteFormCodec* InstalledByteFormCodec() noexcept;

}  // namespace QelSS
