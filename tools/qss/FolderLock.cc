#include "FolderLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "qelss/values/ErrorCode.h"

namespace QelSS::Qss {
namespace {

constexpr mode_t kFolderMode = 0770;

bool IsDirectory(const std::string& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// mkdir applies the umask; the mode is set again so that the group can use
// the folder, as the library does.
bool MakeLevel(const std::string& path) {
  if (::mkdir(path.c_str(), kFolderMode) == 0) return ::chmod(path.c_str(), kFolderMode) == 0;
  return errno == EEXIST && IsDirectory(path);
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
