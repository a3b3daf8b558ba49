#include "platform/support/FilePermissions.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "qelss/platform/ErrorCode.h"

namespace QelSS::platform {
namespace {

constexpr gid_t kKeepGroup = static_cast<gid_t>(-1);
constexpr gid_t kGroupZero = 0;
constexpr unsigned kGroupBits = 070;
constexpr unsigned kFolderMode = 0770;

std::error_code SystemError() { return std::error_code(errno, std::system_category()); }

bool InSupplementaryGroupZero() {
  const int count = ::getgroups(0, nullptr);
  if (count <= 0) return false;
  std::vector<gid_t> groups(static_cast<size_t>(count));
  const int got = ::getgroups(count, groups.data());
  for (int i = 0; i < got; ++i) {
    if (groups[static_cast<size_t>(i)] == kGroupZero) return true;
  }
  return false;
}

std::error_code ChangeOwner(const std::string& path, uid_t owner, gid_t group) {
  if (group == kGroupZero && !MayUseGroupZero()) group = kKeepGroup;
  if (owner == static_cast<uid_t>(-1) && group == kKeepGroup) return make_error_code(kSuccess);
  if (chown(path.c_str(), owner, group) == 0) return make_error_code(kSuccess);
  return SystemError();
}

}  // namespace

bool MayUseGroupZero() {
  return ::geteuid() == 0 || ::getegid() == kGroupZero || InSupplementaryGroupZero();
}

unsigned ModeForGroupZero(unsigned mode) { return MayUseGroupZero() ? mode : mode & ~kGroupBits; }

std::error_code SetFilePermissions(const std::string& path, unsigned mode, uid_t owner,
                                   gid_t group) {
  if (path.empty()) return make_error_code(kDirectoryError);
  if (mode != kKeepMode && group == kGroupZero) mode = ModeForGroupZero(mode);
  if (mode != kKeepMode && chmod(path.c_str(), static_cast<mode_t>(mode)) != 0) {
    return SystemError();
  }
  return ChangeOwner(path, owner, group);
}

// mkdir applies the umask, so the mode is set again on the folder just made;
// one made by someone else in between is theirs and keeps its mode.
bool MakeGroupZeroFolder(const std::string& path) {
  if (::mkdir(path.c_str(), 0700) == 0) {
    return SetFilePermissions(path, kFolderMode, static_cast<uid_t>(-1), kGroupZero) == kSuccess;
  }
  if (errno != EEXIST) return false;
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

}  // namespace QelSS::platform
