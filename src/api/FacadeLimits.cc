#include "api/FacadeLimits.h"

#include <atomic>

namespace QelSS {
namespace {

constexpr std::chrono::milliseconds kDefaultLimit = std::chrono::seconds(30);

std::atomic<std::chrono::milliseconds::rep> commitLimit{kDefaultLimit.count()};

}  // namespace

std::chrono::milliseconds OpenWaitLimit() noexcept { return kDefaultLimit; }

std::chrono::milliseconds CommitWaitLimit() noexcept {
  return std::chrono::milliseconds(commitLimit.load());
}

std::chrono::milliseconds SetCommitWaitLimitForTesting(std::chrono::milliseconds limit) noexcept {
  return std::chrono::milliseconds(commitLimit.exchange(limit.count()));
}

}  // namespace QelSS
