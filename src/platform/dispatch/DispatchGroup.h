#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <utility>
#include <vector>

#include "qelss/platform/Dispatch.h"

namespace QelSS::platform {

class SerialQueue;

// The object behind dispatch_group_t; the contract is in Dispatch.h.
//
// Leaving a group from asynchronous work needs a reference held by that work:
// the last dispatch_release frees the group even while it is entered, and any
// notification still waiting is then dropped.
class DispatchGroup {
 public:
  // A new empty group with one reference for the caller. Throws std::bad_alloc.
  static DispatchGroup* New();

  static DispatchGroup* FromHandle(dispatch_group_t handle) noexcept {
    return reinterpret_cast<DispatchGroup*>(handle);
  }
  dispatch_group_t Handle() noexcept { return reinterpret_cast<dispatch_group_t>(this); }

  void Retain() noexcept { refs_.fetch_add(1, std::memory_order_relaxed); }
  void Release() noexcept;

  void Enter();
  void Leave();
  long Wait(dispatch_time_t timeout);
  void Notify(SerialQueue* queue, std::function<void()> block);

 private:
  using Notification = std::pair<SerialQueue*, std::function<void()>>;  // queue retained

  DispatchGroup() = default;
  ~DispatchGroup();

  static void Post(std::vector<Notification>& notifications);

  std::atomic<uint32_t> refs_{1};
  std::mutex mutex_;
  std::condition_variable emptied_;
  // Protected by mutex_:
  uint64_t count_ = 0;
  // Bumped each time the count falls to 0, so that a waiter woken by one
  // emptying returns even if the group was entered again before it ran.
  uint64_t emptyings_ = 0;
  std::vector<Notification> notifications_;
};

}  // namespace QelSS::platform
