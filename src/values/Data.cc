#include "values/Data.h"

#include <string>

#include "platform/report/Failure.h"
#include "platform/report/Report.h"
#include "values/ValueSupport.h"

namespace QelSS {
namespace {

constexpr uint32_t kTag = QelErrTag("SSDC");
constexpr const char* kInvalidArgumentMessage = "Data: Invalid argument";
constexpr const char* kInvalidTypeMessage = "Data: Invalid type";

// "0a ff 10": two lower-case digits a byte, one space between bytes.
std::string HexPairs(const unsigned char* bytes, size_t length) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  if (length == 0) return text;
  text.reserve(length * 3 - 1);
  for (size_t i = 0; i < length; ++i) {
    if (i > 0) text.push_back(' ');
    text.push_back(kDigits[bytes[i] >> 4]);
    text.push_back(kDigits[bytes[i] & 0x0f]);
  }
  return text;
}

}  // namespace

// Anchors the interface's type information in the library (see Interfaces.cc).
IData::~IData() = default;

Data::Data(const unsigned char* bytes, unsigned long length) : Value(kValueTypeData) {
  if (bytes == nullptr) throw DataTypeException(kInvalidArgument, kInvalidArgumentMessage);
  object_ = XPCObject(xpc_data_create(bytes, length), false);
  if (!object_) throw DataTypeException(kAllocationFailed, kInvalidArgumentMessage);
}

Data::Data(void* object) : Value(kValueTypeData), object_(static_cast<xpc_object_t>(object), true) {
  if (xpc_get_type(object_.Get()) != XPC_TYPE_DATA) {
    throw DataTypeException(kInvalidType, kInvalidTypeMessage);
  }
}

Data::Data(const Data& other)
    : IValue(other), IData(other), Value(other), object_(xpc_copy(other.object_.Get()), false) {
  if (!object_) throw DataTypeException(kAllocationFailed, kInvalidTypeMessage);
}

std::error_code Data::Description(std::string& out, unsigned int indent) const {
  std::string text;
  try {
    text = HexPairs(GetBytes(), GetLength());
  } catch (...) {
    ReportCaughtException(1, kTag, "Description");
    return kFailure;
  }
  return DescribeText(text, indent, kTag, out);
}

bool Data::operator==(const IValue& other) const {
  xpc_object_t theirs = PlatformObjectOfSameKind<IData>(*this, other);
  return theirs != nullptr && xpc_equal(object_.Get(), theirs);
}

size_t Data::GetLength() const { return xpc_data_get_length(object_.Get()); }

const unsigned char* Data::GetBytes() const {
  return static_cast<const unsigned char*>(xpc_data_get_bytes_ptr(object_.Get()));
}

std::error_code Data::CopyXPCObject(xpc_object_t* out) const {
  if (out == nullptr) return kInvalidArgument;
  *out = xpc_copy(object_.Get());
  return kSuccess;
}

std::error_code Data::Clone(std::shared_ptr<IValue>& out) const {
  return MakeValue<Data>(out, *this);
}

std::error_code Data::Serialize(std::vector<uint8_t>& bytes) const {
  return SerializeValue(*this, kTag, bytes);
}

}  // namespace QelSS
