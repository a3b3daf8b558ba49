#pragma once

#include <utility>

#include "qelss/platform/Dispatch.h"

namespace QelSS {

// Holds one reference to a dispatch queue handle (or none, for null).
class RetainedQueue {
 public:
  RetainedQueue() = default;
  explicit RetainedQueue(dispatch_queue_t queue) noexcept : queue_(queue) {
    dispatch_retain(queue_);
  }
  RetainedQueue(const RetainedQueue& other) noexcept : RetainedQueue(other.queue_) {}
  RetainedQueue(RetainedQueue&& other) noexcept : queue_(std::exchange(other.queue_, nullptr)) {}
  RetainedQueue& operator=(RetainedQueue other) noexcept {
    std::swap(queue_, other.queue_);
    return *this;
  }
  ~RetainedQueue() { dispatch_release(queue_); }

  dispatch_queue_t get() const noexcept { return queue_; }

 private:
  dispatch_queue_t queue_ = nullptr;
};

}  // namespace QelSS
