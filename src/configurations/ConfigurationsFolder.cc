#include "configurations/ConfigurationsFolder.h"

#include <mutex>
#include <utility>

namespace QelSS {
namespace {

constexpr const char* kFixedFolder = "/tmp/EmbeddedDomain/CF";

std::mutex gMutex;
std::string gOverride;  // guarded by gMutex; empty: the fixed folder

}  // namespace

std::string ConfigurationsFolder() {
  std::lock_guard lock(gMutex);
  return gOverride.empty() ? kFixedFolder : gOverride;
}

std::string SetConfigurationsFolderForTesting(std::string folder) {
  std::lock_guard lock(gMutex);
  std::string previous = gOverride.empty() ? kFixedFolder : gOverride;
  gOverride = std::move(folder);
  return previous;
}

}  // namespace QelSS
