#include "DefaultFolder.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

namespace QelSS::Qss {
namespace {

std::string HomeFolder() {
  const char* home = std::getenv("HOME");
  if (home && home[0] == '/') return home;
  const long size = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(size > 0 ? static_cast<size_t>(size) : 16384);
  passwd entry;
  passwd* found = nullptr;
  if (getpwuid_r(geteuid(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found ||
      !found->pw_dir || found->pw_dir[0] != '/') {
    return {};
  }
  return found->pw_dir;
}

// A relative XDG_DATA_HOME is invalid by the base-directory rules and ignored.
std::string DataRoot() {
  const char* xdg = std::getenv("XDG_DATA_HOME");
  if (xdg && xdg[0] == '/') return xdg;
  if (geteuid() == 0) return "/var/lib";
  const std::string home = HomeFolder();
  return home.empty() ? home : home + "/.local/share";
}

}  // namespace

std::string DefaultFolder() {
  const std::string root = DataRoot();
  return root.empty() ? root : root + "/qelvarin/domains";
}

std::string HostKeyFile() {
  const std::string root = DataRoot();
  return root.empty() ? root : root + "/qelvarin/DomainSettings/com.qelvarin.QSS";
}

}  // namespace QelSS::Qss
