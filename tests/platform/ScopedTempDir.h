#pragma once

#include <stdlib.h>

#include <filesystem>
#include <string>
#include <system_error>

namespace QelSS::testing {

// A fresh directory under the system's temporary folder, removed with its
// contents when the object goes.
class ScopedTempDir {
 public:
  ScopedTempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "qelss-test-XXXXXX").string();
    if (mkdtemp(pattern.data())) path_ = pattern;
  }
  ~ScopedTempDir() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  ScopedTempDir(const ScopedTempDir&) = delete;
  ScopedTempDir& operator=(const ScopedTempDir&) = delete;

  // Empty when the directory could not be made.
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

}  // namespace QelSS::testing
