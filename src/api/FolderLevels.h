#pragma once

#include <string>
#include <system_error>

namespace QelSS {

// Makes sure `folder` exists as a directory. When it is not one already, the
// path is split at every "/" and " " (empty levels skipped) and each missing
// level from the top is created with mode 0770 and group 0, or 0700 where the
// process cannot give group 0 (platform/support/FilePermissions.h).
//   kSuccess          the folder is a directory
//   kDirectoryError   a level cannot be created, or exists and is not a
//                     directory
std::error_code MakeFolderLevels(const std::string& folder);

}  // namespace QelSS
