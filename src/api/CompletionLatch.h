#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <system_error>

#include "qelss/domain/IDomainSetting.h"

namespace QelSS {

// Carries one outcome from a completion function to a thread that waits for it
// with a time limit. Held through std::shared_ptr by both sides, because the
// completion may run after the waiter gave up, and it may run more than once
// (the factory reports a bad name and then the opening's own outcome): the
// first outcome is kept and later ones are dropped.
class CompletionLatch {
 public:
  // Keeps `code` and `domain` unless an outcome arrived before; wakes the
  // waiter. Returns whether this outcome was kept.
  bool Complete(std::error_code code, std::shared_ptr<IDomainSetting> domain = nullptr);

  // Waits up to `limit` for the first outcome. kTimeout when none came;
  // otherwise its code, with its domain moved into `domain` when asked for.
  std::error_code Wait(std::chrono::milliseconds limit,
                       std::shared_ptr<IDomainSetting>* domain = nullptr);

 private:
  std::mutex mutex_;
  std::condition_variable completed_;
  bool done_ = false;                       // guarded by mutex_
  bool abandoned_ = false;                  // guarded by mutex_: the waiter gave up
  std::error_code code_;                    // guarded by mutex_
  std::shared_ptr<IDomainSetting> domain_;  // guarded by mutex_
};

}  // namespace QelSS
