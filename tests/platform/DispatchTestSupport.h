#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace QelSS::testing {

// Counts events raised on any thread; tests wait for a number to be reached
// instead of sleeping for a guessed time.
class EventCounter {
 public:
  void Add() {
    std::lock_guard<std::mutex> lock(mutex_);
    ++count_;
    changed_.notify_all();
  }

  int Count() {
    std::lock_guard<std::mutex> lock(mutex_);
    return count_;
  }

  // True when the count reached `wanted` within `limit`.
  bool WaitFor(int wanted, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return count_ >= wanted; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int count_ = 0;
};

}  // namespace QelSS::testing
