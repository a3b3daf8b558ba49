#include "configurations/BundleSearchPath.h"

#include <mutex>

#include "qelss/configurations/Bundles.h"

namespace QelSS {
namespace {

std::mutex gMutex;
std::vector<std::string> gAdded;  // guarded by gMutex, oldest first

}  // namespace

void AddBundleSearchDirectory(const std::string& datadir) {
  if (datadir.empty()) return;
  std::lock_guard lock(gMutex);
  gAdded.push_back(datadir);
}

std::vector<std::string> BundleSearchDirectories() {
  std::vector<std::string> directories;
  {
    std::lock_guard lock(gMutex);
    directories.assign(gAdded.rbegin(), gAdded.rend());
  }
  directories.emplace_back("/usr/local/share");
  directories.emplace_back("/usr/share");
  return directories;
}

}  // namespace QelSS
