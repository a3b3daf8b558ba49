#pragma once

// Small scalars carried in the object pointer itself.
//
// Settings trees are mostly small numbers, and a heap object per number costs
// a 32-byte allocation and two atomic operations per copy. An int64, uint64,
// double or date whose value fits is therefore not allocated: its
// xpc_object_t is a tagged word. Real objects are at least 8-byte aligned, so
// their low three bits are clear; a tagged word has bit 0 set:
//
//   bit 0      1
//   bits 1-2   kind: 0 int64, 1 uint64, 2 double, 3 date
//   bits 3-63  payload
//
// What fits, per kind (the rules make the encoding canonical: a value that
// fits is always tagged, so a tagged and a heap object never hold one value):
//   int64   -2^60 <= value < 2^60; payload = value (two's complement, 61 bits)
//   uint64  value < 2^61; payload = value
//   double  the low three bits of its IEEE representation are zero (every
//           integer up to 2^50, halves, quarters, ...); payload = bits 3-63
//   date    nanoseconds that are a multiple of 8 (every date made from whole
//           seconds); payload = bits 3-63. A range rule like int64's would miss
//           every date after 2006.
//
// A tagged word must never be dereferenced: every function that reads an
// object's header asks IsTagged first. Retain and release are no-ops on it,
// and xpc_copy answers it unchanged.

#include <bit>
#include <cstdint>

#include "qelss/platform/xpc.h"

namespace QelSS::xpc {

enum class TaggedKind : uintptr_t { kInt64 = 0, kUInt64 = 1, kDouble = 2, kDate = 3 };

inline constexpr uintptr_t kTaggedBit = 1;
inline constexpr unsigned kTaggedKindShift = 1;
inline constexpr uintptr_t kTaggedKindMask = uintptr_t{3} << kTaggedKindShift;
inline constexpr unsigned kTaggedPayloadShift = 3;
inline constexpr uintptr_t kTaggedLowBits = (uintptr_t{1} << kTaggedPayloadShift) - 1;

static_assert(sizeof(uintptr_t) == 8, "tagged scalars need 64-bit pointers");

inline uintptr_t WordOf(xpc_object_t object) noexcept {
  return reinterpret_cast<uintptr_t>(object);
}

inline bool IsTagged(xpc_object_t object) noexcept { return (WordOf(object) & kTaggedBit) != 0; }

inline TaggedKind TaggedKindOf(xpc_object_t object) noexcept {
  return static_cast<TaggedKind>((WordOf(object) & kTaggedKindMask) >> kTaggedKindShift);
}

// `bits` must have its low three bits clear.
inline xpc_object_t MakeTagged(TaggedKind kind, uint64_t bits) noexcept {
  return reinterpret_cast<xpc_object_t>(bits | (static_cast<uintptr_t>(kind) << kTaggedKindShift) |
                                        kTaggedBit);
}

// The payload with the tag bits cleared.
inline uint64_t TaggedBits(xpc_object_t object) noexcept {
  return WordOf(object) & ~kTaggedLowBits;
}

// Each Tag* function answers NULL when the value does not fit.
inline xpc_object_t TagInt64(int64_t value) noexcept {
  constexpr int64_t kLimit = int64_t{1} << 60;
  if (value < -kLimit || value >= kLimit) return nullptr;
  return MakeTagged(TaggedKind::kInt64, static_cast<uint64_t>(value) << kTaggedPayloadShift);
}

inline xpc_object_t TagUInt64(uint64_t value) noexcept {
  if (value >= uint64_t{1} << 61) return nullptr;
  return MakeTagged(TaggedKind::kUInt64, value << kTaggedPayloadShift);
}

inline xpc_object_t TagDouble(double value) noexcept {
  const auto bits = std::bit_cast<uint64_t>(value);
  if ((bits & kTaggedLowBits) != 0) return nullptr;
  return MakeTagged(TaggedKind::kDouble, bits);
}

inline xpc_object_t TagDate(int64_t nanoseconds) noexcept {
  const auto bits = static_cast<uint64_t>(nanoseconds);
  if ((bits & kTaggedLowBits) != 0) return nullptr;
  return MakeTagged(TaggedKind::kDate, bits);
}

// Readers; the caller has checked the kind.
inline int64_t UntagInt64(xpc_object_t object) noexcept {
  // Arithmetic shift: negative numbers come back sign-extended.
  return static_cast<int64_t>(TaggedBits(object)) >> kTaggedPayloadShift;
}

inline uint64_t UntagUInt64(xpc_object_t object) noexcept {
  return TaggedBits(object) >> kTaggedPayloadShift;
}

inline double UntagDouble(xpc_object_t object) noexcept {
  return std::bit_cast<double>(TaggedBits(object));
}

inline int64_t UntagDate(xpc_object_t object) noexcept {
  return static_cast<int64_t>(TaggedBits(object));
}

}  // namespace QelSS::xpc
