#include "values/Value.h"

namespace QelSS {

uint32_t Value::GetType() const { return type_; }

std::error_code Value::CopyXPCObject(xpc_object_t*) const { return kNotImplemented; }

std::error_code Value::Clone(std::shared_ptr<IValue>&) const { return kNotImplemented; }

std::error_code Value::Serialize(std::vector<uint8_t>&) const { return kNotImplemented; }

bool Value::operator==(const IValue& other) const { return other.GetType() == type_; }

bool Value::operator!=(const IValue& other) const { return !(*this == other); }

std::error_code Value::Description(std::string& out) const { return Description(out, 0); }

std::error_code Value::Description(std::string&, unsigned int) const { return kNotImplemented; }

xpc_object_t Value::GetXPCObject() const noexcept { return nullptr; }

}  // namespace QelSS
