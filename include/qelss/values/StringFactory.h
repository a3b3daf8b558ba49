#pragma once

#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "qelss/Export.h"
#include "qelss/values/IString.h"

namespace QelSS {

// Makes strings from UTF-8 text (copied; the text ends at its first NUL). On
// success `out` holds the new value and the result is kSuccess; on failure `out`
// is untouched and the result says why.
class QELSS_EXPORT StringFactory {
 public:
  StringFactory() = delete;

  // kInvalidArgument for a null pointer.
  [[nodiscard]] static std::error_code Create(std::shared_ptr<IString>& out, const char* text);
  [[nodiscard]] static std::error_code Create(std::shared_ptr<IString>& out,
                                              const std::string& text);

  // Wraps `object`, a platform string (xpc_object_t), taking a reference of its
  // own. kInvalidType when it is NULL or another kind.
  [[nodiscard]] static std::error_code Create(std::shared_ptr<IString>& out, void* object);

  // As NumberFactory::CreateFromBytes, for strings.
  [[nodiscard]] static std::error_code CreateFromBytes(std::shared_ptr<IString>& out,
                                                       const std::vector<unsigned char>& bytes);
};

}  // namespace QelSS
