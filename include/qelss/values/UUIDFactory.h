#pragma once

#include <memory>
#include <system_error>
#include <vector>

#include "qelss/Export.h"
#include "qelss/values/IUUID.h"

namespace QelSS {

// Makes UUID values. On success `out` holds the new value (whatever it held is
// released) and the result is kSuccess; on failure `out` is untouched and the
// result says why.
class QELSS_EXPORT UUIDFactory {
 public:
  UUIDFactory() = delete;

  // A new random (version 4) UUID. kAllocationFailed when the platform object
  // cannot be made.
  [[nodiscard]] static std::error_code Create(std::shared_ptr<IUUID>& out);

  // The UUID of these 16 bytes (copied). kAllocationFailed as above.
  [[nodiscard]] static std::error_code Create(std::shared_ptr<IUUID>& out, const UUIDBytes& bytes);

  // Wraps `object`, a platform UUID (xpc_object_t), taking a reference of its
  // own. kInvalidType when it is NULL or another kind.
  [[nodiscard]] static std::error_code Create(std::shared_ptr<IUUID>& out, void* object);

  // As NumberFactory::CreateFromBytes, for UUIDs.
  [[nodiscard]] static std::error_code CreateFromBytes(std::shared_ptr<IUUID>& out,
                                                       const std::vector<unsigned char>& bytes);
};

}  // namespace QelSS
