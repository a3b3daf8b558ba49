#include "values/String.h"

#include <cstdlib>
#include <cstring>
#include <string_view>

#include "platform/report/Report.h"
#include "values/ValueSupport.h"

namespace QelSS {
namespace {

constexpr uint32_t kTag = QelErrTag("QSSC");

// glibc hands out 16-byte steps with 8 bytes of its own: a value plus its
// 16-byte shared_ptr block of at most 72 bytes costs 80, one byte more costs 96.
static_assert(sizeof(String) + 16 <= 72, "a short string no longer fits one 80-byte chunk");

bool SameText(std::string_view mine, xpc_object_t theirs) noexcept {
  return xpc_get_type(theirs) == XPC_TYPE_STRING &&
         mine == std::string_view(xpc_string_get_string_ptr(theirs), xpc_string_get_length(theirs));
}

}  // namespace

std::error_code String::Init(const char* text) noexcept {
  if (text == nullptr) return kInvalidArgument;
  // Bounded: a long text is measured once more by the platform string anyway.
  const size_t length = strnlen(text, kInlineCapacity + 1);
  if (length <= kInlineCapacity) {
    std::memcpy(inlineText_, text, length + 1);
    inlineLength_ = static_cast<uint8_t>(length);
    return kSuccess;
  }
  xpc_object_t created = xpc_string_create(text);
  if (created == nullptr) return kAllocationFailed;
  object_.store(created, std::memory_order_relaxed);
  return kSuccess;
}

String::String(const char* text) : Value(kValueTypeString) {
  std::error_code result = Init(text);
  if (result == kInvalidArgument) throw DataTypeException(result, "String: Invalid string input");
  if (!Succeeded(result)) throw DataTypeException(result, "String: Failed to init");
}

String::String(const std::string& text) : Value(kValueTypeString) {
  std::error_code result = Init(text.c_str());
  if (!Succeeded(result)) throw DataTypeException(result, "Failed to create string");
}

String::String(void* object) : Value(kValueTypeString) {
  auto platform = static_cast<xpc_object_t>(object);
  // Checked before the reference is taken: a throwing constructor runs no
  // destructor that could give it back.
  if (xpc_get_type(platform) != XPC_TYPE_STRING) {
    throw DataTypeException(kInvalidType, "String: Invalid type");
  }
  object_.store(xpc_retain(platform), std::memory_order_relaxed);
}

String::String(const String& other)
    : IValue(other), IString(other), Value(other), inlineLength_(other.inlineLength_) {
  std::memcpy(inlineText_, other.inlineText_, sizeof inlineText_);
  // A scalar's copy shares the immutable platform string, when there is one.
  object_.store(xpc_copy(other.object_.load(std::memory_order_acquire)), std::memory_order_relaxed);
  if (!IsInline() && object_.load(std::memory_order_relaxed) == nullptr) {
    throw DataTypeException(kAllocationFailed, "String: Failed to init");
  }
}

String::~String() { xpc_release(object_.load(std::memory_order_acquire)); }

size_t String::GetLength() const {
  return IsInline() ? inlineLength_
                    : xpc_string_get_length(object_.load(std::memory_order_relaxed));
}

const char* String::GetCString() const {
  return IsInline() ? inlineText_
                    : xpc_string_get_string_ptr(object_.load(std::memory_order_relaxed));
}

xpc_object_t String::GetXPCObject() const noexcept {
  // Acquire: a thread that finds the object made by another must see its text.
  xpc_object_t existing = object_.load(std::memory_order_acquire);
  if (existing != nullptr) return existing;
  xpc_object_t made = xpc_string_create(inlineText_);
  if (made == nullptr) return nullptr;  // out of memory: nothing to lend
  if (object_.compare_exchange_strong(existing, made, std::memory_order_acq_rel,
                                      std::memory_order_acquire)) {
    return made;
  }
  xpc_release(made);  // another thread was first; `existing` now holds its object
  return existing;
}

std::error_code String::Description(std::string& out, unsigned int indent) const {
  return DescribeText(std::string_view(GetCString(), GetLength()), indent, kTag, out);
}

bool String::operator==(const IValue& other) const {
  const std::string_view mine(GetCString(), GetLength());
  // Two of our own strings compare their texts, so that neither has to make a
  // platform string just to be compared.
  if (const String* string = SameClass(*this, other)) {
    return mine == std::string_view(string->GetCString(), string->GetLength());
  }
  return SameText(mine, PlatformObjectOfSameKind<IString>(*this, other));
}

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
  // Not kept: a value sent once should not carry a platform string for ever.
  xpc_object_t existing = object_.load(std::memory_order_acquire);
  xpc_object_t copy = existing != nullptr ? xpc_retain(existing) : xpc_string_create(inlineText_);
  if (copy == nullptr) return kAllocationFailed;
  *out = copy;
  return kSuccess;
}

std::error_code String::Clone(std::shared_ptr<IValue>& out) const {
  return MakeValue<String>(out, *this);
}

std::error_code String::Serialize(std::vector<uint8_t>& bytes) const {
  return SerializeValue(*this, kTag, bytes);
}

}  // namespace QelSS
