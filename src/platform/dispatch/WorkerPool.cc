#include "platform/dispatch/WorkerPool.h"

#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <chrono>

#include "platform/dispatch/PollingRun.h"

namespace QelSS::platform {

namespace {

constexpr unsigned kMaxThreads = 64;
// Pool threads serve replies from the service and the queue hops after them.
constexpr std::chrono::microseconds kPollWindow{250};

unsigned InitialSize() { return std::clamp(std::thread::hardware_concurrency(), 2u, 4u); }

constinit thread_local WorkerPool* tPoolOfThisThread = nullptr;

// Threads inherit the creator's signal mask; block everything while they start.
class AllSignalsBlocked {
 public:
  AllSignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &saved_);
  }
  ~AllSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &saved_, nullptr); }

 private:
  sigset_t saved_;
};

}  // namespace

WorkerPool& WorkerPool::Instance() {
  static WorkerPool* const pool = new WorkerPool();
  return *pool;
}

WorkerPool::WorkerPool() : keepRunning_(asio::make_work_guard(context_)) {
  MutexLock lock(mutex_);
  const unsigned count = InitialSize();
  threads_.reserve(count);
  for (unsigned i = 0; i < count; ++i) StartThreadLocked();
}

void WorkerPool::StartThreadLocked() {
  AllSignalsBlocked blocked;
  threads_.emplace_back([this] {
    tPoolOfThisThread = this;
    pthread_setname_np(pthread_self(), "qelss-dispatch");
    RunPolling(context_, kPollWindow);
  });
}

void WorkerPool::ThreadBlocks() {
  MutexLock lock(mutex_);
  if (++blocked_ < threads_.size() || threads_.size() >= kMaxThreads) return;
  try {
    StartThreadLocked();
  } catch (const std::system_error&) {
    // Out of threads: the blocked ones may still be released by other means.
  }
}

void WorkerPool::ThreadUnblocks() {
  MutexLock lock(mutex_);
  --blocked_;
}

WorkerPool::BlockingScope::BlockingScope() : pool_(tPoolOfThisThread) {
  if (pool_ != nullptr) pool_->ThreadBlocks();
}

WorkerPool::BlockingScope::~BlockingScope() {
  if (pool_ != nullptr) pool_->ThreadUnblocks();
}

}  // namespace QelSS::platform
