#include <cstdlib>
#include <mutex>
#include <string>

#include "qelss/platform/xpc_connection.h"

namespace QelSS {
namespace {

constexpr const char* kDefaultRuntimeDirectory = "/run/qelvarin";

std::mutex& OverrideMutex() {
  static std::mutex mutex;
  return mutex;
}

std::string& Override() {
  static std::string folder;
  return folder;
}

}  // namespace

void SetServiceRuntimeDirectory(const std::string& folder) {
  std::lock_guard lock(OverrideMutex());
  Override() = folder;
}

std::string ServiceSocketPath(const std::string& name) {
  std::string folder;
  {
    std::lock_guard lock(OverrideMutex());
    folder = Override();
  }
  if (folder.empty()) {
    const char* fromEnvironment = std::getenv("QELSS_RUNTIME_DIR");
    folder = fromEnvironment != nullptr && *fromEnvironment != '\0' ? fromEnvironment
                                                                    : kDefaultRuntimeDirectory;
  }
  return folder + "/" + name;
}

}  // namespace QelSS
