#include "platform/support/SiloedPath.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "platform/support/FilePermissions.h"

namespace {

constexpr mode_t kDataRootMode = 0700;  // what the XDG base-directory rules ask for

std::string HomeDirectory() {
  const char* home = std::getenv("HOME");
  if (home && home[0] == '/') return home;
  long size = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(size > 0 ? static_cast<size_t>(size) : 16384);
  passwd entry;
  passwd* found = nullptr;
  if (getpwuid_r(geteuid(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found ||
      !found->pw_dir || found->pw_dir[0] != '/') {
    return std::string();
  }
  return found->pw_dir;
}

// The folder under which "qelvarin" lives. A relative XDG_DATA_HOME is invalid
// by the base-directory rules and is ignored like an unset one.
std::string DataRoot() {
  const char* xdg = std::getenv("XDG_DATA_HOME");
  if (xdg && xdg[0] == '/') return xdg;
  if (geteuid() == 0) return "/var/lib";
  const std::string home = HomeDirectory();
  return home.empty() ? home : home + "/.local/share";
}

// The data root's missing levels belong to the user alone. mkdir applies the
// umask, so the mode is set again; an existing folder keeps its own.
bool MakeDataRootLevel(const std::string& path) {
  if (mkdir(path.c_str(), kDataRootMode) == 0) return chmod(path.c_str(), kDataRootMode) == 0;
  if (errno != EEXIST) return false;
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Appends each "/"-separated component of `relative` to `path`, creating the
// directories that are missing. Empty components are skipped.
template <typename MakeLevel>
bool MakeChain(std::string& path, const std::string& relative, MakeLevel make) {
  size_t start = 0;
  while (start <= relative.size()) {
    size_t end = relative.find('/', start);
    if (end == std::string::npos) end = relative.size();
    if (end > start) {
      path += '/';
      path.append(relative, start, end - start);
      if (!make(path)) return false;
    }
    start = end + 1;
  }
  return true;
}

}  // namespace

char* QelCreateSiloedPath(const char* /*base*/, const char* folder, int /*flag*/) {
  if (!folder) return nullptr;
  try {
    const std::string root = DataRoot();
    if (root.empty()) return nullptr;
    std::string path;
    if (!MakeChain(path, root, MakeDataRootLevel)) return nullptr;
    if (!MakeChain(path, std::string("qelvarin/") + folder,
                   QelSS::platform::MakeGroupZeroFolder)) {
      return nullptr;
    }
    return strdup(path.c_str());
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}
