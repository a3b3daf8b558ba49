#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "qelss/values/IString.h"
#include "values/Value.h"

namespace QelSS {

// A string. Every hash key is one, so a short text is kept inside the value's
// own allocation and its platform string is made only when someone asks for it
// (GetXPCObject), once, and kept from then on. A longer text, or one handed in
// as a platform object, lives in its platform string from the start.
// Constructors throw DataTypeException.
class String final : public IString, public Value {
 public:
  explicit String(const char* text);
  explicit String(const std::string& text);
  explicit String(void* object);
  String(const String& other);
  String& operator=(const String&) = delete;
  ~String() override;

  using Value::Description;
  std::error_code Description(std::string& out, unsigned int indent) const override;
  bool operator==(const IValue& other) const override;
  size_t GetLength() const override;
  const char* GetCString() const override;
  std::error_code GetWString(std::wstring& out) const override;
  std::error_code CopyXPCObject(xpc_object_t* out) const override;
  std::error_code Clone(std::shared_ptr<IValue>& out) const override;
  std::error_code Serialize(std::vector<uint8_t>& bytes) const override;
  xpc_object_t GetXPCObject() const noexcept override;

  // Texts of up to this many bytes are kept inline. Chosen so that the value
  // and its shared_ptr block fill one 80-byte heap chunk (String.cc checks it).
  static constexpr size_t kInlineCapacity = 18;

 private:
  static constexpr uint8_t kTextInObject = 0xff;

  // Stores `text` inline when it is short enough, else in a new platform
  // string. kAllocationFailed when that cannot be made.
  std::error_code Init(const char* text) noexcept;
  bool IsInline() const noexcept { return inlineLength_ != kTextInObject; }

  // Constant after construction. The inline fields come first so that they
  // fill the padding after Value's tag.
  uint8_t inlineLength_ = kTextInObject;
  char inlineText_[kInlineCapacity + 1] = {};
  // The platform string, owning one reference. For an inline text it starts
  // NULL and is set once, by the first GetXPCObject; it never changes after.
  mutable std::atomic<xpc_object_t> object_{nullptr};
};

}  // namespace QelSS
