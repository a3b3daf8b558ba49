#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <string>

#include "platform/support/Mutex.h"
#include "qelss/platform/Dispatch.h"

namespace QelSS::platform {

// The one queue implementation. Ownership of the queue (the right to run a
// block) is a bit in an atomic word, so an uncontended synchronous run costs one
// compare-exchange to take it and one to give it back. Everything else goes
// through the mutex: a list of waiting items in submission order, where a
// synchronous caller waits as a node on its own stack and an asynchronous block
// as a heap node. Ownership is handed from item to item without ever being
// free in between, so nobody can overtake an item already queued.
//
// The object is reference counted by hand because dispatch handles and the
// factory's std::shared_ptr must share one count.
class SerialQueue final : public DispatchQueue::IQueue {
 public:
  // A new queue holding one reference for the caller. Throws std::bad_alloc.
  static SerialQueue* New(const char* label);

  static SerialQueue* FromHandle(dispatch_queue_t handle) noexcept {
    return reinterpret_cast<SerialQueue*>(handle);
  }

  void Retain() noexcept { refs_.fetch_add(1, std::memory_order_relaxed); }
  void Release() noexcept;

  bool Sync(uint32_t tag, uint32_t flags, QelSS::FunctionRef<void()> block) override;
  bool TrySync(uint32_t tag, uint32_t flags, QelSS::FunctionRef<void()> block) override;
  bool Async(uint32_t tag, uint32_t flags, std::function<void()> block) override;
  std::error_code Finish(unsigned waitSeconds, unsigned flags) override;
  dispatch_queue_t GetDispatchQueue() noexcept override {
    return reinterpret_cast<dispatch_queue_t>(this);
  }
  const std::string& GetLabel() const noexcept override { return label_; }

 private:
  struct WorkItem;
  struct AsyncItem;
  struct SyncWaiter;

  // Bits of state_. kQueued mirrors "the list is not empty" and is changed only
  // under mutex_; it makes the owner's lock-free release fail so that it looks
  // at the list. kClosed is set once by Finish and never cleared.
  static constexpr uint32_t kOwned = 1;
  static constexpr uint32_t kQueued = 2;
  static constexpr uint32_t kClosed = 4;

  explicit SerialQueue(const char* label);
  ~SerialQueue() override;

  bool SpinForTurn() noexcept;
  bool WaitForTurn(uint32_t tag, uint32_t flags);
  void WaitAsQueuedItem(MutexLock& lock, SyncWaiter& waiter) QELSS_REQUIRES(mutex_);
  void RunOwned(uint32_t tag, uint32_t flags, QelSS::FunctionRef<void()> block);
  void ReleaseOwnership() noexcept;
  // Hands the queue to the first waiting item. True when that item is an
  // asynchronous block: the caller lets go of the mutex, then ScheduleDrain.
  [[nodiscard]] bool PassOwnershipLocked() noexcept QELSS_REQUIRES(mutex_);
  void BecomeIdleLocked() noexcept QELSS_REQUIRES(mutex_);
  void ScheduleDrain() noexcept;
  void DrainJob() noexcept;
  bool DrainBatch() noexcept;
  void RunAsyncItem(AsyncItem* item) noexcept;
  void PushLocked(WorkItem* item) noexcept QELSS_REQUIRES(mutex_);
  WorkItem* PopLocked() noexcept QELSS_REQUIRES(mutex_);
  AsyncItem* TakePendingLocked() noexcept QELSS_REQUIRES(mutex_);
  static void DeleteChain(AsyncItem* item) noexcept;
  [[noreturn]] void AbortReentrantSync(uint32_t tag, uint32_t flags) const;

  std::atomic<uint32_t> state_{0};
  std::atomic<uint32_t> refs_{1};
  const std::string label_;

  Mutex mutex_;
  std::condition_variable idle_;  // Finish waits here for the queue to fall idle
  // The items waiting for the queue, oldest first.
  WorkItem* head_ QELSS_GUARDED_BY(mutex_) = nullptr;
  WorkItem* tail_ QELSS_GUARDED_BY(mutex_) = nullptr;
};

}  // namespace QelSS::platform
