#pragma once

#include <string>

#include "qelss/values/IString.h"
#include "qelss/values/XPCObject.h"
#include "values/Value.h"

namespace QelSS {

// A string; wraps one immutable platform string, which holds the text in its
// own allocation. Constructors throw DataTypeException.
class String final : public IString, public Value {
 public:
  explicit String(const char* text);
  explicit String(const std::string& text);
  explicit String(void* object);
  String(const String& other);
  String& operator=(const String&) = delete;

  using Value::Description;
  std::error_code Description(std::string& out, unsigned int indent) const override;
  bool operator==(const IValue& other) const override;
  size_t GetLength() const override;
  const char* GetCString() const override;
  std::error_code GetWString(std::wstring& out) const override;
  std::error_code CopyXPCObject(xpc_object_t* out) const override;
  std::error_code Clone(std::shared_ptr<IValue>& out) const override;
  std::error_code Serialize(std::vector<uint8_t>& bytes) const override;
  xpc_object_t GetXPCObject() const noexcept override { return object_.Get(); }

 private:
  XPCObject object_;
};

}  // namespace QelSS
