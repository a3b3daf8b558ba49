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
//
// Layout. Every value pays for one vtable pointer per polymorphic base that
// cannot share one, and a settings tree holds millions of values. The concrete
// class's interface shares its pointer with IValue (IValue is that interface's
// primary base); IValueInternal comes first here so that Value shares its
// pointer; IValueSerialize needs its own. Only IValue is inherited virtually:
// the companions are reached from it by dynamic_cast all the same, and making
// them virtual would cost Value a pointer of its own. The tag then lies in the
// padding after IValueSerialize's pointer, where a derived class may put small
// fields of its own.
class Value : public IValueInternal, public IValueSerialize, public virtual IValue {
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

// `other` as this very class, or NULL. Equality runs often (hash merges, array
// searches), and the usual case, another object of the same class, is answered
// without the cross-casts through virtual bases.
template <typename Concrete>
const Concrete* SameClass(const Concrete&, const IValue& other) {
  if (typeid(other) != typeid(Concrete)) return nullptr;
  return static_cast<const Concrete*>(dynamic_cast<const void*>(&other));
}

// The platform object of `other` when it has the tag of `self` and implements
// the interface I; NULL otherwise.
template <typename I, typename Concrete>
xpc_object_t PlatformObjectOfSameKind(const Concrete& self, const IValue& other) {
  if (other.GetType() != self.GetType()) return nullptr;
  if (const Concrete* same = SameClass(self, other)) return same->GetXPCObject();
  if (dynamic_cast<const I*>(&other) == nullptr) return nullptr;
  auto* internal = dynamic_cast<const IValueInternal*>(&other);
  return internal != nullptr ? internal->GetXPCObject() : nullptr;
}

}  // namespace QelSS
