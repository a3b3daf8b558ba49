#include "platform/dispatch/SerialQueue.h"

#include <chrono>
#include <memory>

#include "platform/dispatch/DeadlockWatch.h"
#include "platform/dispatch/FatalError.h"
#include "platform/dispatch/RunningFrame.h"
#include "platform/dispatch/WorkerPool.h"
#include "qelss/platform/ErrorCode.h"

namespace QelSS::platform {

namespace {

// A waiter blocked this long may be part of a cycle of synchronous runs; only
// then is it worth the global registry.
constexpr auto kDeadlockCheckDelay = std::chrono::milliseconds(100);

// Pause instructions spent waiting for a busy queue before sleeping.
constexpr int kSpinLimit = 100;

// Blocks run per pool job before the job yields its thread to other queues.
constexpr int kDrainBatch = 32;

}  // namespace

struct SerialQueue::WorkItem {
  enum Kind { kAsync, kSync };
  WorkItem(Kind k, uint32_t t, uint32_t f) : kind(k), tag(t), flags(f) {}
  WorkItem* next = nullptr;
  const Kind kind;
  const uint32_t tag;
  const uint32_t flags;
};

struct SerialQueue::AsyncItem : WorkItem {
  AsyncItem(uint32_t t, uint32_t f, std::function<void()> b)
      : WorkItem(kAsync, t, f), block(std::move(b)) {}
  std::function<void()> block;
};

struct SerialQueue::SyncWaiter : WorkItem {
  enum Turn { kWaiting, kGranted, kRefused };
  SyncWaiter(uint32_t t, uint32_t f) : WorkItem(kSync, t, f) {}
  Turn turn = kWaiting;  // protected by the queue's mutex_
  std::condition_variable wake;
};

void SerialQueue::DeleteChain(AsyncItem* item) noexcept {
  while (item != nullptr) {
    AsyncItem* next = static_cast<AsyncItem*>(item->next);
    delete item;
    item = next;
  }
}

SerialQueue* SerialQueue::New(const char* label) { return new SerialQueue(label); }

SerialQueue::SerialQueue(const char* label) : label_(label != nullptr ? label : "") {}

SerialQueue::~SerialQueue() {
  // Pending blocks hold a reference through their drain job, so none can be
  // left here; this only guards against a future change to that rule.
  DeleteChain(TakePendingLocked());
}

void SerialQueue::Release() noexcept {
  if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
}

bool SerialQueue::Sync(uint32_t tag, uint32_t flags, QelSS::FunctionRef<void()> block) {
  if (IsRunningOnThisThread(this)) AbortReentrantSync(tag, flags);
  uint32_t idle = 0;
  if (!state_.compare_exchange_strong(idle, kOwned, std::memory_order_acquire,
                                      std::memory_order_relaxed)) {
    if (!WaitForTurn(tag, flags)) return false;
  }
  RunOwned(tag, flags, block);
  return true;
}

bool SerialQueue::TrySync(uint32_t tag, uint32_t flags, QelSS::FunctionRef<void()> block) {
  if (IsRunningOnThisThread(this)) return false;
  uint32_t idle = 0;
  if (!state_.compare_exchange_strong(idle, kOwned, std::memory_order_acquire,
                                      std::memory_order_relaxed)) {
    return false;
  }
  RunOwned(tag, flags, block);
  return true;
}

void SerialQueue::RunOwned(uint32_t tag, uint32_t flags, QelSS::FunctionRef<void()> block) {
  // Gives the queue back also when the block throws, after the frame is gone.
  struct Owner {
    SerialQueue* queue;
    ~Owner() { queue->ReleaseOwnership(); }
  } owner{this};
  RunningFrameScope frame(this, tag, flags);
  block();
}

// Blocks of the library's objects are short, so an owner usually lets go within
// a few hundred nanoseconds: spinning that long is far cheaper than sleeping.
// Only while nobody is queued, so that no one overtakes a waiting item.
bool SerialQueue::SpinForTurn() noexcept {
  for (int spin = 0; spin < kSpinLimit; ++spin) {
    uint32_t state = state_.load(std::memory_order_relaxed);
    if (state & (kQueued | kClosed)) return false;
    if (state == 0 && state_.compare_exchange_weak(state, kOwned, std::memory_order_acquire,
                                                   std::memory_order_relaxed)) {
      return true;
    }
    __builtin_ia32_pause();
  }
  return false;
}

bool SerialQueue::WaitForTurn(uint32_t tag, uint32_t flags) {
  if (SpinForTurn()) return true;
  SyncWaiter waiter(tag, flags);
  MutexLock lock(mutex_);
  uint32_t state = state_.load(std::memory_order_relaxed);
  for (;;) {
    if (state & kClosed) return false;
    if (!(state & kOwned)) {
      // The owner let go between our fast attempt and the lock.
      if (state_.compare_exchange_weak(state, state | kOwned, std::memory_order_acquire,
                                       std::memory_order_relaxed)) {
        return true;
      }
    } else if (state_.compare_exchange_weak(state, state | kQueued, std::memory_order_relaxed,
                                            std::memory_order_relaxed)) {
      break;
    }
  }
  PushLocked(&waiter);
  WaitAsQueuedItem(lock, waiter);
  return waiter.turn == SyncWaiter::kGranted;
}

void SerialQueue::WaitAsQueuedItem(MutexLock& lock, SyncWaiter& waiter) {
  auto decided = [&waiter] { return waiter.turn != SyncWaiter::kWaiting; };
  WorkerPool::BlockingScope blocking;
  if (lock.WaitFor(waiter.wake, kDeadlockCheckDelay, decided)) return;
  // The registry's lock is never taken under a queue's mutex: the watch
  // begins and ends with the mutex let go. The caller's lock still counts as
  // holding it, and does again once it is taken back.
  mutex_.Unlock();
  {
    DeadlockWatch watch(*this);
    mutex_.Lock();
    lock.Wait(waiter.wake, decided);
    mutex_.Unlock();
  }
  mutex_.Lock();
}

void SerialQueue::ReleaseOwnership() noexcept {
  uint32_t owned = kOwned;
  if (state_.compare_exchange_strong(owned, 0, std::memory_order_release,
                                     std::memory_order_relaxed)) {
    return;
  }
  bool drain = false;
  {
    MutexLock lock(mutex_);
    drain = PassOwnershipLocked();
  }
  if (drain) ScheduleDrain();
}

bool SerialQueue::PassOwnershipLocked() noexcept {
  WorkItem* next = head_;
  if (next == nullptr) {
    BecomeIdleLocked();
    return false;
  }
  if (next->kind != WorkItem::kSync) return true;
  PopLocked();
  auto* waiter = static_cast<SyncWaiter*>(next);
  waiter->turn = SyncWaiter::kGranted;
  // Notified under the lock: once the waiter can see its turn it may return
  // and destroy the condition variable.
  waiter->wake.notify_one();
  return false;
}

void SerialQueue::BecomeIdleLocked() noexcept {
  const uint32_t before = state_.fetch_and(~kOwned, std::memory_order_release);
  if (before & kClosed) idle_.notify_all();
}

bool SerialQueue::Async(uint32_t tag, uint32_t flags, std::function<void()> block) {
  if (!block) return false;
  std::unique_ptr<AsyncItem> item;
  try {
    item = std::make_unique<AsyncItem>(tag, flags, std::move(block));
  } catch (const std::bad_alloc&) {
    return false;
  }
  bool startDrain = false;
  {
    MutexLock lock(mutex_);
    uint32_t state = state_.load(std::memory_order_relaxed);
    for (;;) {
      if (state & kClosed) return false;
      const uint32_t wanted = state | kOwned | kQueued;
      if (state_.compare_exchange_weak(state, wanted, std::memory_order_acquire,
                                       std::memory_order_relaxed)) {
        startDrain = !(state & kOwned);
        break;
      }
    }
    PushLocked(item.release());
  }
  if (startDrain) ScheduleDrain();
  return true;
}

void SerialQueue::ScheduleDrain() noexcept {
  Retain();  // held by the drain job until it gives the queue away
  WorkerPool::Instance().Post([this] { DrainJob(); });
}

void SerialQueue::DrainJob() noexcept {
  if (DrainBatch()) {
    WorkerPool::Instance().Post([this] { DrainJob(); });
    return;
  }
  Release();
}

bool SerialQueue::DrainBatch() noexcept {
  for (int run = 0; run < kDrainBatch; ++run) {
    MutexLock lock(mutex_);
    WorkItem* next = head_;
    if (next == nullptr || next->kind == WorkItem::kSync) {
      // Neither is an asynchronous block: nothing to drain.
      (void)PassOwnershipLocked();
      return false;
    }
    PopLocked();
    lock.Unlock();
    RunAsyncItem(static_cast<AsyncItem*>(next));
  }
  return true;
}

void SerialQueue::RunAsyncItem(AsyncItem* item) noexcept {
  std::unique_ptr<AsyncItem> owned(item);
  RunningFrameScope frame(this, item->tag, item->flags);
  item->block();
  // The block's captures die here, still as work of this queue.
  owned.reset();
}

void SerialQueue::PushLocked(WorkItem* item) noexcept {
  item->next = nullptr;
  if (tail_ != nullptr) {
    tail_->next = item;
  } else {
    head_ = item;
  }
  tail_ = item;
}

SerialQueue::WorkItem* SerialQueue::PopLocked() noexcept {
  WorkItem* item = head_;
  head_ = item->next;
  if (head_ == nullptr) {
    tail_ = nullptr;
    state_.fetch_and(~kQueued, std::memory_order_relaxed);
  }
  item->next = nullptr;
  return item;
}

// Unlinks every queued item: asynchronous blocks are returned as a chain for the
// caller to destroy outside the lock, waiting synchronous callers are refused.
SerialQueue::AsyncItem* SerialQueue::TakePendingLocked() noexcept {
  AsyncItem* dropped = nullptr;
  while (head_ != nullptr) {
    WorkItem* item = PopLocked();
    if (item->kind == WorkItem::kSync) {
      auto* waiter = static_cast<SyncWaiter*>(item);
      waiter->turn = SyncWaiter::kRefused;
      waiter->wake.notify_one();
    } else {
      item->next = dropped;
      dropped = static_cast<AsyncItem*>(item);
    }
  }
  return dropped;
}

std::error_code SerialQueue::Finish(unsigned waitSeconds, unsigned flags) {
  const bool calledFromQueue = IsRunningOnThisThread(this);
  AsyncItem* dropped = nullptr;
  std::error_code result;
  {
    MutexLock lock(mutex_);
    state_.fetch_or(kClosed, std::memory_order_relaxed);
    if (flags & DispatchQueue::kFinishDiscardPending) dropped = TakePendingLocked();
    auto idle = [this] { return !(state_.load(std::memory_order_acquire) & kOwned); };
    if (calledFromQueue) {
      result = make_error_code(kOperationRefused);
    } else if (!lock.WaitFor(idle_, std::chrono::seconds(waitSeconds), idle)) {
      result = make_error_code(kTimeout);
    }
  }
  DeleteChain(dropped);
  return result;
}

void SerialQueue::AbortReentrantSync(uint32_t tag, uint32_t flags) const {
  const RunningFrame* running = FindFrame(this);
  DispatchFatal("synchronous run of " + DescribeBlock(tag, flags) + " on queue '" + label_ +
                "' from " + DescribeBlock(running->tag, running->flags) +
                " already running on it; this would deadlock");
}

}  // namespace QelSS::platform
