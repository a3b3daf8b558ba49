#pragma once

#include "qelss/values/INull.h"
#include "qelss/values/XPCObject.h"
#include "values/Value.h"

namespace QelSS {

// The null value; wraps the platform null object. Constructors throw
// DataTypeException (the factories turn it into a code).
class Null final : public INull, public Value {
 public:
  Null();
  explicit Null(void* object);
  Null(const Null& other);
  Null& operator=(const Null&) = delete;

  using Value::Description;
  std::error_code Description(std::string& out, unsigned int indent) const override;
  bool operator==(const IValue& other) const override;
  std::error_code CopyXPCObject(xpc_object_t* out) const override;
  std::error_code Clone(std::shared_ptr<IValue>& out) const override;
  std::error_code Serialize(std::vector<uint8_t>& bytes) const override;
  xpc_object_t GetXPCObject() const noexcept override { return object_.Get(); }

 private:
  XPCObject object_;
};

}  // namespace QelSS
