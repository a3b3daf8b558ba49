#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>

#include "platform/DispatchTestSupport.h"
#include "qelss/platform/Dispatch.h"

namespace QelSS {
namespace {

using namespace std::chrono_literals;

class GroupTest : public ::testing::Test {
 protected:
  void SetUp() override {
    group_ = dispatch_group_create();
    queue_ = dispatch_queue_create("com.qelvarin.grouptest", DISPATCH_QUEUE_SERIAL);
    ASSERT_NE(group_, nullptr);
  }
  void TearDown() override {
    dispatch_release(group_);
    dispatch_release(queue_);
  }

  dispatch_time_t In(std::chrono::milliseconds delay) {
    return dispatch_time(DISPATCH_TIME_NOW, int64_t(delay.count() * NSEC_PER_MSEC));
  }

  dispatch_group_t group_ = nullptr;
  dispatch_queue_t queue_ = nullptr;
};

TEST_F(GroupTest, WaitOnAnEnteredGroupGivesUpAtItsDeadline) {
  EXPECT_EQ(dispatch_group_wait(group_, DISPATCH_TIME_NOW), 0);
  dispatch_group_enter(group_);
  EXPECT_NE(dispatch_group_wait(group_, DISPATCH_TIME_NOW), 0);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_NE(dispatch_group_wait(group_, In(30ms)), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 30ms);
  dispatch_group_leave(group_);
  EXPECT_EQ(dispatch_group_wait(group_, DISPATCH_TIME_NOW), 0);
}

TEST_F(GroupTest, WaitReturnsWhenTheLastWorkLeaves) {
  dispatch_group_enter(group_);
  dispatch_group_enter(group_);
  // The worker leaves only once the short wait has timed out, so a loaded machine
  // cannot let both leaves slip in before it.
  std::promise<void> shortWaitDone;
  std::thread worker([this, done = shortWaitDone.get_future()] {
    done.wait();
    dispatch_group_leave(group_);
    std::this_thread::sleep_for(10ms);
    dispatch_group_leave(group_);
  });
  EXPECT_NE(dispatch_group_wait(group_, In(5ms)), 0);
  shortWaitDone.set_value();
  EXPECT_EQ(dispatch_group_wait(group_, DISPATCH_TIME_FOREVER), 0);
  worker.join();
}

TEST_F(GroupTest, NotifyRunsOnItsQueueOnlyAfterTheLastLeave) {
  testing::EventCounter notified;
  bool notifiedOnQueue = false;  // touched only on queue_
  dispatch_group_enter(group_);
  dispatch_group_enter(group_);
  dispatch_group_notify(group_, queue_, [&] {
    notifiedOnQueue = true;
    notified.Add();
  });
  dispatch_group_leave(group_);
  dispatch_sync(queue_, [&] { EXPECT_FALSE(notifiedOnQueue); });
  dispatch_group_leave(group_);
  ASSERT_TRUE(notified.WaitFor(1));
  dispatch_sync(queue_, [&] { EXPECT_TRUE(notifiedOnQueue); });

  // A group that is already empty notifies straight away.
  dispatch_group_notify(group_, queue_, [&] { notified.Add(); });
  EXPECT_TRUE(notified.WaitFor(2));
}

TEST_F(GroupTest, AsyncWorkIsCountedUntilItHasRun) {
  int done = 0;  // touched only on queue_
  std::promise<void> gate;
  std::shared_future<void> open = gate.get_future().share();
  dispatch_group_async(group_, queue_, [open] { open.wait(); });
  for (int i = 0; i < 3; ++i) dispatch_group_async(group_, queue_, [&done] { ++done; });
  EXPECT_NE(dispatch_group_wait(group_, In(10ms)), 0);
  gate.set_value();
  EXPECT_EQ(dispatch_group_wait(group_, DISPATCH_TIME_FOREVER), 0);
  dispatch_sync(queue_, [&] { EXPECT_EQ(done, 3); });
}

TEST(GroupDeathTest, LeavingMoreThanEnteredAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  dispatch_group_t group = dispatch_group_create();
  dispatch_group_enter(group);
  dispatch_group_leave(group);
  EXPECT_DEATH(dispatch_group_leave(group), "left more often than entered");
  dispatch_release(group);
}

}  // namespace
}  // namespace QelSS
