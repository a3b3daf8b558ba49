#pragma once

#include "qelss/values/IUUID.h"
#include "qelss/values/XPCObject.h"
#include "values/Value.h"

namespace QelSS {

// A UUID value; wraps one immutable platform UUID. Constructors throw
// DataTypeException.
class UUID final : public IUUID, public Value {
 public:
  UUID();
  explicit UUID(const UUIDBytes& bytes);
  explicit UUID(void* object);
  UUID(const UUID& other);
  UUID& operator=(const UUID&) = delete;

  using Value::Description;
  std::error_code Description(std::string& out, unsigned int indent) const override;
  bool operator==(const IValue& other) const override;
  const uint8_t* GetBytes() const override;
  std::error_code GetString(std::string& out) const override;
  std::error_code CopyXPCObject(xpc_object_t* out) const override;
  std::error_code Clone(std::shared_ptr<IValue>& out) const override;
  std::error_code Serialize(std::vector<uint8_t>& bytes) const override;
  xpc_object_t GetXPCObject() const noexcept override { return object_.Get(); }

 private:
  // The canonical text; throws only when memory runs out.
  std::string Text() const;

  XPCObject object_;
};

}  // namespace QelSS
