#pragma once

#include <thread>
#include <utility>
#include <vector>

#include <asio/io_context.hpp>
#include <asio/post.hpp>

#include "platform/support/Mutex.h"

namespace QelSS::platform {

// The threads on which asynchronous blocks and timer expiries run: one
// io_context served by two to four threads.
//
// Started on first use and never destroyed: exit handlers and destructors of
// static objects may still queue work, and no exit path ever waits for a pool
// thread, so a block stuck at exit cannot hang the process. Idle threads poll
// briefly, then sleep in the io_context, and end with the process. They run with every signal
// blocked so that signals reach the application's own threads.
//
// A block running on the pool may wait for a queue whose drain job is still in
// the pool's backlog (an observer reading its domain while the domain queue has
// asynchronous work). Should every pool thread wait like that, nothing would
// run the job that ends the waits, so the pool adds a thread whenever all of
// its threads are blocked, up to a limit.
class WorkerPool {
 public:
  static WorkerPool& Instance();

  asio::io_context& Context() noexcept { return context_; }

  // Runs `job` on a pool thread. The job must not throw.
  template <class Job>
  void Post(Job&& job) {
    asio::post(context_, std::forward<Job>(job));
  }

  // Marks the current thread, if it is a pool thread, as blocked for the
  // lifetime of the scope.
  class BlockingScope {
   public:
    BlockingScope();
    ~BlockingScope();
    BlockingScope(const BlockingScope&) = delete;
    BlockingScope& operator=(const BlockingScope&) = delete;

   private:
    WorkerPool* pool_;
  };

 private:
  WorkerPool();
  ~WorkerPool() = delete;

  void StartThreadLocked() QELSS_REQUIRES(mutex_);
  void ThreadBlocks();
  void ThreadUnblocks();

  asio::io_context context_;
  asio::executor_work_guard<asio::io_context::executor_type> keepRunning_;
  Mutex mutex_;
  std::vector<std::thread> threads_ QELSS_GUARDED_BY(mutex_);
  unsigned blocked_ QELSS_GUARDED_BY(mutex_) = 0;
};

}  // namespace QelSS::platform
