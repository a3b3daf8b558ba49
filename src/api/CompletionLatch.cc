#include "api/CompletionLatch.h"

#include <utility>

#include "qelss/platform/ErrorCode.h"

namespace QelSS {

bool CompletionLatch::Complete(std::error_code code, std::shared_ptr<IDomainSetting> domain) {
  {
    std::lock_guard lock(mutex_);
    if (done_) return false;
    done_ = true;
    code_ = code;
    // Nobody will take a domain that arrives after the waiter gave up; keeping
    // it here could tie it to its own completion for ever.
    if (!abandoned_) domain_ = std::move(domain);
  }
  completed_.notify_all();
  return true;
}

std::error_code CompletionLatch::Wait(std::chrono::milliseconds limit,
                                      std::shared_ptr<IDomainSetting>* domain) {
  // A steady deadline: a clock step while waiting neither cuts the wait short
  // nor stretches it.
  const auto deadline = std::chrono::steady_clock::now() + limit;
  std::unique_lock lock(mutex_);
  if (!completed_.wait_until(lock, deadline, [this] { return done_; })) {
    abandoned_ = true;
    return make_error_code(kTimeout);
  }
  if (domain) *domain = std::move(domain_);
  return code_;
}

}  // namespace QelSS
