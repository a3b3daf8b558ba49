#pragma once

#include <memory>
#include <system_error>

#include "qelss/Export.h"
#include "qelss/values/INull.h"

namespace QelSS {

// Makes null values. On success `out` holds the new value (whatever it held is
// released) and the result is kSuccess; on failure `out` is untouched.
class QELSS_EXPORT NullFactory {
 public:
  NullFactory() = delete;

  [[nodiscard]] static std::error_code Create(std::shared_ptr<INull>& out);

  // Wraps `object`, a platform null (xpc_object_t), taking a reference of its
  // own. kInvalidType when it is NULL or another kind.
  [[nodiscard]] static std::error_code Create(std::shared_ptr<INull>& out, void* object);
};

}  // namespace QelSS
