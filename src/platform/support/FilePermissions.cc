#include "platform/support/FilePermissions.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "qelss/values/ErrorCode.h"

namespace QelSS::platform {
namespace {

constexpr gid_t kKeepGroup = static_cast<gid_t>(-1);

std::error_code SystemError() { return std::error_code(errno, std::system_category()); }

// Only root may give a file to group 0 unless the caller happens to belong to
// it; everyone else keeps the file's group, which is the best they can do.
std::error_code ChangeOwner(const std::string& path, uid_t owner, gid_t group) {
  if (chown(path.c_str(), owner, group) == 0) return make_error_code(kSuccess);
  if (errno != EPERM || geteuid() == 0 || group != 0) return SystemError();
  if (chown(path.c_str(), owner, kKeepGroup) == 0) return make_error_code(kSuccess);
  return SystemError();
}

}  // namespace

std::error_code SetFilePermissions(const std::string& path, unsigned mode, uid_t owner,
                                   gid_t group) {
  if (path.empty()) return make_error_code(kDirectoryError);
  if (mode != kKeepMode && chmod(path.c_str(), static_cast<mode_t>(mode)) != 0) {
    return SystemError();
  }
  return ChangeOwner(path, owner, group);
}

}  // namespace QelSS::platform
