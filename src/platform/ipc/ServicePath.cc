#include <cstdlib>
#include <mutex>
#include <string>

#include "qelss/platform/xpc_connection.h"

namespace QelSS {
namespace {

constexpr const char* kDefaultRuntimeDirectory = "/run/qelvarin";

// Never destroyed: destructors of static objects (a test's service, say) may
// still set or read the folder while the process ends.
std::mutex& OverrideMutex() {
  static auto* mutex = new std::mutex;
  return *mutex;
}

std::string& Override() {
  static auto* folder = new std::string;
  return *folder;
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
