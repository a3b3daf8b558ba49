#pragma once

#include "qelss/values/INumber.h"
#include "qelss/values/XPCObject.h"
#include "values/Value.h"

namespace QelSS {

// A number; wraps one immutable platform bool, int64, uint64 or double, whose
// kind is the number's kind. Constructors throw DataTypeException.
class Number final : public INumber, public Value {
 public:
  explicit Number(bool value);
  explicit Number(unsigned long long value);
  explicit Number(long long value);
  explicit Number(double value);
  explicit Number(void* object);
  Number(const Number& other);
  Number& operator=(const Number&) = delete;

  using Value::Description;
  std::error_code Description(std::string& out, unsigned int indent) const override;
  bool operator==(const IValue& other) const override;
  std::error_code GetBool(bool& out) const override;
  std::error_code GetUInt64(uint64_t& out) const override;
  std::error_code GetInt64(int64_t& out) const override;
  std::error_code GetDouble(double& out) const override;
  std::error_code GetNumberType(xpc_type_t& out) const override;
  std::error_code CopyXPCObject(xpc_object_t* out) const override;
  std::error_code Clone(std::shared_ptr<IValue>& out) const override;
  std::error_code Serialize(std::vector<uint8_t>& bytes) const override;
  xpc_object_t GetXPCObject() const noexcept override { return object_.Get(); }

 private:
  explicit Number(xpc_object_t created);  // adopts a freshly created object
  xpc_type_t Kind() const noexcept { return xpc_get_type(object_.Get()); }

  XPCObject object_;
};

}  // namespace QelSS
