#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <latch>
#include <memory>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "platform/DispatchTestSupport.h"
#include "qelss/platform/Dispatch.h"
#include "qelss/platform/ErrorCode.h"

namespace QelSS {
namespace {

using DispatchQueue::IQueue;
using DispatchQueue::kRunChangesState;
using DispatchQueue::kRunNoFlags;
using DispatchQueue::MakeTag;
using DispatchQueue::QueueFactory;

constexpr uint32_t kTag = MakeTag("TEST");

std::shared_ptr<IQueue> MakeQueue(const char* label = "com.qelvarin.test") {
  std::shared_ptr<IQueue> queue;
  EXPECT_EQ(QueueFactory::Create(queue, DispatchQueue::kQueueTypeSerial, label,
                                 QOS_CLASS_USER_INTERACTIVE)
                .value(),
            0);
  return queue;
}

TEST(QueueFactory, MakesNamedSerialQueuesAndRejectsUnknownArguments) {
  std::shared_ptr<IQueue> queue;
  EXPECT_FALSE(QueueFactory::Create(queue, DispatchQueue::kQueueTypeDefault, "com.qelvarin.storage",
                                    QOS_CLASS_USER_INTERACTIVE));
  ASSERT_NE(queue, nullptr);
  EXPECT_EQ(queue->GetLabel(), "com.qelvarin.storage");

  std::shared_ptr<IQueue> untouched = queue;
  EXPECT_EQ(QueueFactory::Create(untouched, DispatchQueue::Type(2), "x", QOS_CLASS_DEFAULT),
            make_error_code(kInvalidArgument));
  EXPECT_EQ(QueueFactory::Create(untouched, DispatchQueue::kQueueTypeSerial, "x", 7),
            make_error_code(kInvalidArgument));
  EXPECT_EQ(untouched, queue);

  EXPECT_FALSE(
      QueueFactory::Create(untouched, DispatchQueue::kQueueTypeSerial, nullptr, QOS_CLASS_DEFAULT));
  EXPECT_EQ(untouched->GetLabel(), "");
}

TEST(SerialQueue, SyncOnAnIdleQueueRunsOnTheCallingThreadAndAsyncNeverDoes) {
  auto queue = MakeQueue();
  std::thread::id syncThread;
  EXPECT_TRUE(queue->Sync(kTag, kRunNoFlags, [&] { syncThread = std::this_thread::get_id(); }));
  EXPECT_EQ(syncThread, std::this_thread::get_id());

  std::promise<std::thread::id> asyncThread;
  EXPECT_TRUE(
      queue->Async(kTag, kRunNoFlags, [&] { asyncThread.set_value(std::this_thread::get_id()); }));
  EXPECT_NE(asyncThread.get_future().get(), std::this_thread::get_id());
}

// TrySync runs at once on the caller's thread or not at all: never while
// another block runs or waits, never from the queue's own block, never once
// the queue is finished.
TEST(SerialQueue, TrySyncRunsOnlyWhenNothingIsInTheWay) {
  auto queue = MakeQueue();
  std::thread::id ran;
  EXPECT_TRUE(queue->TrySync(kTag, kRunNoFlags, [&] { ran = std::this_thread::get_id(); }));
  EXPECT_EQ(ran, std::this_thread::get_id());

  std::latch started(1), release(1);
  EXPECT_TRUE(queue->Async(kTag, kRunNoFlags, [&] {
    started.count_down();
    release.wait();
  }));
  started.wait();
  bool ranWhileBusy = false;
  EXPECT_FALSE(queue->TrySync(kTag, kRunNoFlags, [&] { ranWhileBusy = true; }));
  release.count_down();
  EXPECT_TRUE(queue->Sync(kTag, kRunNoFlags, [&] {
    EXPECT_FALSE(queue->TrySync(kTag, kRunNoFlags, [&] { ranWhileBusy = true; }));
  }));
  EXPECT_FALSE(ranWhileBusy);

  EXPECT_FALSE(queue->Finish(5, DispatchQueue::kFinishRunPending));
  EXPECT_FALSE(queue->TrySync(kTag, kRunNoFlags, [&] { ranWhileBusy = true; }));
  EXPECT_FALSE(ranWhileBusy);
}

// Each submitter's blocks must run in its own submission order, whether
// submitted synchronously or not, and none may be lost.
TEST(SerialQueue, KeepsEachSubmittersOrderAcrossManyThreads) {
  constexpr int kThreads = 4;
  constexpr int kPerThread = 400;
  auto queue = MakeQueue();
  std::vector<std::pair<int, int>> log;  // touched only on the queue
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) {
        if (i % 3 == 0) {
          queue->Sync(kTag, kRunChangesState, [&] { log.emplace_back(t, i); });
        } else {
          queue->Async(kTag, kRunChangesState, [&log, t, i] { log.emplace_back(t, i); });
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  queue->Sync(kTag, kRunNoFlags, [] {});

  ASSERT_EQ(log.size(), size_t{kThreads * kPerThread});
  std::vector<int> next(kThreads, 0);
  for (const auto& [thread, sequence] : log) {
    EXPECT_EQ(sequence, next[thread]) << "submitter " << thread;
    next[thread] = sequence + 1;
  }
}

// The counter is deliberately not atomic: only the queue's exclusion protects it,
// and the thread sanitizer sees any overlap.
TEST(SerialQueue, NeverRunsTwoBlocksAtOnce) {
  constexpr int kThreads = 6;
  constexpr int kPerThread = 2000;
  auto queue = MakeQueue();
  long counter = 0;
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  auto increment = [&] {
    if (inside.fetch_add(1) != 0) overlapped = true;
    ++counter;
    inside.fetch_sub(1);
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) {
        if ((i + t) % 2 == 0) {
          queue->Sync(kTag, kRunChangesState, increment);
        } else {
          queue->Async(kTag, kRunChangesState, increment);
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  long seen = 0;
  queue->Sync(kTag, kRunNoFlags, [&] { seen = counter; });
  EXPECT_EQ(seen, long{kThreads} * kPerThread);
  EXPECT_FALSE(overlapped);
}

TEST(SerialQueue, ExceptionFromASyncBlockReachesTheCallerAndFreesTheQueue) {
  auto queue = MakeQueue();
  EXPECT_THROW(queue->Sync(kTag, kRunNoFlags, [] { throw std::runtime_error("broken"); }),
               std::runtime_error);
  // A queue left owned would make this wait forever, or run the async block
  // before the sync one.
  testing::EventCounter ran;
  queue->Async(kTag, kRunNoFlags, [&] { ran.Add(); });
  queue->Sync(kTag, kRunNoFlags, [&] { EXPECT_EQ(ran.Count(), 1); });
  EXPECT_THROW(queue->Sync(kTag, kRunNoFlags, [] { throw 7; }), int);
  EXPECT_TRUE(queue->Sync(kTag, kRunNoFlags, [] {}));
}

TEST(SerialQueueDeathTest, SyncFromItsOwnQueueAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto queue = MakeQueue("com.qelvarin.hashsync");
  EXPECT_DEATH(queue->Sync(MakeTag("SSHC"), kRunChangesState,
                           [&] { queue->Sync(MakeTag("QSSE"), kRunNoFlags, [] {}); }),
               "block 'QSSE' on queue 'com.qelvarin.hashsync' from block 'SSHC' \\(changes "
               "state\\) already running on it");
}

TEST(SerialQueueDeathTest, SyncOntoAQueueHeldFurtherOutOrByAPoolThreadAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto first = MakeQueue("first");
  auto second = MakeQueue("second");
  EXPECT_DEATH(
      first->Sync(
          kTag, kRunNoFlags,
          [&] { second->Sync(kTag, kRunNoFlags, [&] { first->Sync(kTag, kRunNoFlags, [] {}); }); }),
      "queue 'first' .* already running on it");
  EXPECT_DEATH(
      {
        second->Async(kTag, kRunNoFlags, [&] { second->Sync(kTag, kRunNoFlags, [] {}); });
        std::this_thread::sleep_for(std::chrono::seconds(10));
      },
      "queue 'second' from block 'TEST' already running on it");
}

TEST(SerialQueueDeathTest, TwoQueuesWaitingForEachOtherAbort) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        auto a = MakeQueue("alpha");
        auto b = MakeQueue("beta");
        std::latch bothHold(2);
        std::thread other([&] {
          b->Sync(kTag, kRunNoFlags, [&] {
            bothHold.arrive_and_wait();
            a->Sync(kTag, kRunNoFlags, [] {});
          });
        });
        a->Sync(kTag, kRunNoFlags, [&] {
          bothHold.arrive_and_wait();
          b->Sync(kTag, kRunNoFlags, [] {});
        });
        other.join();
      },
      "deadlock: .*'(alpha|beta)' -> '(alpha|beta)' -> '(alpha|beta)'");
}

TEST(SerialQueue, WaitingBehindALongBlockIsNotMistakenForADeadlock) {
  auto a = MakeQueue("slow");
  auto b = MakeQueue("other");
  std::promise<void> holding;
  std::thread slow([&] {
    a->Sync(kTag, kRunNoFlags, [&] {
      holding.set_value();
      std::this_thread::sleep_for(std::chrono::milliseconds(300));
    });
  });
  holding.get_future().wait();
  // Holds b and waits for a for longer than the check delay; a's owner waits
  // for nothing, so there is no cycle.
  bool ran = false;
  b->Sync(kTag, kRunNoFlags, [&] { a->Sync(kTag, kRunNoFlags, [&] { ran = true; }); });
  slow.join();
  EXPECT_TRUE(ran);
}

// Every pool thread ends up waiting for a queue whose drain job is queued
// behind them in the pool; only an extra thread can run it.
TEST(SerialQueue, PoolThreadsWaitingForPendingWorkDoNotStarveIt) {
  constexpr int kBusy = 4;  // at least as many as the pool starts with
  auto shared = MakeQueue("shared");
  std::vector<std::shared_ptr<IQueue>> queues;
  std::promise<void> gate;
  std::shared_future<void> open = gate.get_future().share();
  for (int i = 0; i < kBusy; ++i) {
    queues.push_back(MakeQueue("busy"));
    queues.back()->Async(kTag, kRunNoFlags, [open] { open.wait(); });
  }
  testing::EventCounter finished;
  for (int i = 0; i < kBusy; ++i) {
    queues.push_back(MakeQueue("reader"));
    queues.back()->Async(kTag, kRunNoFlags, [&] {
      shared->Sync(kTag, kRunNoFlags, [] {});
      finished.Add();
    });
  }
  shared->Async(kTag, kRunNoFlags, [] {});
  gate.set_value();
  EXPECT_TRUE(finished.WaitFor(kBusy));
}

TEST(SerialQueueFinish, LetsQueuedWorkRunThenRefusesNewWork) {
  auto queue = MakeQueue();
  int done = 0;  // touched only on the queue
  for (int i = 0; i < 50; ++i) {
    queue->Async(kTag, kRunNoFlags, [&done] {
      std::this_thread::sleep_for(std::chrono::microseconds(100));
      ++done;
    });
  }
  EXPECT_FALSE(queue->Finish(10, DispatchQueue::kFinishRunPending));
  EXPECT_EQ(done, 50);
  EXPECT_FALSE(queue->Sync(kTag, kRunNoFlags, [&] { ++done; }));
  EXPECT_FALSE(queue->Async(kTag, kRunNoFlags, [&] { ++done; }));
  EXPECT_FALSE(queue->Finish(0, DispatchQueue::kFinishRunPending));
  EXPECT_EQ(done, 50);
}

TEST(SerialQueueFinish, FromItsOwnQueueReturnsWithoutWaiting) {
  auto queue = MakeQueue();
  std::error_code result;
  queue->Sync(kTag, kRunNoFlags, [&] { result = queue->Finish(10, 0); });
  EXPECT_EQ(result, make_error_code(kOperationRefused));
  EXPECT_FALSE(queue->Sync(kTag, kRunNoFlags, [] {}));
}

TEST(SerialQueueFinish, DiscardDropsBlocksNotYetStarted) {
  auto queue = MakeQueue();
  std::promise<void> started;
  std::promise<void> release;
  std::atomic<int> ran{0};
  queue->Async(kTag, kRunNoFlags, [&] {
    started.set_value();
    release.get_future().wait();
    ++ran;
  });
  started.get_future().wait();
  auto dropped = std::make_shared<int>(0);
  for (int i = 0; i < 5; ++i) queue->Async(kTag, kRunNoFlags, [&ran, dropped] { ++ran; });
  auto waiter = std::async(std::launch::async,
                           [&] { return queue->Sync(kTag, kRunNoFlags, [&] { ++ran; }); });
  // The waiter is queued once Finish finds it; give it a moment to get there.
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(queue->Finish(0, DispatchQueue::kFinishDiscardPending), make_error_code(kTimeout));
  EXPECT_EQ(dropped.use_count(), 1);  // the dropped blocks are destroyed
  release.set_value();
  EXPECT_FALSE(waiter.get());
  EXPECT_FALSE(queue->Finish(10, 0));
  EXPECT_EQ(ran, 1);
}

TEST(DispatchQueueHandle, KeepsTheQueueAliveAndRunsWorkQueuedBeforeTheLastRelease) {
  dispatch_queue_t handle = nullptr;
  {
    auto queue = MakeQueue("handle");
    handle = queue->GetDispatchQueue();
    dispatch_retain(handle);
  }
  std::thread::id ranOn;
  dispatch_sync(handle, [&] { ranOn = std::this_thread::get_id(); });
  EXPECT_EQ(ranOn, std::this_thread::get_id());

  testing::EventCounter ran;
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  dispatch_async(handle, [released] { released.wait(); });
  for (int i = 0; i < 3; ++i) dispatch_async(handle, [&] { ran.Add(); });
  dispatch_release(handle);
  release.set_value();
  EXPECT_TRUE(ran.WaitFor(3));
}

TEST(DispatchQueueHandle, CreateAcceptsOnlySerialQueuesAndNullIsIgnored) {
  EXPECT_EQ(dispatch_queue_create("x", reinterpret_cast<dispatch_queue_attr_t>(1)), nullptr);
  dispatch_async(nullptr, [] { FAIL(); });
  dispatch_sync(nullptr, [] { FAIL(); });
}

}  // namespace
}  // namespace QelSS
