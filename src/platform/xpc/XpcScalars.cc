#include <cstring>
#include <ctime>
#include <new>

#include "platform/xpc/XpcObject.h"

using namespace QelSS::xpc;

namespace {

constinit _xpc_object_s gNull{XPC_TYPE_NULL, true};
constinit Bool gTrue{XPC_TYPE_BOOL, true, true};
constinit Bool gFalse{XPC_TYPE_BOOL, false, true};

// One allocation for header and payload; strings get a terminating NUL.
xpc_object_t CreateBytes(xpc_type_t kind, const void* source, size_t length,
                         size_t terminator) noexcept {
  void* memory = ::operator new(sizeof(Bytes) + length + terminator, std::nothrow);
  if (memory == nullptr) return nullptr;
  auto* bytes = new (memory) Bytes(kind, length);
  if (length != 0) std::memcpy(bytes->payload(), source, length);
  if (terminator != 0) bytes->payload()[length] = '\0';
  return bytes;
}

}  // namespace

xpc_object_t xpc_null_create() noexcept { return &gNull; }

xpc_object_t xpc_bool_create(bool value) noexcept { return value ? &gTrue : &gFalse; }

bool xpc_bool_get_value(xpc_object_t xbool) noexcept {
  auto* object = As<Bool>(xbool, XPC_TYPE_BOOL);
  return object != nullptr && object->value;
}

xpc_object_t xpc_int64_create(int64_t value) noexcept {
  if (xpc_object_t tagged = TagInt64(value)) return tagged;
  return new (std::nothrow) Int64(XPC_TYPE_INT64, value);
}

int64_t xpc_int64_get_value(xpc_object_t xint) noexcept {
  return xpc_get_type(xint) == XPC_TYPE_INT64 ? SignedValueOf(xint) : 0;
}

xpc_object_t xpc_uint64_create(uint64_t value) noexcept {
  if (xpc_object_t tagged = TagUInt64(value)) return tagged;
  return new (std::nothrow) UInt64(XPC_TYPE_UINT64, value);
}

uint64_t xpc_uint64_get_value(xpc_object_t xuint) noexcept {
  return xpc_get_type(xuint) == XPC_TYPE_UINT64 ? UnsignedValueOf(xuint) : 0;
}

xpc_object_t xpc_double_create(double value) noexcept {
  if (xpc_object_t tagged = TagDouble(value)) return tagged;
  return new (std::nothrow) Double(XPC_TYPE_DOUBLE, value);
}

double xpc_double_get_value(xpc_object_t xdouble) noexcept {
  return xpc_get_type(xdouble) == XPC_TYPE_DOUBLE ? DoubleValueOf(xdouble) : 0.0;
}

xpc_object_t xpc_string_create(const char* string) noexcept {
  if (string == nullptr) return nullptr;
  return CreateBytes(XPC_TYPE_STRING, string, std::strlen(string), 1);
}

const char* xpc_string_get_string_ptr(xpc_object_t xstring) noexcept {
  auto* object = As<Bytes>(xstring, XPC_TYPE_STRING);
  return object != nullptr ? object->payload() : nullptr;
}

size_t xpc_string_get_length(xpc_object_t xstring) noexcept {
  auto* object = As<Bytes>(xstring, XPC_TYPE_STRING);
  return object != nullptr ? object->length : 0;
}

xpc_object_t xpc_data_create(const void* bytes, size_t length) noexcept {
  if (bytes == nullptr && length != 0) return nullptr;
  return CreateBytes(XPC_TYPE_DATA, bytes, length, 0);
}

const void* xpc_data_get_bytes_ptr(xpc_object_t xdata) noexcept {
  auto* object = As<Bytes>(xdata, XPC_TYPE_DATA);
  return object != nullptr ? object->payload() : nullptr;
}

size_t xpc_data_get_length(xpc_object_t xdata) noexcept {
  auto* object = As<Bytes>(xdata, XPC_TYPE_DATA);
  return object != nullptr ? object->length : 0;
}

xpc_object_t xpc_date_create(int64_t interval) noexcept {
  if (xpc_object_t tagged = TagDate(interval)) return tagged;
  return new (std::nothrow) Date(XPC_TYPE_DATE, interval);
}

xpc_object_t xpc_date_create_from_current() noexcept {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return xpc_date_create(int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec);
}

int64_t xpc_date_get_value(xpc_object_t xdate) noexcept {
  return xpc_get_type(xdate) == XPC_TYPE_DATE ? SignedValueOf(xdate) : 0;
}

xpc_object_t xpc_uuid_create(const unsigned char* uuid) noexcept {
  if (uuid == nullptr) return nullptr;
  auto* object = new (std::nothrow) Uuid();
  if (object != nullptr) std::memcpy(object->bytes, uuid, sizeof object->bytes);
  return object;
}

const uint8_t* xpc_uuid_get_bytes(xpc_object_t xuuid) noexcept {
  auto* object = As<Uuid>(xuuid, XPC_TYPE_UUID);
  return object != nullptr ? object->bytes : nullptr;
}
