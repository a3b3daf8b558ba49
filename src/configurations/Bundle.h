#pragma once

#include <memory>
#include <string>
#include <system_error>

#include "qelss/platform/xpc.h"

namespace QelSS {

// An application bundle on disk (see qelss/configurations/Bundles.h for the
// layout and the search order). Immutable; safe to share between threads.
class Bundle {
 public:
  // The first bundle directory named `identifier` on the search path.
  // kNotFound when there is none or the identifier cannot name a directory
  // ("", ".", "..", or containing "/").
  [[nodiscard]] static std::error_code Find(const std::string& identifier,
                                            std::shared_ptr<const Bundle>& out);

  // The path of resource `name`.`type` in the bundle; kNotFound when absent.
  [[nodiscard]] std::error_code ResourcePath(const std::string& name, const std::string& type,
                                             std::string& path) const;

  // Reads resource `name`.plist as a dictionary; `dictionary` receives a new
  // reference owned by the caller. kNotFound when absent; the property-list
  // reader's code when the file is not a well-formed dictionary.
  [[nodiscard]] std::error_code CopyDictionaryResource(const std::string& name,
                                                       xpc_object_t& dictionary) const;

  // The entry `key` of localisation table `table`, in the first of the user's
  // languages (then "en", then "Base") whose table has it. kNotFound when no
  // table has it.
  [[nodiscard]] std::error_code CopyLocalizedString(const std::string& key,
                                                    const std::string& table,
                                                    std::string& value) const;

  const std::string& Path() const { return path_; }

  explicit Bundle(std::string path) : path_(std::move(path)) {}

 private:
  std::string path_;
};

}  // namespace QelSS
