#pragma once

#include <cstdint>
#include <memory>
#include <system_error>
#include <vector>

#include "qelss/Export.h"
#include "qelss/values/INumber.h"

namespace QelSS {

// Makes numbers. The overload chosen fixes the number's kind for good: pass
// exactly long long, unsigned long long, bool or double. On success `out` holds
// the new value and the result is kSuccess; on failure `out` is untouched and
// the result says why (kAllocationFailed when the platform object cannot be made).
class QELSS_EXPORT NumberFactory {
 public:
  NumberFactory() = delete;

  [[nodiscard]] static std::error_code Create(std::shared_ptr<INumber>& out, long long value);
  [[nodiscard]] static std::error_code Create(std::shared_ptr<INumber>& out,
                                              unsigned long long value);
  [[nodiscard]] static std::error_code Create(std::shared_ptr<INumber>& out, bool value);
  [[nodiscard]] static std::error_code Create(std::shared_ptr<INumber>& out, double value);

  // Wraps `object`, a platform bool, int64, uint64 or double (xpc_object_t),
  // taking a reference of its own. kInvalidType when it is NULL or another kind.
  [[nodiscard]] static std::error_code Create(std::shared_ptr<INumber>& out, void* object);

  // Rebuilds a number from its byte form (IValue::Serialize). A read failure is
  // returned with `out` untouched. Bytes of another kind of value give
  // kInvalidData and leave `out` empty. kNotImplemented while no byte form is
  // available to the library.
  [[nodiscard]] static std::error_code CreateFromBytes(std::shared_ptr<INumber>& out,
                                                       const std::vector<unsigned char>& bytes);
};

}  // namespace QelSS
