#pragma once

// The byte form of values (the XML text that domain files and predefined
// domains carry) is written and read by the persistence layer, which sits above
// the value model and builds on it. Values reach it only through this hook, so
// that no value header or source includes persistence: persistence defines the
// codec declared below, and Serialize / CreateFromBytes answer kNotImplemented
// only while a test has removed it.

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

// The library's own codec. It is defined by the persistence layer and is the
// installed codec from the start: the hook is constant-initialised with its
// address, so no initialiser has to run first, and referring to it here makes
// every program that serialises values also link the persistence code that
// does it (a static link would otherwise leave that object file out).
extern const ByteFormCodec kLibraryByteFormCodec;

// Makes `codec` the one every later Serialize and CreateFromBytes uses; nullptr
// removes it. The codec must stay valid while installed (keep it static). Safe
// to call from any thread, though a codec is meant to be installed once at
// start-up.
void InstallByteFormCodec(const ByteFormCodec* codec) noexcept;

// The installed codec, or nullptr.
const ByteFormCodec* InstalledByteFormCodec() noexcept;

}  // namespace QelSS
