#include "platform/dispatch/TimerSource.h"

#include <asio/basic_waitable_timer.hpp>

#include "platform/dispatch/FatalError.h"
#include "platform/dispatch/SerialQueue.h"
#include "platform/dispatch/WorkerPool.h"

namespace QelSS::platform {

namespace {

using AsioTimer = asio::basic_waitable_timer<DispatchClock>;

constexpr uint32_t kDeliveryTag = DispatchQueue::MakeTag("TIMR");

// Longer intervals (about 30 years) are treated as one-shot, which keeps the
// tick arithmetic far from overflow.
constexpr uint64_t kMaxIntervalNs = uint64_t{1} << 60;

constinit Mutex gKickMutex;
constinit AsioTimer* gKickTimer QELSS_GUARDED_BY(gKickMutex) = nullptr;  // never freed

}  // namespace

struct TimerSource::Waiter {
  Waiter() : timer(WorkerPool::Instance().Context()) {}
  AsioTimer timer;
};

TimerSource* TimerSource::New(SerialQueue* target) { return new TimerSource(target); }

TimerSource::TimerSource(SerialQueue* target) : target_(target) { target_->Retain(); }

TimerSource::~TimerSource() { target_->Release(); }

void TimerSource::Release() noexcept {
  if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
}

void TimerSource::RetainForUser() noexcept {
  userRefs_.fetch_add(1, std::memory_order_relaxed);
  Retain();
}

void TimerSource::ReleaseForUser() noexcept {
  if (userRefs_.fetch_sub(1, std::memory_order_acq_rel) == 1) Cancel();
  Release();
}

void TimerSource::SetTimer(dispatch_time_t start, uint64_t interval) {
  MutexLock lock(mutex_);
  if (cancelled_) return;
  DisarmLocked();
  tickWhileSuspended_ = false;
  scheduled_ = start != DISPATCH_TIME_FOREVER;
  if (!scheduled_) return;
  start_ = DispatchClock::FromDispatchTime(start);
  next_ = start_;
  const bool oneShot = interval == 0 || interval > kMaxIntervalNs;
  interval_ = DispatchClock::duration(oneShot ? 0 : static_cast<int64_t>(interval));
  ArmLocked();
}

void TimerSource::SetEventHandler(std::function<void()> handler) {
  Handler replacement;
  if (handler) replacement = std::make_shared<const std::function<void()>>(std::move(handler));
  MutexLock lock(mutex_);
  if (!cancelled_) handler_.swap(replacement);
  // The old handler dies with `replacement` after the lock is gone.
}

void TimerSource::SetCancelHandler(std::function<void()> handler) {
  MutexLock lock(mutex_);
  if (!cancelled_) cancelHandler_.swap(handler);
}

void TimerSource::Suspend() {
  MutexLock lock(mutex_);
  if (++suspendCount_ == 1) DisarmLocked();
}

void TimerSource::Resume() {
  MutexLock lock(mutex_);
  if (suspendCount_ == 0) {
    DispatchFatal("timer source delivering on queue '" + target_->GetLabel() +
                  "' resumed more often than suspended");
  }
  if (--suspendCount_ > 0) return;
  if (tickWhileSuspended_) {
    tickWhileSuspended_ = false;
    QueueDeliveryLocked();
  }
  ArmLocked();
}

void TimerSource::Cancel() {
  Handler oldHandler;
  std::function<void()> cancelHandler;
  {
    MutexLock lock(mutex_);
    if (cancelled_) return;
    cancelled_ = true;
    DisarmLocked();
    oldHandler.swap(handler_);
    cancelHandler.swap(cancelHandler_);
  }
  // Queued behind every delivery already waiting, which will see the flag.
  if (cancelHandler)
    target_->Async(kDeliveryTag, DispatchQueue::kRunNoFlags, std::move(cancelHandler));
}

bool TimerSource::IsCancelled() {
  MutexLock lock(mutex_);
  return cancelled_;
}

void TimerSource::ArmLocked() {
  if (cancelled_ || suspendCount_ > 0 || !scheduled_) return;
  if (!waiter_) waiter_ = std::make_unique<Waiter>();
  const uint64_t generation = ++generation_;
  waiter_->timer.expires_at(next_);
  Retain();  // held by the wait
  waiter_->timer.async_wait([this, generation](const std::error_code& error) {
    OnExpiry(error, generation);
    Release();
  });
}

void TimerSource::DisarmLocked() {
  ++generation_;
  if (waiter_) waiter_->timer.cancel();
}

void TimerSource::OnExpiry(const std::error_code& error, uint64_t generation) {
  MutexLock lock(mutex_);
  // A wait that was re-aimed or cancelled may still complete without an error
  // when its expiry was already being handled; the generation tells.
  if (error || generation != generation_ || cancelled_) return;
  ScheduleNextTickLocked(DispatchClock::now());
  QueueDeliveryLocked();
  ArmLocked();
}

// The next tick is the first multiple of the interval after `now`: ticks missed
// while the pool was busy or the source suspended collapse into the one just
// delivered.
void TimerSource::ScheduleNextTickLocked(DispatchClock::time_point now) {
  if (interval_.count() == 0) {
    scheduled_ = false;
    return;
  }
  const auto elapsed = now - start_;
  next_ = start_ + (elapsed / interval_ + 1) * interval_;
}

void TimerSource::QueueDeliveryLocked() {
  if (deliveryQueued_) return;  // merged into the delivery already waiting
  deliveryQueued_ = true;
  Retain();  // held by the delivery
  bool queued = false;
  try {
    queued = target_->Async(kDeliveryTag, DispatchQueue::kRunNoFlags, [this] {
      Deliver();
      Release();
    });
  } catch (const std::bad_alloc&) {
  }
  if (!queued) {
    deliveryQueued_ = false;
    Release();  // never the last: our caller holds a reference
  }
}

void TimerSource::Deliver() {
  Handler handler;
  {
    MutexLock lock(mutex_);
    deliveryQueued_ = false;
    if (cancelled_) return;
    if (suspendCount_ > 0) {
      tickWhileSuspended_ = true;
      return;
    }
    handler = handler_;
  }
  if (handler && *handler) (*handler)();
}

void TimerSource::WakeTimersForTesting() {
  MutexLock lock(gKickMutex);
  if (gKickTimer == nullptr) gKickTimer = new AsioTimer(WorkerPool::Instance().Context());
  // asio re-reads its deadlines only when a new earliest one arrives. A wait
  // due before every other makes the pool wake and fire each timer whose
  // deadline the clock has now passed.
  gKickTimer->expires_at(DispatchClock::time_point::min());
  gKickTimer->async_wait([](const std::error_code&) {});
}

}  // namespace QelSS::platform
