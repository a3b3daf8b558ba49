#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "platform/DispatchTestSupport.h"
#include "platform/dispatch/DispatchClock.h"
#include "qelss/platform/Dispatch.h"

namespace QelSS {
namespace {

using namespace std::chrono_literals;
using platform::DispatchClock;

constexpr int64_t kMs = int64_t(NSEC_PER_MSEC);
constexpr int64_t kSec = int64_t(NSEC_PER_SEC);

// A timer on its own queue whose handler counts its calls and checks that no
// two of them overlap.
class TimerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    queue_ = dispatch_queue_create("com.qelvarin.timertest", DISPATCH_QUEUE_SERIAL);
    timer_ = dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 0, 0, queue_);
    ASSERT_NE(timer_, nullptr);
    dispatch_source_set_event_handler(timer_, [this] {
      if (inside_.fetch_add(1) != 0) overlapped_ = true;
      if (slowHandler_) std::this_thread::sleep_for(slowHandler_.load() * 1ms);
      ticks_.Add();
      inside_.fetch_sub(1);
    });
  }

  void TearDown() override {
    dispatch_source_cancel(timer_);
    OnQueue([] {});  // a call under way still uses the fixture
    dispatch_release(timer_);
    dispatch_release(queue_);
    EXPECT_FALSE(overlapped_);
  }

  void Start(int64_t startNs, int64_t intervalNs) {
    dispatch_source_set_timer(timer_, dispatch_time(DISPATCH_TIME_NOW, startNs),
                              uint64_t(intervalNs), 0);
  }

  // Runs on the target queue, so no handler call is under way meanwhile.
  void OnQueue(QelSS::FunctionRef<void()> block) { dispatch_sync(queue_, block); }

  // The tick count once nothing more arrives for a while.
  int SettledTicks() {
    OnQueue([] {});
    std::this_thread::sleep_for(40ms);
    OnQueue([] {});
    return ticks_.Count();
  }

  dispatch_queue_t queue_ = nullptr;
  dispatch_source_t timer_ = nullptr;
  testing::EventCounter ticks_;
  std::atomic<int> inside_{0};
  std::atomic<bool> overlapped_{false};
  std::atomic<int> slowHandler_{0};
};

TEST_F(TimerTest, StartsSuspendedAndThenFiresEveryInterval) {
  Start(0, 5 * kMs);
  std::this_thread::sleep_for(30ms);
  EXPECT_EQ(ticks_.Count(), 0);
  dispatch_resume(timer_);
  EXPECT_TRUE(ticks_.WaitFor(4));
}

TEST_F(TimerTest, SuspensionsNestAndHoldBackTheHandler) {
  Start(0, 2 * kMs);
  dispatch_resume(timer_);
  ASSERT_TRUE(ticks_.WaitFor(2));

  OnQueue([&] {
    dispatch_suspend(timer_);
    dispatch_suspend(timer_);
  });
  const int atSuspend = SettledTicks();
  dispatch_resume(timer_);
  EXPECT_EQ(SettledTicks(), atSuspend);
  dispatch_resume(timer_);
  EXPECT_TRUE(ticks_.WaitFor(atSuspend + 2));
}

TEST_F(TimerTest, TicksMissedWhileSuspendedArriveAsOneCall) {
  // Ten-second ticks on the test clock: nothing fires unless the clock moves.
  Start(10 * kSec, 10 * kSec);
  DispatchClock::AdvanceForTesting(35s);
  dispatch_resume(timer_);
  ASSERT_TRUE(ticks_.WaitFor(1));
  EXPECT_EQ(SettledTicks(), 1);
  DispatchClock::AdvanceForTesting(5s);  // reaches the next multiple of ten
  EXPECT_TRUE(ticks_.WaitFor(2));
  EXPECT_EQ(SettledTicks(), 2);
}

TEST_F(TimerTest, TestClockFiresALongTimerWithoutWaiting) {
  const auto wallBefore = DispatchClock::SystemNow();
  Start(10 * kSec, 10 * kSec);
  dispatch_resume(timer_);
  std::this_thread::sleep_for(30ms);
  EXPECT_EQ(ticks_.Count(), 0);

  DispatchClock::AdvanceForTesting(10s);
  EXPECT_TRUE(ticks_.WaitFor(1, 5s));
  EXPECT_GE(DispatchClock::SystemNow() - wallBefore, 10s);
  EXPECT_EQ(SettledTicks(), 1);
}

TEST_F(TimerTest, ScheduleCanBeNeverOrOneShotAndIsReplaced) {
  dispatch_source_set_timer(timer_, DISPATCH_TIME_FOREVER, 1 * kMs, 0);
  dispatch_resume(timer_);
  EXPECT_EQ(SettledTicks(), 0);
  Start(2 * kMs, 0);
  ASSERT_TRUE(ticks_.WaitFor(1));
  EXPECT_EQ(SettledTicks(), 1);
}

TEST_F(TimerTest, TicksMergeWhileASlowHandlerRuns) {
  slowHandler_ = 20;
  const auto begin = std::chrono::steady_clock::now();
  Start(0, 1 * kMs);
  dispatch_resume(timer_);
  ASSERT_TRUE(ticks_.WaitFor(3));
  // Deliveries piled up behind the slow handler would all run before this.
  slowHandler_ = 0;
  OnQueue([&] { dispatch_suspend(timer_); });
  const auto elapsed = std::chrono::steady_clock::now() - begin;
  EXPECT_LE(ticks_.Count(), int(elapsed / 20ms) + 2);
}

TEST_F(TimerTest, CancelFromTheTargetQueueStopsEveryLaterCall) {
  testing::EventCounter cancelled;
  dispatch_source_set_cancel_handler(timer_, [&] { cancelled.Add(); });
  Start(0, 1 * kMs);
  dispatch_resume(timer_);
  ASSERT_TRUE(ticks_.WaitFor(2));
  int atCancel = 0;
  OnQueue([&] {
    dispatch_source_cancel(timer_);
    atCancel = ticks_.Count();
  });
  EXPECT_NE(dispatch_source_testcancel(timer_), 0);
  EXPECT_TRUE(cancelled.WaitFor(1));
  EXPECT_EQ(SettledTicks(), atCancel);
  dispatch_source_cancel(timer_);
  EXPECT_EQ(SettledTicks(), atCancel);
  EXPECT_EQ(cancelled.Count(), 1);
}

TEST_F(TimerTest, CancelFromAnotherThreadIsFinalOnceTheQueueIsFlushed) {
  Start(0, 1 * kMs);
  dispatch_resume(timer_);
  ASSERT_TRUE(ticks_.WaitFor(2));
  dispatch_source_cancel(timer_);
  OnQueue([] {});  // waits out a call that was under way
  const int afterFlush = ticks_.Count();
  EXPECT_EQ(SettledTicks(), afterFlush);
}

TEST(TimerSource, ReleasingTheLastReferenceCancelsIt) {
  dispatch_queue_t queue = dispatch_queue_create("release", DISPATCH_QUEUE_SERIAL);
  dispatch_source_t timer = dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 0, 0, queue);
  testing::EventCounter ticks;
  testing::EventCounter cancelled;
  dispatch_source_set_event_handler(timer, [&] { ticks.Add(); });
  dispatch_source_set_cancel_handler(timer, [&] { cancelled.Add(); });
  dispatch_source_set_timer(timer, DISPATCH_TIME_NOW, NSEC_PER_MSEC, 0);
  dispatch_resume(timer);
  ASSERT_TRUE(ticks.WaitFor(1));
  dispatch_retain(timer);
  dispatch_release(timer);
  EXPECT_EQ(cancelled.Count(), 0);
  dispatch_release(timer);
  EXPECT_TRUE(cancelled.WaitFor(1));
  dispatch_release(queue);
}

TEST(TimerSource, CreationChecksItsArguments) {
  dispatch_queue_t queue = dispatch_queue_create("args", DISPATCH_QUEUE_SERIAL);
  EXPECT_EQ(dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 0, 0, nullptr), nullptr);
  EXPECT_EQ(dispatch_source_create(dispatch_source_type_t(2), 0, 0, queue), nullptr);
  EXPECT_EQ(dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 3, 0, queue), nullptr);
  dispatch_release(queue);
}

TEST(TimerSourceDeathTest, ResumingMoreThanSuspendedAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  dispatch_queue_t queue = dispatch_queue_create("com.qelvarin.domainsetting", nullptr);
  dispatch_source_t timer = dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 0, 0, queue);
  dispatch_resume(timer);
  EXPECT_DEATH(dispatch_resume(timer),
               "queue 'com.qelvarin.domainsetting' resumed more often than suspended");
  dispatch_release(timer);
  dispatch_release(queue);
}

TEST(DispatchTime, CountsFromNowAndSaturates) {
  const dispatch_time_t before = dispatch_time(DISPATCH_TIME_NOW, 0);
  const dispatch_time_t later = dispatch_time(DISPATCH_TIME_NOW, kSec);
  EXPECT_GE(later - before, uint64_t(kSec));
  EXPECT_EQ(dispatch_time(later, -kSec / 2), later - kSec / 2);
  EXPECT_EQ(dispatch_time(DISPATCH_TIME_FOREVER, -kSec), DISPATCH_TIME_FOREVER);
  EXPECT_EQ(dispatch_time(later, INT64_MAX), DISPATCH_TIME_FOREVER);
  EXPECT_NE(dispatch_time(later, INT64_MIN), DISPATCH_TIME_NOW);
}

}  // namespace
}  // namespace QelSS
