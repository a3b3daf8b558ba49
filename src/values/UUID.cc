#include "values/UUID.h"

#include <algorithm>
#include <string>

#include "platform/report/Failure.h"
#include "platform/report/Report.h"
#include "platform/support/Uuid.h"
#include "values/ValueSupport.h"

namespace QelSS {
namespace {

constexpr uint32_t kTag = QelErrTag("SSUC");
constexpr const char* kInitMessage = "UUID: failed to init";
constexpr const char* kInvalidTypeMessage = "UUID: Invalid type";

}  // namespace

// Anchors the interface's type information in the library (see Interfaces.cc).
IUUID::~IUUID() = default;

UUID::UUID() : UUID(platform::NewRandomUuid()) {}

UUID::UUID(const UUIDBytes& bytes)
    : Value(kValueTypeUUID), object_(xpc_uuid_create(bytes.data()), false) {
  if (!object_) throw DataTypeException(kAllocationFailed, kInitMessage);
}

UUID::UUID(void* object) : Value(kValueTypeUUID), object_(static_cast<xpc_object_t>(object), true) {
  if (xpc_get_type(object_.Get()) != XPC_TYPE_UUID) {
    throw DataTypeException(kInvalidType, kInvalidTypeMessage);
  }
}

UUID::UUID(const UUID& other)
    : IValue(other), IUUID(other), Value(other), object_(xpc_copy(other.object_.Get()), false) {
  if (!object_) throw DataTypeException(kAllocationFailed, kInvalidTypeMessage);
}

std::string UUID::Text() const {
  platform::UuidBytes bytes;
  std::copy_n(GetBytes(), bytes.size(), bytes.begin());
  return platform::UuidToString(bytes);
}

std::error_code UUID::Description(std::string& out, unsigned int indent) const {
  std::string text;
  try {
    text = Text();
  } catch (...) {
    ReportCaughtException(1, kTag, "Description");
    return kFailure;
  }
  return DescribeText(text, indent, kTag, out);
}

bool UUID::operator==(const IValue& other) const {
  xpc_object_t theirs = PlatformObjectOfSameKind<IUUID>(*this, other);
  return theirs != nullptr && xpc_equal(object_.Get(), theirs);
}

const uint8_t* UUID::GetBytes() const { return xpc_uuid_get_bytes(object_.Get()); }

std::error_code UUID::GetString(std::string& out) const {
  try {
    out = Text();
  } catch (...) {
    ReportCaughtException(1, kTag, "GetString");
    return kFailure;
  }
  return kSuccess;
}

std::error_code UUID::CopyXPCObject(xpc_object_t* out) const {
  if (out == nullptr) return kInvalidArgument;
  *out = xpc_copy(object_.Get());
  return kSuccess;
}

std::error_code UUID::Clone(std::shared_ptr<IValue>& out) const {
  return MakeValue<UUID>(out, *this);
}

std::error_code UUID::Serialize(std::vector<uint8_t>& bytes) const {
  return SerializeValue(*this, kTag, bytes);
}

}  // namespace QelSS
