#pragma once

// Memory layout of the variant's objects. Every object starts with the common
// header; the kind's payload follows. Strings and data keep their bytes in the
// same allocation, right after the header struct, so a scalar costs one
// allocation. Immortal objects (null, true, false, the error objects) live in
// static storage and ignore reference counting. Small numbers and dates are
// not objects at all but tagged words (XpcTagged.h): nothing here may read the
// header of an xpc_object_t before IsTagged has said no; As() does that check.

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/xpc/XpcTagged.h"
#include "qelss/platform/xpc.h"

namespace QelSS::xpc {
enum class Kind {
  kNull,
  kBool,
  kInt64,
  kUInt64,
  kDouble,
  kString,
  kData,
  kDate,
  kUuid,
  kArray,
  kDictionary,
  kError
};
}  // namespace QelSS::xpc

struct _xpc_type_s {
  const char* name;
  QelSS::xpc::Kind kind;
};

struct _xpc_object_s {
  constexpr _xpc_object_s(xpc_type_t kind, bool isImmortal) noexcept
      : type(kind), refs(1), immortal(isImmortal) {}

  const xpc_type_t type;
  std::atomic<uint32_t> refs;
  const bool immortal;
};

namespace QelSS::xpc {

template <typename T>
struct Scalar : _xpc_object_s {
  constexpr Scalar(xpc_type_t kind, T v, bool isImmortal = false) noexcept
      : _xpc_object_s(kind, isImmortal), value(v) {}
  const T value;
};

using Bool = Scalar<bool>;
using Int64 = Scalar<int64_t>;
using UInt64 = Scalar<uint64_t>;
using Double = Scalar<double>;
using Date = Scalar<int64_t>;

// Strings and data: `length` payload bytes follow the struct (strings add a NUL).
struct Bytes : _xpc_object_s {
  Bytes(xpc_type_t kind, size_t size) noexcept : _xpc_object_s(kind, false), length(size) {}
  char* payload() noexcept { return reinterpret_cast<char*>(this + 1); }
  const size_t length;
};

struct Uuid : _xpc_object_s {
  Uuid() noexcept : _xpc_object_s(XPC_TYPE_UUID, false) {}
  uint8_t bytes[16] = {};
};

struct Array : _xpc_object_s {
  Array() noexcept : _xpc_object_s(XPC_TYPE_ARRAY, false) {}
  std::mutex mutex;
  std::vector<xpc_object_t> items;  // each holds one reference
};

struct Dictionary : _xpc_object_s {
  Dictionary() noexcept : _xpc_object_s(XPC_TYPE_DICTIONARY, false) {}
  std::mutex mutex;
  std::map<std::string, xpc_object_t, std::less<>> entries;  // values hold one reference
};

// The heap object behind `object` when it is one of `kind`; NULL for NULL, for
// another kind and for a tagged word.
template <typename T>
T* As(xpc_object_t object, xpc_type_t kind) noexcept {
  return object != nullptr && !IsTagged(object) && object->type == kind ? static_cast<T*>(object)
                                                                        : nullptr;
}

// The value of a number or date, tagged or on the heap. The caller has checked
// the kind: int64 and date for the first, uint64 and double for the others.
// Inline: equality and the getters of every number go through them.
inline int64_t SignedValueOf(xpc_object_t object) noexcept {
  if (IsTagged(object)) {
    return TaggedKindOf(object) == TaggedKind::kDate ? UntagDate(object) : UntagInt64(object);
  }
  return static_cast<Int64*>(object)->value;
}

inline uint64_t UnsignedValueOf(xpc_object_t object) noexcept {
  return IsTagged(object) ? UntagUInt64(object) : static_cast<UInt64*>(object)->value;
}

inline double DoubleValueOf(xpc_object_t object) noexcept {
  return IsTagged(object) ? UntagDouble(object) : static_cast<Double*>(object)->value;
}

// Referenced elements of a container taken under its lock, so that the caller
// can walk, compare or copy them without holding the lock.
std::vector<xpc_object_t> SnapshotArray(Array& array);
std::vector<std::pair<std::string, xpc_object_t>> SnapshotDictionary(Dictionary& dictionary);
void ReleaseAll(const std::vector<xpc_object_t>& objects) noexcept;
void ReleaseAll(const std::vector<std::pair<std::string, xpc_object_t>>& entries) noexcept;

// Frees a container's storage once its last reference is gone.
void DestroyArray(Array* array) noexcept;
void DestroyDictionary(Dictionary* dictionary) noexcept;
xpc_object_t CopyArray(Array& array) noexcept;
xpc_object_t CopyDictionary(Dictionary& dictionary) noexcept;

const char* ErrorDescription(xpc_object_t error) noexcept;

}  // namespace QelSS::xpc
