#pragma once

#include "qelss/values/IDate.h"
#include "qelss/values/XPCObject.h"
#include "values/Value.h"

namespace QelSS {

// A date; wraps one immutable platform date (signed nanoseconds since 1970).
// Constructors throw DataTypeException.
class Date final : public IDate, public Value {
 public:
  Date();
  explicit Date(long secondsSince1970);
  explicit Date(double absoluteTime);
  explicit Date(void* object);
  Date(const Date& other);
  Date& operator=(const Date&) = delete;

  using Value::Description;
  std::error_code Description(std::string& out, unsigned int indent) const override;
  bool operator==(const IValue& other) const override;
  uint64_t GetTime() const override;
  double GetAbsoluteTime() const override;
  std::error_code CopyXPCObject(xpc_object_t* out) const override;
  std::error_code Clone(std::shared_ptr<IValue>& out) const override;
  std::error_code Serialize(std::vector<uint8_t>& bytes) const override;
  xpc_object_t GetXPCObject() const noexcept override { return object_.Get(); }

 private:
  explicit Date(xpc_object_t created);  // adopts a freshly created object

  XPCObject object_;
};

}  // namespace QelSS
