#include "values/Number.h"

#include <charconv>

#include "platform/report/Report.h"
#include "values/ValueSupport.h"

namespace QelSS {
namespace {

constexpr uint32_t kTag = QelErrTag("SSNC");

// A number and its 16-byte shared_ptr block fill one 64-byte heap chunk
// (glibc adds 8 bytes and rounds to 16); one field more would cost 80.
static_assert(sizeof(Number) + 16 <= 56, "a number no longer fits one 64-byte chunk");
constexpr const char* kInvalidTypeMessage = "Number: Failed to init. invalid type";

bool IsNumberKind(xpc_type_t type) noexcept {
  return type == XPC_TYPE_INT64 || type == XPC_TYPE_DOUBLE || type == XPC_TYPE_BOOL ||
         type == XPC_TYPE_UINT64;
}

}  // namespace

Number::Number(xpc_object_t created) : Value(kValueTypeNumber), object_(created, false) {
  if (!object_) throw DataTypeException(kAllocationFailed, "Number: Failed to init");
}

Number::Number(bool value) : Number(xpc_bool_create(value)) {}
Number::Number(unsigned long long value) : Number(xpc_uint64_create(value)) {}
Number::Number(long long value) : Number(xpc_int64_create(value)) {}
Number::Number(double value) : Number(xpc_double_create(value)) {}

Number::Number(void* object)
    : Value(kValueTypeNumber), object_(static_cast<xpc_object_t>(object), true) {
  if (!IsNumberKind(Kind())) throw DataTypeException(kInvalidType, kInvalidTypeMessage);
}

Number::Number(const Number& other)
    : IValue(other), INumber(other), Value(other), object_(xpc_copy(other.object_.Get()), false) {
  if (!object_) throw DataTypeException(kAllocationFailed, kInvalidTypeMessage);
}

std::error_code Number::Description(std::string& out, unsigned int indent) const {
  // Wide enough for any double in fixed notation with six decimals.
  char text[400];
  std::to_chars_result written{text, std::errc()};
  xpc_object_t object = object_.Get();
  if (Kind() == XPC_TYPE_INT64) {
    written = std::to_chars(text, std::end(text), xpc_int64_get_value(object));
  } else if (Kind() == XPC_TYPE_UINT64) {
    written = std::to_chars(text, std::end(text), xpc_uint64_get_value(object));
  } else if (Kind() == XPC_TYPE_BOOL) {
    written = std::to_chars(text, std::end(text), xpc_bool_get_value(object) ? 1 : 0);
  } else if (Kind() == XPC_TYPE_DOUBLE) {
    written = std::to_chars(text, std::end(text), xpc_double_get_value(object),
                            std::chars_format::fixed, 6);
  }
  if (written.ec != std::errc()) return kFailure;
  return DescribeText(std::string_view(text, written.ptr - text), indent, kTag, out);
}

bool Number::operator==(const IValue& other) const {
  xpc_object_t theirs = PlatformObjectOfSameKind<INumber>(*this, other);
  return theirs != nullptr && xpc_equal(object_.Get(), theirs);
}

std::error_code Number::GetBool(bool& out) const {
  if (Kind() != XPC_TYPE_BOOL) return kInvalidType;
  out = xpc_bool_get_value(object_.Get());
  return kSuccess;
}

std::error_code Number::GetUInt64(uint64_t& out) const {
  if (Kind() != XPC_TYPE_UINT64) return kInvalidType;
  out = xpc_uint64_get_value(object_.Get());
  return kSuccess;
}

std::error_code Number::GetInt64(int64_t& out) const {
  if (Kind() != XPC_TYPE_INT64) return kInvalidType;
  out = xpc_int64_get_value(object_.Get());
  return kSuccess;
}

std::error_code Number::GetDouble(double& out) const {
  if (Kind() != XPC_TYPE_DOUBLE) return kInvalidType;
  out = xpc_double_get_value(object_.Get());
  return kSuccess;
}

std::error_code Number::GetNumberType(xpc_type_t& out) const {
  if (!IsNumberKind(Kind())) return kInvalidType;
  out = Kind();
  return kSuccess;
}

std::error_code Number::CopyXPCObject(xpc_object_t* out) const {
  if (out == nullptr) return kInvalidArgument;
  *out = xpc_copy(object_.Get());
  return kSuccess;
}

std::error_code Number::Clone(std::shared_ptr<IValue>& out) const {
  return MakeValue<Number>(out, *this);
}

std::error_code Number::Serialize(std::vector<uint8_t>& bytes) const {
  return SerializeValue(*this, kTag, bytes);
}

}  // namespace QelSS
