#include "values/Null.h"

#include "platform/report/Report.h"
#include "values/ValueSupport.h"

namespace QelSS {
namespace {

constexpr uint32_t kTag = QelErrTag("SSNu");

}  // namespace

Null::Null() : Value(kValueTypeNull), object_(xpc_null_create(), false) {
  if (!object_) throw DataTypeException(kAllocationFailed, "Null: Failed to init");
}

Null::Null(void* object) : Value(kValueTypeNull), object_(static_cast<xpc_object_t>(object), true) {
  if (xpc_get_type(object_.Get()) != XPC_TYPE_NULL) {
    throw DataTypeException(kInvalidType, "Null: Invalid type");
  }
}

Null::Null(const Null& other)
    : IValue(other), INull(other), Value(other), object_(xpc_copy(other.object_.Get()), false) {
  if (!object_) throw DataTypeException(kAllocationFailed, "Null: failed to init");
}

std::error_code Null::Description(std::string& out, unsigned int indent) const {
  return DescribeText("nullObj", indent, kTag, out);
}

bool Null::operator==(const IValue& other) const {
  xpc_object_t theirs = PlatformObjectOfSameKind<INull>(*this, other);
  return theirs != nullptr && xpc_equal(object_.Get(), theirs);
}

std::error_code Null::CopyXPCObject(xpc_object_t* out) const {
  if (out == nullptr) return kInvalidArgument;
  xpc_object_t copy = xpc_copy(object_.Get());
  if (copy == nullptr) return kFailure;
  *out = copy;
  return kSuccess;
}

std::error_code Null::Clone(std::shared_ptr<IValue>& out) const {
  return MakeValue<Null>(out, *this);
}

std::error_code Null::Serialize(std::vector<uint8_t>& bytes) const {
  return SerializeValue(*this, kTag, bytes);
}

}  // namespace QelSS
