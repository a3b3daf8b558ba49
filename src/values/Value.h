#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <system_error>
#include <typeinfo>
#include <vector>

#include "qelss/values/IValue.h"
#include "qelss/values/IValueInternal.h"
#include "qelss/values/IValueSerialize.h"

namespace QelSS {

// Common base of the value classes. A concrete class derives from its interface
// and from Value; the interfaces inherit IValue virtually, so Value's defaults
// fill whatever the class leaves out. Every default operation answers
// kNotImplemented, except the tag, the tag-only equality and the unindented
// description.
class Value : public virtual IValue, public virtual IValueInternal, public virtual IValueSerialize {
 public:
  explicit Value(uint32_t type) noexcept : type_(type) {}

  uint32_t GetType() const override;
  std::error_code CopyXPCObject(xpc_object_t* out) const override;
  std::error_code Clone(std::shared_ptr<IValue>& out) const override;
  std::error_code Serialize(std::vector<uint8_t>& bytes) const override;
  bool operator==(const IValue& other) const override;
  bool operator!=(const IValue& other) const override;
  std::error_code Description(std::string& out) const override;
  std::error_code Description(std::string& out, unsigned int indent) const override;
  xpc_object_t GetXPCObject() const noexcept override;

 private:
  const uint32_t type_;
};

// The platform object of `other` when it has the tag of `self` and implements
// the interface I; NULL otherwise. Equality runs often (hash merges, array
// searches), and the usual case, another object of the very same class, is
// answered without the cross-casts through virtual bases.
template <typename I, typename Concrete>
xpc_object_t PlatformObjectOfSameKind(const Concrete& self, const IValue& other) {
  if (other.GetType() != self.GetType()) return nullptr;
  if (typeid(other) == typeid(Concrete)) {
    return static_cast<const Concrete*>(dynamic_cast<const void*>(&other))->GetXPCObject();
  }
  if (dynamic_cast<const I*>(&other) == nullptr) return nullptr;
  auto* internal = dynamic_cast<const IValueInternal*>(&other);
  return internal != nullptr ? internal->GetXPCObject() : nullptr;
}

}  // namespace QelSS
