#include "api/FolderLevels.h"

#include "platform/support/FilePermissions.h"
#include "platform/support/FileSystem.h"
#include "qelss/platform/ErrorCode.h"

namespace QelSS {
namespace {

constexpr const char* kDelimiters = "/ ";

using platform::FileKind;

bool IsDirectory(const std::string& path) {
  return platform::IsKind(*platform::DefaultFileSystem(), path, FileKind::kDirectory);
}

// A level that cannot be looked at counts as present, so that it is not made.
bool Exists(const std::string& path) {
  FileKind kind = FileKind::kMissing;
  return platform::DefaultFileSystem()->KindOf(path, kind) != kSuccess ||
         kind != FileKind::kMissing;
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
