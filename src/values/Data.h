#pragma once

#include "qelss/values/IData.h"
#include "qelss/values/XPCObject.h"
#include "values/Value.h"

namespace QelSS {

// A data value; wraps one immutable platform data object, which holds the bytes
// in its own allocation. Constructors throw DataTypeException.
class Data final : public IData, public Value {
 public:
  Data(const unsigned char* bytes, unsigned long length);
  explicit Data(void* object);
  Data(const Data& other);
  Data& operator=(const Data&) = delete;

  using Value::Description;
  std::error_code Description(std::string& out, unsigned int indent) const override;
  bool operator==(const IValue& other) const override;
  size_t GetLength() const override;
  const unsigned char* GetBytes() const override;
  std::error_code CopyXPCObject(xpc_object_t* out) const override;
  std::error_code Clone(std::shared_ptr<IValue>& out) const override;
  std::error_code Serialize(std::vector<uint8_t>& bytes) const override;
  xpc_object_t GetXPCObject() const noexcept override { return object_.Get(); }

 private:
  XPCObject object_;
};

}  // namespace QelSS
