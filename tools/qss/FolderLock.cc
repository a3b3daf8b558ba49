#include "FolderLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "qelss/platform/ErrorCode.h"

namespace QelSS::Qss {
namespace {

constexpr mode_t kGroupFolderMode = 0770;
constexpr mode_t kOwnerFolderMode = 0700;
constexpr gid_t kGroupZero = 0;

bool IsDirectory(const std::string& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool InGroupZero() {
  if (::geteuid() == 0 || ::getegid() == kGroupZero) return true;
  gid_t groups[NGROUPS_MAX];
  const int count = ::getgroups(NGROUPS_MAX, groups);
  for (int i = 0; i < count; ++i) {
    if (groups[i] == kGroupZero) return true;
  }
  return false;
}

// As the library makes its folders: for the owner and group 0 (0770), or for
// the owner alone where group 0 cannot be given, so that the user's own group,
// which may hold other accounts, never gets in. mkdir applies the umask, so the
// mode is set again; a folder that was already there keeps its own.
bool MakeLevel(const std::string& path) {
  if (::mkdir(path.c_str(), kOwnerFolderMode) != 0) return errno == EEXIST && IsDirectory(path);
  if (!InGroupZero()) return ::chmod(path.c_str(), kOwnerFolderMode) == 0;
  return ::chown(path.c_str(), static_cast<uid_t>(-1), kGroupZero) == 0 &&
         ::chmod(path.c_str(), kGroupFolderMode) == 0;
}

Status FolderFailure(const std::string& folder, int error) {
  return Status::Failure("cannot create the folder " + folder + " (" + std::strerror(error) + ")",
                         make_error_code(kDirectoryError),
                         "check that no part of it is a file and that its parent is writable, or "
                         "choose another with --folder");
}

}  // namespace

Status MakeFolder(const std::string& folder) {
  if (IsDirectory(folder)) return Status::Ok();
  for (size_t end = folder.find('/', 1);; end = folder.find('/', end + 1)) {
    const std::string level = folder.substr(0, end);
    if (!level.empty() && !MakeLevel(level)) return FolderFailure(folder, errno);
    if (end == std::string::npos) return Status::Ok();
  }
}

FolderLock::~FolderLock() {
  if (fd_ >= 0) ::close(fd_);
}

Status FolderLock::Acquire(const std::string& folder) {
  fd_ = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  int rc = fd_ < 0 ? -1 : 0;
  while (rc == 0 && ::flock(fd_, LOCK_EX) != 0) {
    if (errno != EINTR) rc = -1;
  }
  if (rc != 0) {
    return Status::Failure("cannot lock the folder " + folder + " (" + std::strerror(errno) + ")",
                           make_error_code(kFileWriteError), "check the folder's permissions");
  }
  return Status::Ok();
}

}  // namespace QelSS::Qss
