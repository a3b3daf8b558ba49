#pragma once

// Reads a byte form while libxml2 parses it, without building its tree: the
// same results as ByteFormReader.h (and so as the reference reader) for the
// documents it takes, which are the plain, well-formed ones that read without
// a failure and whose rewrites stay far from libxml2's limits. Everything else
// (an unusual construct, a failure, a large rewrite) it leaves to the tree
// reader, which decides the result and makes the reports. A domain file is
// read this way once per opening, and the tree was most of that time.

#include <cstddef>
#include <cstdint>
#include <memory>

#include "qelss/values/IValue.h"

namespace QelSS::byteform {

// True with the value in `out` when the document was read; false, with `out`
// untouched and nothing reported, when the caller must read it with the tree
// reader.
[[nodiscard]] bool StreamPlainByteForm(const uint8_t* data, size_t size,
                                       std::shared_ptr<IValue>& out) noexcept;

}  // namespace QelSS::byteform
