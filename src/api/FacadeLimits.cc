#include "api/FacadeLimits.h"

#include <atomic>

namespace QelSS {
namespace {

constexpr std::chrono::milliseconds kDefaultLimit = std::chrono::seconds(30);

std::atomic<std::chrono::milliseconds::rep> openLimit{kDefaultLimit.count()};
std::atomic<std::chrono::milliseconds::rep> commitLimit{kDefaultLimit.count()};

std::chrono::milliseconds Swap(std::atomic<std::chrono::milliseconds::rep>& slot,
                               std::chrono::milliseconds limit) noexcept {
  return std::chrono::milliseconds(slot.exchange(limit.count()));
}

}  // namespace

std::chrono::milliseconds OpenWaitLimit() noexcept {
  return std::chrono::milliseconds(openLimit.load());
}

std::chrono::milliseconds CommitWaitLimit() noexcept {
  return std::chrono::milliseconds(commitLimit.load());
}

std::chrono::milliseconds SetOpenWaitLimitForTesting(std::chrono::milliseconds limit) noexcept {
  return Swap(openLimit, limit);
}

std::chrono::milliseconds SetCommitWaitLimitForTesting(std::chrono::milliseconds limit) noexcept {
  return Swap(commitLimit, limit);
}

}  // namespace QelSS
