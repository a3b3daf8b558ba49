#pragma once

// The byte form of value trees: the XML text that domain files carry (inside
// their envelope) and that predefined domains are imported from. One element
// per value, nested for containers, no XML declaration, no blanks between tags:
//
//   value  := <NULL/>
//           | <Number type="int|uint|bool|double">digits</Number>
//           | <String>text</String>
//           | <Data>base64, CR LF every 72 characters</Data>
//           | <Date>seconds since 1970</Date>
//           | <UUID>8-4-4-4-12 upper-case hex</UUID>
//           | <Array>value*</Array>
//           | <Hash>(<String>key</String> value)*</Hash>      keys in byte order
//
// Number and Date texts are given in ByteFormScalars.h, escaping in
// XmlEscape.h. Reading is more lenient than writing and has quirks that are
// kept on purpose, because stored files depend on them:
//   - whitespace, comments and other non-element nodes between elements are
//     skipped; a scalar's text is the text of all its descendants;
//   - a Number's kind comes from its first attribute, whatever its name, and a
//     kind other than int, uint, bool or double reads as success with no value;
//   - a Hash ends, successfully, at the first key that is not a String; a last
//     key without a value is refused (kInvalidData);
//   - values inside a container that is itself inside a container come back
//     as if written and read once more: doubles keep six decimals there, and a
//     date before 1970 there fails the read (kInvalidArgument).
//
// Values reach this code through IValue::Serialize and the factories'
// CreateFromBytes (the codec is installed for the whole library); storage and
// tools that hold a tree already may call it directly and skip the clone that
// Serialize makes. Thread-safe; no function throws; outputs are written only
// on success. Unexpected exceptions are reported with component tag "QSSH".

#include <cstddef>
#include <cstdint>
#include <memory>
#include <system_error>
#include <vector>

#include "qelss/values/IValue.h"

namespace QelSS {

// The largest byte form the readers accept: the size limit of a domain file.
// It keeps a hostile input from costing more than a real file can.
inline constexpr size_t kMaxByteFormSize = 32'000'000;

// How much XML the reference reader may need to write and parse for the large
// rewrites of a byte form (those of 9 MB or more) before ReadByteForm refuses
// it. The reference reader rewrites a container nested in other containers
// once per reading of its parent, so its work doubles at every level, where
// ReadByteForm checks each rewrite once. Past this limit (a petabyte; it gets
// through at most a quarter of a gigabyte a second) it would take weeks.
inline constexpr uint64_t kReferenceWorkLimit = uint64_t{1} << 50;

// Replaces `bytes` with the byte form of `value`. kInvalidArgument for a null
// value; a getter's code when a value cannot give its content; kFailure for a
// value whose interface does not match its type tag. A child that cannot be
// written ends its container, which is written with the children before it.
[[nodiscard]] std::error_code WriteByteForm(const std::shared_ptr<IValue>& value,
                                            std::vector<uint8_t>& bytes) noexcept;

// Replaces `value` with a new tree read from `bytes`. kInvalidArgument for no
// bytes; kSerializationError for bytes over kMaxByteFormSize, bytes that are
// not exactly one XML element (or that declare entities), base64 that does not
// decode, text beyond libxml2's limits, or nesting around large content that
// would cost the reference reader more than kReferenceWorkLimit; kFailure for an unknown
// element name or a number or date that does not convert; kInvalidData for a
// hash whose last key has no value or a malformed UUID; the factories' and
// containers' codes otherwise. kSuccess with an empty `value` for a number of unknown kind.
[[nodiscard]] std::error_code ReadByteForm(const std::vector<uint8_t>& bytes,
                                           std::shared_ptr<IValue>& value) noexcept;

}  // namespace QelSS
