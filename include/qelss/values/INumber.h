#pragma once

#include <cstdint>
#include <system_error>

#include "qelss/Export.h"
#include "qelss/platform/xpc.h"
#include "qelss/values/IValue.h"

namespace QelSS {

// A number (tag kValueTypeNumber) of one of four kinds fixed at creation: bool,
// int64, uint64 or double. Kinds are never converted into each other: each
// getter succeeds only for its own kind and otherwise returns kInvalidType and
// leaves its output untouched. Immutable and safe to share between threads.
class QELSS_EXPORT INumber : public virtual IValue {
 public:
  ~INumber() override;

  [[nodiscard]] virtual std::error_code GetBool(bool& out) const = 0;
  [[nodiscard]] virtual std::error_code GetUInt64(uint64_t& out) const = 0;
  [[nodiscard]] virtual std::error_code GetInt64(int64_t& out) const = 0;
  [[nodiscard]] virtual std::error_code GetDouble(double& out) const = 0;

  // The kind as a platform type: XPC_TYPE_BOOL, XPC_TYPE_INT64, XPC_TYPE_UINT64
  // or XPC_TYPE_DOUBLE.
  [[nodiscard]] virtual std::error_code GetNumberType(xpc_type_t& out) const = 0;
};

}  // namespace QelSS
