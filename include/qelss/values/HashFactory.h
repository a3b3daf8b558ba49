#pragma once

#include <memory>
#include <system_error>
#include <vector>

#include "qelss/Export.h"
#include "qelss/values/IHash.h"

namespace QelSS {

// Makes hashes. On success `out` holds the new hash; on failure `out` is
// untouched and the result says why.
class QELSS_EXPORT HashFactory {
 public:
  HashFactory() = delete;

  // An empty hash.
  [[nodiscard]] static std::error_code Create(std::shared_ptr<IHash>& out);

  // A hash built from a platform dictionary (xpc_object_t): nested dictionaries
  // become hashes, arrays become arrays, scalars the matching values.
  // kInvalidType when `object` is NULL or not a dictionary; the failing
  // element's code when one cannot be converted.
  template <typename T>
  [[nodiscard]] static std::error_code Create(std::shared_ptr<IHash>& out, const T& object);

  // Rebuilds a hash from its byte form. A read failure is returned with `out`
  // untouched; bytes of another kind of value give kInvalidData and leave `out`
  // empty.
  [[nodiscard]] static std::error_code CreateFromBytes(std::shared_ptr<IHash>& out,
                                                       const std::vector<unsigned char>& bytes);
};

template <>
QELSS_EXPORT std::error_code HashFactory::Create<void*>(std::shared_ptr<IHash>& out,
                                                        void* const& object);

}  // namespace QelSS
