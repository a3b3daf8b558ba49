#pragma once

#include <memory>
#include <system_error>
#include <vector>

#include "qelss/Export.h"
#include "qelss/values/IArray.h"

namespace QelSS {

// Makes arrays. On success `out` holds the new array; on failure `out` is
// untouched and the result says why.
class QELSS_EXPORT ArrayFactory {
 public:
  ArrayFactory() = delete;

  // An empty array.
  [[nodiscard]] static std::error_code Create(std::shared_ptr<IArray>& out);

  // An array built from a platform array (xpc_object_t), elements converted to
  // the matching values. kInvalidType when `object` is NULL or not an array.
  template <typename T>
  [[nodiscard]] static std::error_code Create(std::shared_ptr<IArray>& out, const T& object);
};

template <>
QELSS_EXPORT std::error_code ArrayFactory::Create<void*>(std::shared_ptr<IArray>& out,
                                                         void* const& object);

}  // namespace QelSS
