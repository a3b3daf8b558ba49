#pragma once

#include <memory>
#include <system_error>

#include "qelss/values/IHash.h"

namespace QelSS {

// What the library's own components may ask of a domain beyond IDomainSetting.
class IDomainSettingInternal {
 public:
  // A deep copy of the whole stored root (generation count and settings tree),
  // taken on the domain's queue. kInvalidData when the copy is not a hash.
  [[nodiscard]] virtual std::error_code CopySettings(std::shared_ptr<IHash>& settings) = 0;

  virtual ~IDomainSettingInternal();
};

}  // namespace QelSS
