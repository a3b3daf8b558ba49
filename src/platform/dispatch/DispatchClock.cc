#include "platform/dispatch/DispatchClock.h"

#include <atomic>
#include <limits>

#include "platform/dispatch/TimerSource.h"

namespace QelSS::platform {

namespace {

constinit std::atomic<int64_t> gTestOffsetNs{0};

std::chrono::nanoseconds TestOffset() noexcept {
  return std::chrono::nanoseconds(gTestOffsetNs.load(std::memory_order_acquire));
}

}  // namespace

DispatchClock::time_point DispatchClock::now() noexcept {
  return time_point(std::chrono::steady_clock::now().time_since_epoch() + TestOffset());
}

std::chrono::system_clock::time_point DispatchClock::SystemNow() noexcept {
  return std::chrono::system_clock::now() +
         std::chrono::duration_cast<std::chrono::system_clock::duration>(TestOffset());
}

std::chrono::steady_clock::time_point DispatchClock::ToSteady(time_point when) noexcept {
  return std::chrono::steady_clock::time_point(when.time_since_epoch() - TestOffset());
}

DispatchClock::time_point DispatchClock::FromDispatchTime(dispatch_time_t when) noexcept {
  if (when == DISPATCH_TIME_NOW) return now();
  if (when >= static_cast<uint64_t>(std::numeric_limits<rep>::max())) return time_point::max();
  return time_point(duration(static_cast<rep>(when)));
}

dispatch_time_t DispatchClock::ToDispatchTime(time_point when) noexcept {
  const rep count = when.time_since_epoch().count();
  if (count <= 0) return 1;  // 0 would read as DISPATCH_TIME_NOW
  if (when == time_point::max()) return DISPATCH_TIME_FOREVER;
  return static_cast<dispatch_time_t>(count);
}

void DispatchClock::AdvanceForTesting(std::chrono::nanoseconds step) {
  if (step.count() <= 0) return;
  gTestOffsetNs.fetch_add(step.count(), std::memory_order_acq_rel);
  TimerSource::WakeTimersForTesting();
}

}  // namespace QelSS::platform

dispatch_time_t dispatch_time(dispatch_time_t when, int64_t delta) {
  using QelSS::platform::DispatchClock;
  if (when == DISPATCH_TIME_FOREVER) return DISPATCH_TIME_FOREVER;
  const DispatchClock::time_point base = DispatchClock::FromDispatchTime(when);
  const int64_t baseCount = base.time_since_epoch().count();
  int64_t sum = 0;
  if (__builtin_add_overflow(baseCount, delta, &sum)) {
    return delta > 0 ? DISPATCH_TIME_FOREVER : 1;
  }
  return DispatchClock::ToDispatchTime(DispatchClock::time_point(DispatchClock::duration(sum)));
}
