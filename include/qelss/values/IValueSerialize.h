#pragma once

#include <cstdint>
#include <system_error>
#include <vector>

#include "qelss/Export.h"

namespace QelSS {

// Companion interface of every value: the byte form alone, for code that stores
// or sends values without needing anything else of them.
class QELSS_EXPORT IValueSerialize {
 public:
  virtual ~IValueSerialize();

  // As IValue::Serialize: replaces `bytes` on success only.
  [[nodiscard]] virtual std::error_code Serialize(std::vector<uint8_t>& bytes) const = 0;
};

}  // namespace QelSS
