#pragma once

// The byte form written and read the plain way: every element goes through its
// own libxml2 text writer, and every child of a container is written back to
// bytes and parsed again on its own before it is read (each nested container
// is read twice, so the cost doubles with every level of nesting). These
// functions define what the byte form means; ByteForm.h gives the same
// results in one pass (except where this reader would take weeks), and
// uses convertXMLNodeToBytes for the rare element whose rewrite is large enough
// to meet libxml2's limits. Tests and fuzz targets compare the two.
//
// None of these throws: exceptions are reported under component tag "QSSH"
// (severity 1) and give kFailure. Outputs are written only on success.

#include "platform/xml/Xml.h"

#include <cstdint>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "qelss/values/IArray.h"
#include "qelss/values/IHash.h"
#include "qelss/values/IValue.h"

namespace QelSS::byteform {

// The byte form of `value`: kInvalidArgument for a null pointer,
// kSerializationError when libxml2 fails, a getter's code when a value cannot
// give its content, kFailure for a value whose interface does not match its tag.
[[nodiscard]] std::error_code WriteValueReference(const std::shared_ptr<IValue>& value,
                                                  std::vector<uint8_t>& out) noexcept;

// The container writers: the children's byte forms, inserted raw between a
// start and an end tag named `name`. A child (or hash entry) that cannot be
// written ends the container there, and the container is still written, with
// success.
[[nodiscard]] std::error_code writeArraytoXML(std::shared_ptr<IArray>& array, std::string name,
                                              std::vector<uint8_t>& out) noexcept;
[[nodiscard]] std::error_code writeHashtoXML(std::shared_ptr<IHash>& hash, std::string name,
                                             std::vector<uint8_t>& out) noexcept;

// Reads a value tree from a byte form (no size limit: ReadByteForm applies it).
// kInvalidArgument for no bytes, kSerializationError when they are not one XML
// element, kFailure for an unknown element name or an unconvertible number or
// date, kInvalidData for a hash whose last key has no value, and the value
// factories' and containers' codes. kSuccess with `out` empty for a number of
// unknown kind.
[[nodiscard]] std::error_code ReadValueReference(const uint8_t* data, size_t size,
                                                 std::shared_ptr<IValue>& out) noexcept;

// Turns one parsed element back into a byte form: a container is read (its
// children through this same function) and written again; any other element
// is rewritten with its name, its first attribute (renamed "type") and its
// whole text content. kInvalidArgument for a null node.
[[nodiscard]] std::error_code convertXMLNodeToBytes(const xmlNode* node,
                                                    std::vector<uint8_t>& out) noexcept;

// ReadByteForm's checks on the input (none, or more than kMaxByteFormSize),
// then ReadValueReference: the reference for ReadByteForm as a whole.
[[nodiscard]] std::error_code ReadByteFormReference(const std::vector<uint8_t>& bytes,
                                                    std::shared_ptr<IValue>& out) noexcept;

}  // namespace QelSS::byteform
