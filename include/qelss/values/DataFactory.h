#pragma once

#include <memory>
#include <system_error>
#include <vector>

#include "qelss/Export.h"
#include "qelss/values/IData.h"

namespace QelSS {

// Makes data values. On success `out` holds the new value (whatever it held is
// released) and the result is kSuccess; on failure `out` is untouched and the
// result says why.
class QELSS_EXPORT DataFactory {
 public:
  DataFactory() = delete;

  // Copies `length` bytes from `bytes`. kInvalidArgument when `bytes` is NULL,
  // whatever the length (pass any valid pointer with length 0 for empty data);
  // kAllocationFailed when the platform object cannot be made.
  [[nodiscard]] static std::error_code Create(std::shared_ptr<IData>& out,
                                              const unsigned char* bytes, unsigned long length);

  // Wraps `object`, a platform data object (xpc_object_t), taking a reference of
  // its own. kInvalidType when it is NULL or another kind.
  [[nodiscard]] static std::error_code Create(std::shared_ptr<IData>& out, void* object);

  // As NumberFactory::CreateFromBytes, for data.
  [[nodiscard]] static std::error_code CreateFromBytes(std::shared_ptr<IData>& out,
                                                       const std::vector<unsigned char>& bytes);
};

}  // namespace QelSS
