#include "values/String.h"

#include <cstdlib>
#include <string_view>

#include "platform/report/Report.h"
#include "values/ValueSupport.h"

namespace QelSS {
namespace {

constexpr uint32_t kTag = QelErrTag("QSSC");

// The C-string construction as a result code, for the constructors that
// report their own message.
std::error_code CreatePlatformString(const char* text, XPCObject& out) noexcept {
  if (text == nullptr) return kInvalidArgument;
  xpc_object_t created = xpc_string_create(text);
  if (created == nullptr) return kAllocationFailed;
  out = XPCObject(created, false);
  return kSuccess;
}

}  // namespace

String::String(const char* text) : Value(kValueTypeString) {
  std::error_code result = CreatePlatformString(text, object_);
  if (result == kInvalidArgument) throw DataTypeException(result, "String: Invalid string input");
  if (!Succeeded(result)) throw DataTypeException(result, "String: Failed to init");
}

String::String(const std::string& text) : Value(kValueTypeString) {
  std::error_code result = CreatePlatformString(text.c_str(), object_);
  if (!Succeeded(result)) throw DataTypeException(result, "Failed to create string");
}

String::String(void* object)
    : Value(kValueTypeString), object_(static_cast<xpc_object_t>(object), true) {
  if (xpc_get_type(object_.Get()) != XPC_TYPE_STRING) {
    throw DataTypeException(kInvalidType, "String: Invalid type");
  }
}

String::String(const String& other)
    : IValue(other),
      IValueInternal(other),
      IValueSerialize(other),
      IString(other),
      Value(other),
      object_(xpc_copy(other.object_.Get()), false) {
  if (!object_) throw DataTypeException(kAllocationFailed, "String: Failed to init");
}

std::error_code String::Description(std::string& out, unsigned int indent) const {
  return DescribeText(std::string_view(GetCString(), GetLength()), indent, kTag, out);
}

bool String::operator==(const IValue& other) const {
  xpc_object_t theirs = PlatformObjectOfSameKind<IString>(*this, other);
  return theirs != nullptr && xpc_equal(object_.Get(), theirs);
}

size_t String::GetLength() const { return xpc_string_get_length(object_.Get()); }

const char* String::GetCString() const { return xpc_string_get_string_ptr(object_.Get()); }

std::error_code String::GetWString(std::wstring& out) const {
  const char* text = GetCString();
  // Count first, then convert into a buffer of exactly that size.
  const size_t count = std::mbstowcs(nullptr, text, 0);
  if (count == static_cast<size_t>(-1)) return kConversionError;
  std::wstring wide(count, L'\0');
  if (std::mbstowcs(wide.data(), text, count + 1) == static_cast<size_t>(-1)) {
    return kConversionError;
  }
  out = std::move(wide);
  return kSuccess;
}

std::error_code String::CopyXPCObject(xpc_object_t* out) const {
  if (out == nullptr) return kInvalidArgument;
  *out = xpc_copy(object_.Get());
  return kSuccess;
}

std::error_code String::Clone(std::shared_ptr<IValue>& out) const {
  return MakeValue<String>(out, *this);
}

std::error_code String::Serialize(std::vector<uint8_t>& bytes) const {
  return SerializeValue(*this, kTag, bytes);
}

}  // namespace QelSS
