#include "HostKeyCheck.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "DefaultFolder.h"
#include "qelss/platform/ErrorCode.h"

namespace QelSS::Qss {
namespace {

constexpr std::string_view kDomainFilePrefix = "com.qelvarin.";
constexpr std::string_view kLockFileSuffix = ".LOCK";

// Any domain file, or what is left of one (a temporary or kept damaged file):
// all of them are sealed with the host key. Lock files hold nothing.
bool HoldsDomainFiles(const std::string& folder) {
  std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(folder.c_str()), &::closedir);
  if (!dir) return false;
  while (const dirent* entry = ::readdir(dir.get())) {
    const std::string_view name = entry->d_name;
    if (name.starts_with(kDomainFilePrefix) && !name.ends_with(kLockFileSuffix)) return true;
  }
  return false;
}

Status Unreadable(const std::string& key, const std::string& why) {
  return Status::Failure("the host key file " + key + " cannot be read (" + why + ")",
                         make_error_code(kFileReadError),
                         "it encrypts every local domain of this user: give it back to this user "
                         "(mode 0600), or restore it from a copy");
}

}  // namespace

Status CheckHostKey(const DomainOptions& options) {
  const std::string key = HostKeyFile();
  if (key.empty()) return Status::Ok();
  struct stat info {};
  if (::stat(key.c_str(), &info) == 0) {
    if (!S_ISREG(info.st_mode)) return Unreadable(key, "it is not a file");
    if (::access(key.c_str(), R_OK) != 0) return Unreadable(key, std::strerror(errno));
    return Status::Ok();
  }
  if (errno != ENOENT) return Unreadable(key, std::strerror(errno));
  if (options.newKey) return Status::Ok();
  for (const std::string& folder : {options.folder, DefaultFolder()}) {
    if (!HoldsDomainFiles(folder)) continue;
    return Status::Failure(
        "the host key file " + key + " is missing, but " + folder +
            " holds domains encrypted with it",
        make_error_code(kNotFound),
        "restore the key file from a copy to read them, or run again with --new-key to start "
        "afresh with a new key (those domains then stay unreadable)");
  }
  return Status::Ok();
}

}  // namespace QelSS::Qss
