#include "platform/dispatch/DispatchGroup.h"

#include "platform/dispatch/DispatchClock.h"
#include "platform/dispatch/FatalError.h"
#include "platform/dispatch/SerialQueue.h"
#include "platform/dispatch/WorkerPool.h"
#include "qelss/platform/ErrorCode.h"

namespace QelSS::platform {

namespace {
constexpr uint32_t kNotifyTag = DispatchQueue::MakeTag("GRPN");
}

DispatchGroup* DispatchGroup::New() { return new DispatchGroup(); }

DispatchGroup::~DispatchGroup() {
  for (auto& [queue, block] : notifications_) queue->Release();
}

void DispatchGroup::Release() noexcept {
  if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
}

void DispatchGroup::Enter() {
  std::lock_guard<std::mutex> lock(mutex_);
  ++count_;
}

void DispatchGroup::Leave() {
  std::vector<Notification> ready;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (count_ == 0) DispatchFatal("dispatch group left more often than entered");
    if (--count_ > 0) return;
    ++emptyings_;
    ready.swap(notifications_);
    emptied_.notify_all();
  }
  Post(ready);
}

long DispatchGroup::Wait(dispatch_time_t timeout) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (count_ == 0) return 0;
  if (timeout == DISPATCH_TIME_NOW) return kTimeout;
  const uint64_t seen = emptyings_;
  WorkerPool::BlockingScope blocking;
  auto emptied = [&] { return count_ == 0 || emptyings_ != seen; };
  if (timeout == DISPATCH_TIME_FOREVER) {
    emptied_.wait(lock, emptied);
    return 0;
  }
  const auto deadline = DispatchClock::ToSteady(DispatchClock::FromDispatchTime(timeout));
  return emptied_.wait_until(lock, deadline, emptied) ? 0 : kTimeout;
}

void DispatchGroup::Notify(SerialQueue* queue, std::function<void()> block) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (count_ > 0) {
      notifications_.emplace_back(queue, std::move(block));
      queue->Retain();
      return;
    }
  }
  queue->Async(kNotifyTag, DispatchQueue::kRunNoFlags, std::move(block));
}

void DispatchGroup::Post(std::vector<Notification>& notifications) {
  for (auto& [queue, block] : notifications) {
    queue->Async(kNotifyTag, DispatchQueue::kRunNoFlags, std::move(block));
    queue->Release();
  }
}

}  // namespace QelSS::platform
