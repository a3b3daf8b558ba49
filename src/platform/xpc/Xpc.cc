#include <cstring>
#include <functional>
#include <new>
#include <string_view>

#include "platform/xpc/XpcObject.h"

using QelSS::xpc::Kind;

const _xpc_type_s _xpc_type_null{"null", Kind::kNull};
const _xpc_type_s _xpc_type_bool{"bool", Kind::kBool};
const _xpc_type_s _xpc_type_int64{"int64", Kind::kInt64};
const _xpc_type_s _xpc_type_uint64{"uint64", Kind::kUInt64};
const _xpc_type_s _xpc_type_double{"double", Kind::kDouble};
const _xpc_type_s _xpc_type_string{"string", Kind::kString};
const _xpc_type_s _xpc_type_data{"data", Kind::kData};
const _xpc_type_s _xpc_type_date{"date", Kind::kDate};
const _xpc_type_s _xpc_type_uuid{"uuid", Kind::kUuid};
const _xpc_type_s _xpc_type_array{"array", Kind::kArray};
const _xpc_type_s _xpc_type_dictionary{"dictionary", Kind::kDictionary};
const _xpc_type_s _xpc_type_error{"error", Kind::kError};

constinit _xpc_object_s _xpc_error_connection_invalid{XPC_TYPE_ERROR, true};
constinit _xpc_object_s _xpc_error_connection_interrupted{XPC_TYPE_ERROR, true};
constinit _xpc_object_s _xpc_error_termination_imminent{XPC_TYPE_ERROR, true};

namespace QelSS::xpc {
namespace {

// Indexed by TaggedKind.
constexpr xpc_type_t kTaggedTypes[] = {XPC_TYPE_INT64, XPC_TYPE_UINT64, XPC_TYPE_DOUBLE,
                                       XPC_TYPE_DATE};

// Heap objects only.
void Destroy(xpc_object_t object) noexcept {
  switch (object->type->kind) {
    case Kind::kInt64:
    case Kind::kDate:
      delete static_cast<Int64*>(object);
      return;
    case Kind::kUInt64:
      delete static_cast<UInt64*>(object);
      return;
    case Kind::kDouble:
      delete static_cast<Double*>(object);
      return;
    case Kind::kString:
    case Kind::kData: {
      auto* bytes = static_cast<Bytes*>(object);
      bytes->~Bytes();
      ::operator delete(bytes);
      return;
    }
    case Kind::kUuid:
      delete static_cast<Uuid*>(object);
      return;
    case Kind::kArray:
      DestroyArray(static_cast<Array*>(object));
      return;
    case Kind::kDictionary:
      DestroyDictionary(static_cast<Dictionary*>(object));
      return;
    case Kind::kNull:
    case Kind::kBool:
    case Kind::kError:
      return;  // immortal
  }
}

std::string_view TextOf(xpc_object_t object) noexcept {
  auto* bytes = static_cast<Bytes*>(object);
  return {bytes->payload(), bytes->length};
}

bool EqualArrays(Array& a, Array& b) noexcept {
  // Snapshots instead of holding both locks: two threads comparing the same
  // pair in opposite order must not deadlock, and nested containers lock alone.
  auto left = SnapshotArray(a);
  auto right = SnapshotArray(b);
  bool equal = left.size() == right.size();
  for (size_t i = 0; equal && i < left.size(); ++i) equal = xpc_equal(left[i], right[i]);
  ReleaseAll(left);
  ReleaseAll(right);
  return equal;
}

bool EqualDictionaries(Dictionary& a, Dictionary& b) noexcept {
  auto left = SnapshotDictionary(a);
  auto right = SnapshotDictionary(b);
  bool equal = left.size() == right.size();
  for (size_t i = 0; equal && i < left.size(); ++i) {
    equal = left[i].first == right[i].first && xpc_equal(left[i].second, right[i].second);
  }
  ReleaseAll(left);
  ReleaseAll(right);
  return equal;
}

size_t Combine(size_t hash, size_t value) noexcept {
  return hash ^ (value + 0x9e3779b97f4a7c15ULL + (hash << 6) + (hash >> 2));
}

size_t HashArray(Array& array) noexcept {
  auto items = SnapshotArray(array);
  size_t hash = items.size();
  for (xpc_object_t item : items) hash = Combine(hash, xpc_hash(item));
  ReleaseAll(items);
  return hash;
}

size_t HashDictionary(Dictionary& dictionary) noexcept {
  auto entries = SnapshotDictionary(dictionary);
  size_t hash = entries.size();
  for (const auto& [key, value] : entries) {
    hash = Combine(Combine(hash, std::hash<std::string_view>{}(key)), xpc_hash(value));
  }
  ReleaseAll(entries);
  return hash;
}

}  // namespace

const char* ErrorDescription(xpc_object_t error) noexcept {
  if (error == XPC_ERROR_CONNECTION_INVALID) return "Connection invalid";
  if (error == XPC_ERROR_CONNECTION_INTERRUPTED) return "Connection interrupted";
  if (error == XPC_ERROR_TERMINATION_IMMINENT) return "Termination imminent";
  return nullptr;
}

}  // namespace QelSS::xpc

using namespace QelSS::xpc;

xpc_object_t xpc_retain(xpc_object_t object) noexcept {
  if (object != nullptr && !IsTagged(object) && !object->immortal) {
    object->refs.fetch_add(1, std::memory_order_relaxed);
  }
  return object;
}

void xpc_release(xpc_object_t object) noexcept {
  if (object == nullptr || IsTagged(object) || object->immortal) return;
  // acq_rel: the thread that frees must see every write made through the other
  // references before they were dropped.
  if (object->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) Destroy(object);
}

xpc_type_t xpc_get_type(xpc_object_t object) noexcept {
  if (object == nullptr) return nullptr;
  if (IsTagged(object)) return kTaggedTypes[static_cast<size_t>(TaggedKindOf(object))];
  return object->type;
}

const char* xpc_type_get_name(xpc_type_t type) noexcept {
  return type != nullptr ? type->name : "";
}

xpc_object_t xpc_copy(xpc_object_t object) noexcept {
  if (object == nullptr || IsTagged(object)) return object;
  switch (object->type->kind) {
    case Kind::kArray:
      return CopyArray(*static_cast<Array*>(object));
    case Kind::kDictionary:
      return CopyDictionary(*static_cast<Dictionary*>(object));
    default:
      return xpc_retain(object);
  }
}

bool xpc_equal(xpc_object_t a, xpc_object_t b) noexcept {
  if (a == nullptr || b == nullptr) return a == b;
  // The tagged encoding is canonical, so two tagged words are equal exactly
  // when they are the same word; doubles alone compare by value (NaN, -0.0).
  if (IsTagged(a) && IsTagged(b) && TaggedKindOf(a) != TaggedKind::kDouble) return a == b;
  const xpc_type_t type = xpc_get_type(a);
  if (type != xpc_get_type(b)) return false;
  // Numbers and dates compare by value, never by pointer: either side may be a
  // tagged word. Doubles come first: an object holding NaN is not equal even to
  // itself.
  switch (type->kind) {
    case Kind::kInt64:
    case Kind::kDate:
      return SignedValueOf(a) == SignedValueOf(b);
    case Kind::kUInt64:
      return UnsignedValueOf(a) == UnsignedValueOf(b);
    case Kind::kDouble:
      return DoubleValueOf(a) == DoubleValueOf(b);
    default:
      break;
  }
  if (a == b) return true;
  switch (type->kind) {
    case Kind::kNull:
      return true;
    case Kind::kBool:
      return static_cast<Bool*>(a)->value == static_cast<Bool*>(b)->value;
    case Kind::kString:
    case Kind::kData:
      return TextOf(a) == TextOf(b);
    case Kind::kUuid:
      return std::memcmp(static_cast<Uuid*>(a)->bytes, static_cast<Uuid*>(b)->bytes, 16) == 0;
    case Kind::kArray:
      return EqualArrays(*static_cast<Array*>(a), *static_cast<Array*>(b));
    case Kind::kDictionary:
      return EqualDictionaries(*static_cast<Dictionary*>(a), *static_cast<Dictionary*>(b));
    case Kind::kInt64:
    case Kind::kUInt64:
    case Kind::kDouble:
    case Kind::kDate:
    case Kind::kError:
      return false;  // numbers are handled above; error objects are equal only to themselves
  }
  return false;
}

size_t xpc_hash(xpc_object_t object) noexcept {
  if (object == nullptr) return 0;
  const Kind kind = xpc_get_type(object)->kind;
  const size_t start = static_cast<size_t>(kind);
  switch (kind) {
    case Kind::kNull:
      return Combine(start, 0);
    case Kind::kBool:
      return Combine(start, static_cast<Bool*>(object)->value);
    case Kind::kInt64:
    case Kind::kDate:
      return Combine(start, std::hash<int64_t>{}(SignedValueOf(object)));
    case Kind::kUInt64:
      return Combine(start, std::hash<uint64_t>{}(UnsignedValueOf(object)));
    case Kind::kDouble: {
      double value = DoubleValueOf(object);
      return Combine(start, std::hash<double>{}(value == 0.0 ? 0.0 : value));  // -0.0 equals 0.0
    }
    case Kind::kString:
    case Kind::kData:
      return Combine(start, std::hash<std::string_view>{}(TextOf(object)));
    case Kind::kUuid: {
      auto* uuid = static_cast<Uuid*>(object);
      return Combine(start, std::hash<std::string_view>{}(
                               {reinterpret_cast<const char*>(uuid->bytes), sizeof uuid->bytes}));
    }
    case Kind::kArray:
      return Combine(start, HashArray(*static_cast<Array*>(object)));
    case Kind::kDictionary:
      return Combine(start, HashDictionary(*static_cast<Dictionary*>(object)));
    case Kind::kError:
      return Combine(start, reinterpret_cast<uintptr_t>(object));
  }
  return start;
}
