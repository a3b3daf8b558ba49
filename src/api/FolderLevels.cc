#include "api/FolderLevels.h"

#include <sys/stat.h>

#include "platform/support/FilePermissions.h"
#include "qelss/platform/ErrorCode.h"

namespace QelSS {
namespace {

constexpr const char* kDelimiters = "/ ";

bool IsDirectory(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool Exists(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0;
}

}  // namespace

std::error_code MakeFolderLevels(const std::string& folder) {
  if (folder.empty()) return make_error_code(kDirectoryError);
  if (IsDirectory(folder)) return make_error_code(kSuccess);

  std::string level;
  const bool absolute = folder.front() == '/';
  size_t start = folder.find_first_not_of(kDelimiters);
  while (start != std::string::npos) {
    const size_t end = folder.find_first_of(kDelimiters, start);
    if (!level.empty() || absolute) level += '/';
    level += folder.substr(start, end == std::string::npos ? std::string::npos : end - start);
    if (Exists(level) ? !IsDirectory(level) : !platform::MakeGroupZeroFolder(level)) {
      return make_error_code(kDirectoryError);
    }
    start = end == std::string::npos ? end : folder.find_first_not_of(kDelimiters, end);
  }
  return make_error_code(level.empty() ? kDirectoryError : kSuccess);
}

}  // namespace QelSS
