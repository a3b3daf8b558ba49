#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "qelss/Export.h"
#include "qelss/platform/ErrorCode.h"
#include "qelss/platform/xpc.h"

namespace QelSS {

// The type tag of every value class; GetType() answers one of these and a value
// never changes its tag.
enum ValueType : uint32_t {
  kValueTypeNull = 0,
  kValueTypeNumber = 1,
  kValueTypeString = 2,
  kValueTypeData = 3,
  kValueTypeDate = 4,
  kValueTypeUUID = 5,
  kValueTypeArray = 6,
  kValueTypeHash = 7,
};

// One node of a settings tree. Values are always held through std::shared_ptr
// and made by the factories (NullFactory, NumberFactory, StringFactory, ...);
// reach a specific kind with std::dynamic_pointer_cast to its interface.
//
// Scalars (null, number, string, data, date, UUID) are immutable and may be
// shared between threads freely. Containers (hash, array) lock themselves.
// Operations return a code of the library's category and never throw; outputs
// are left untouched on failure unless an operation says otherwise.
class QELSS_EXPORT IValue {
 public:
  virtual ~IValue();

  // The value's ValueType tag.
  virtual uint32_t GetType() const = 0;

  // Gives the caller a new reference to the value's platform object (scalars
  // share their immutable object; containers build a new one). The caller
  // releases it with xpc_release. kInvalidArgument when `out` is null;
  // kNotImplemented for a kind that has no platform form.
  [[nodiscard]] virtual std::error_code CopyXPCObject(xpc_object_t* out) const = 0;

  // A new, independent value of the same class and content. On failure the
  // code of the failed construction (usually kAllocationFailed).
  [[nodiscard]] virtual std::error_code Clone(std::shared_ptr<IValue>& out) const = 0;

  // Replaces `bytes` with the value's byte form on success. kNotImplemented
  // while no byte form is available to the library.
  [[nodiscard]] virtual std::error_code Serialize(std::vector<uint8_t>& bytes) const = 0;

  // Equal when the other value has the same tag and interface and equal content.
  // Numbers of different kinds (int64 5, uint64 5) are not equal.
  virtual bool operator==(const IValue& other) const = 0;
  virtual bool operator!=(const IValue& other) const = 0;

  // Replaces `out` with a readable text of the value: null is "nullObj", a
  // number its decimal form (bool as 1 or 0, double with six decimals), a string
  // its text. The second form puts `indent` spaces first; containers also
  // indent their children.
  [[nodiscard]] virtual std::error_code Description(std::string& out) const = 0;
  [[nodiscard]] virtual std::error_code Description(std::string& out,
                                                    unsigned int indent) const = 0;
};

}  // namespace QelSS
