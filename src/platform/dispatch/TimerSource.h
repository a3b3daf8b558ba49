#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <system_error>

#include "platform/dispatch/DispatchClock.h"
#include "platform/support/Mutex.h"
#include "qelss/platform/Dispatch.h"

namespace QelSS::platform {

class SerialQueue;

// A timer source (the object behind dispatch_source_t). An asio timer on the
// worker pool waits for the next deadline; each expiry queues one delivery of
// the event handler on the target queue. The contract is in Dispatch.h.
//
// Two counts keep it alive: the application's references (dispatch_retain and
// dispatch_release) and internal ones held by an outstanding timer wait or a
// queued delivery. When the application lets go of its last reference the
// source cancels itself, so an armed timer cannot outlive every owner.
class TimerSource {
 public:
  // A suspended source delivering on `target`, with one application reference.
  // Throws std::bad_alloc.
  static TimerSource* New(SerialQueue* target);

  static TimerSource* FromHandle(dispatch_source_t handle) noexcept {
    return reinterpret_cast<TimerSource*>(handle);
  }
  dispatch_source_t Handle() noexcept { return reinterpret_cast<dispatch_source_t>(this); }

  void RetainForUser() noexcept;
  void ReleaseForUser() noexcept;

  void SetTimer(dispatch_time_t start, uint64_t interval);
  void SetEventHandler(std::function<void()> handler);
  void SetCancelHandler(std::function<void()> handler);
  void Suspend();
  void Resume();
  void Cancel();
  bool IsCancelled();

  // Makes the worker pool look at every timer deadline again, after the
  // dispatch clock jumped.
  static void WakeTimersForTesting();

 private:
  using Handler = std::shared_ptr<const std::function<void()>>;
  struct Waiter;

  explicit TimerSource(SerialQueue* target);
  ~TimerSource();

  void Retain() noexcept { refs_.fetch_add(1, std::memory_order_relaxed); }
  void Release() noexcept;

  void ArmLocked() QELSS_REQUIRES(mutex_);
  void DisarmLocked() QELSS_REQUIRES(mutex_);
  void OnExpiry(const std::error_code& error, uint64_t generation);
  void ScheduleNextTickLocked(DispatchClock::time_point now) QELSS_REQUIRES(mutex_);
  void QueueDeliveryLocked() QELSS_REQUIRES(mutex_);
  void Deliver();

  std::atomic<uint32_t> refs_{1};
  std::atomic<uint32_t> userRefs_{1};
  SerialQueue* const target_;  // retained

  Mutex mutex_;
  unsigned suspendCount_ QELSS_GUARDED_BY(mutex_) = 1;
  bool cancelled_ QELSS_GUARDED_BY(mutex_) = false;
  bool scheduled_ QELSS_GUARDED_BY(mutex_) = false;       // a next tick exists
  bool deliveryQueued_ QELSS_GUARDED_BY(mutex_) = false;  // a delivery waits on the target queue
  bool tickWhileSuspended_ QELSS_GUARDED_BY(mutex_) = false;  // a tick fell due while suspended
  DispatchClock::time_point start_ QELSS_GUARDED_BY(mutex_){};
  DispatchClock::time_point next_ QELSS_GUARDED_BY(mutex_){};
  DispatchClock::duration interval_ QELSS_GUARDED_BY(mutex_){0};  // 0: one-shot
  uint64_t generation_ QELSS_GUARDED_BY(mutex_) = 0;  // bumped on disarm; older expiries are void
  Handler handler_ QELSS_GUARDED_BY(mutex_);
  std::function<void()> cancelHandler_ QELSS_GUARDED_BY(mutex_);
  // The asio timer, made on the first arm so that a source that never runs
  // does not start the worker pool.
  std::unique_ptr<Waiter> waiter_ QELSS_GUARDED_BY(mutex_);
};

}  // namespace QelSS::platform
