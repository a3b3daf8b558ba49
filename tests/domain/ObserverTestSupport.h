#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/dispatch/RunningFrame.h"
#include "platform/dispatch/SerialQueue.h"
#include "qelss/domain/IDomainSetting.h"
#include "qelss/domain/SettingsObserver.h"

namespace QelSS::testing {

// What one delivery saw.
struct Delivery {
  IObserver::ChangeList changes;
  std::shared_ptr<IDomainSetting> domain;
  std::thread::id thread;
  std::string queueLabel;             // of the queue running the delivery
  bool nestedInAnotherQueue = false;  // a queue was already held beneath it
};

// Collects deliveries made on any thread.
class DeliveryLog {
 public:
  SettingsObserver::Callback Callback() {
    return [this](const std::shared_ptr<IDomainSetting>& domain,
                  const IObserver::ChangeList& changes) {
      const platform::RunningFrame* frame = platform::tInnermostFrame;
      Delivery delivery{changes, domain, std::this_thread::get_id(),
                        frame != nullptr ? frame->queue->GetLabel() : std::string(),
                        frame != nullptr && frame->outer != nullptr};
      std::lock_guard<std::mutex> lock(mutex_);
      deliveries_.push_back(std::move(delivery));
      changed_.notify_all();
    };
  }

  std::shared_ptr<SettingsObserver> MakeObserver() {
    std::shared_ptr<SettingsObserver> observer;
    if (SettingsObserver::Create(Callback(), observer) != kSuccess) return nullptr;
    return observer;
  }

  bool WaitFor(size_t count, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return deliveries_.size() >= count; });
  }

  std::vector<Delivery> Deliveries() {
    std::lock_guard<std::mutex> lock(mutex_);
    return deliveries_;
  }

  size_t Count() {
    std::lock_guard<std::mutex> lock(mutex_);
    return deliveries_.size();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Delivery> deliveries_;
};

// Waits until every block queued on `queue` before the call has run.
inline void Drain(dispatch_queue_t queue) {
  std::mutex mutex;
  std::condition_variable done;
  bool ran = false;
  dispatch_async(queue, [&] {
    std::lock_guard<std::mutex> lock(mutex);
    ran = true;
    done.notify_all();
  });
  std::unique_lock<std::mutex> lock(mutex);
  done.wait(lock, [&] { return ran; });
}

// Holds a serial queue busy until Release(), so that work queued behind it waits.
class QueueBlocker {
 public:
  explicit QueueBlocker(dispatch_queue_t queue) {
    dispatch_async(queue, [this] {
      std::unique_lock<std::mutex> lock(mutex_);
      running_ = true;
      changed_.notify_all();
      changed_.wait(lock, [&] { return released_; });
      exited_ = true;
      changed_.notify_all();
    });
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return running_; });
  }
  ~QueueBlocker() {
    Release();
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return exited_; });
  }

  void Release() {
    std::lock_guard<std::mutex> lock(mutex_);
    released_ = true;
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool running_ = false;
  bool released_ = false;
  bool exited_ = false;
};

}  // namespace QelSS::testing
