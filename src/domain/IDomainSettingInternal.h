#pragma once

#include <memory>
#include <string>
#include <system_error>

#include "qelss/values/IHash.h"

namespace QelSS {

// What the library's own components may ask of a domain beyond IDomainSetting.
class IDomainSettingInternal {
 public:
  // A deep copy of the whole stored root (generation count and settings tree),
  // taken on the domain's queue. kInvalidData when the copy is not a hash.
  [[nodiscard]] virtual std::error_code CopySettings(std::shared_ptr<IHash>& settings) = 0;

  // A deep copy of the settings tree alone, without the generation count.
  [[nodiscard]] virtual std::error_code CopySettingsTree(std::shared_ptr<IHash>& tree) = 0;

  // Puts the committed changes where the domain keeps them now, waiting at
  // most `waitSeconds`: kSuccess when they are there (or a commit already put
  // them there, as for a domain the settings service keeps), kTimeout when
  // the wait expired, or the failure of the write. Never from the domain queue.
  [[nodiscard]] virtual std::error_code SaveSettings(unsigned waitSeconds) = 0;

  // Where opening kept a damaged domain file before replacing it from a
  // backup copy; empty when it did not.
  [[nodiscard]] virtual std::error_code DamagedFileKept(std::string& path) = 0;

  virtual ~IDomainSettingInternal();
};

}  // namespace QelSS
