#pragma once

// The binary wire form of messaging objects: what travels inside a frame
// between a process and the settings service. Every kind but the error objects
// has an exact form (int64 and uint64 stay distinct; null, dates and UUIDs
// travel as themselves), and the reader trusts nothing: lengths, counts,
// nesting and the number of objects are checked against the named limits
// before anything is allocated for them. The grammar is at the top of
// XpcWire.cc.

#include <cstddef>
#include <cstdint>
#include <span>
#include <system_error>
#include <vector>

#include "qelss/platform/xpc.h"

namespace QelSS::xpc {

// Deep enough for the deepest key path a domain may hold (197 levels) inside
// the envelope of a message (the outer dictionary, the command, the
// transaction record, its change array, one change record).
inline constexpr size_t kMaxWireDepth = 256;
// Objects in one message. A domain file of the largest size holds fewer: its
// smallest element takes several bytes of text.
inline constexpr size_t kMaxWireObjects = 8'000'000;

// Appends the wire form of `object` to `out`. kInvalidArgument for NULL, for an
// error object, or for a tree deeper than kMaxWireDepth; `out` then keeps what
// it held before.
[[nodiscard]] std::error_code EncodeWire(xpc_object_t object, std::vector<uint8_t>& out);

// Rebuilds the object whose wire form is exactly `bytes` (nothing may follow
// it). On success `out` owns a new reference. kInvalidData for anything
// malformed: an unknown tag, a length or count beyond the bytes present, a
// string with a NUL inside, dictionary keys not strictly ascending, a tree
// deeper than kMaxWireDepth or holding more than kMaxWireObjects objects.
// kAllocationFailed when memory runs out.
[[nodiscard]] std::error_code DecodeWire(std::span<const uint8_t> bytes, xpc_object_t& out);

}  // namespace QelSS::xpc
