#pragma once

#include <string>
#include <sys/types.h>
#include <system_error>

namespace QelSS::platform {

inline constexpr unsigned kKeepMode = 0xFFFF;

// Sets mode (unless kKeepMode), then owner and group (-1 keeps either). An empty
// path gives kDirectoryError; a failing chmod or chown gives errno in the system
// category. A chown to group 0 that the process is not permitted to make (not
// root) is not a failure: the file keeps its group. Success gives kSuccess.
std::error_code SetFilePermissions(const std::string& path, unsigned mode, uid_t owner,
                                   gid_t group);

}  // namespace QelSS::platform
