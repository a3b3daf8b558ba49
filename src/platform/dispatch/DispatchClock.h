#pragma once

#include <chrono>
#include <cstdint>

#include "qelss/platform/Dispatch.h"

namespace QelSS::platform {

// The clock behind dispatch_time, timer sources and group deadlines: the
// monotonic clock plus an offset that only tests move.
//
// Test seam. A test that needs time to pass (a local domain's ten-second save
// timer, say) calls AdvanceForTesting instead of sleeping: every dispatch time
// and SystemNow() jump forward by the step, and every armed timer whose deadline
// the jump has passed fires at once, as it would have after a real wait. Timer
// semantics are unchanged; the clock stays monotonic. Code that compares its own
// timestamps with a timer's ticks (a quiet period measured on the wall clock)
// should take them from SystemNow() so that they jump together.
class DispatchClock {
 public:
  using duration = std::chrono::nanoseconds;
  using rep = duration::rep;
  using period = duration::period;
  using time_point = std::chrono::time_point<DispatchClock>;
  static constexpr bool is_steady = true;

  static time_point now() noexcept;

  // The wall clock, moved by the same test offset.
  static std::chrono::system_clock::time_point SystemNow() noexcept;

  // The real monotonic time at which the dispatch clock shows `when`, for waits
  // on condition variables.
  static std::chrono::steady_clock::time_point ToSteady(time_point when) noexcept;

  static time_point FromDispatchTime(dispatch_time_t when) noexcept;
  static dispatch_time_t ToDispatchTime(time_point when) noexcept;

  // Moves the clock forward by `step` (negative steps are ignored) and wakes the
  // timers. Tests only.
  static void AdvanceForTesting(std::chrono::nanoseconds step);
};

}  // namespace QelSS::platform
