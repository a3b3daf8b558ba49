#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "DomainTestSupport.h"
#include "platform/dispatch/RunningFrame.h"
#include "platform/dispatch/SerialQueue.h"
#include "platform/report/CaptureSink.h"
#include "qelss/domain/SettingsObserver.h"

namespace QelSS {
namespace {

using testing::Commit;
using testing::Drain;
using testing::EventCounter;
using testing::InMemoryDomain;
using testing::Int;
using testing::MakeRecord;
using testing::NewTransaction;

class ObserverTest : public ::testing::Test {
 protected:
  void SetUp() override { own_ = dispatch_queue_create("test.observer", DISPATCH_QUEUE_SERIAL); }
  void TearDown() override { dispatch_release(own_); }

  std::error_code SetNow(const std::string& path, long long value) {
    auto transaction = NewTransaction(*domain_);
    EXPECT_EQ(transaction->Set(path, Int(value)), kSuccess);
    return Commit(*domain_, transaction);
  }
  // An observer that counts its calls in `counter`.
  static std::shared_ptr<SettingsObserver> Counting(EventCounter& counter) {
    std::shared_ptr<SettingsObserver> observer;
    EXPECT_EQ(SettingsObserver::Create([&counter](const std::shared_ptr<IDomainSetting>&,
                                                  const IObserver::ChangeList&) { counter.Add(); },
                                       observer),
              kSuccess);
    return observer;
  }
  // Keeps `own_` busy until `release` is set, so that deliveries wait behind it.
  void Block(std::atomic<bool>& release) {
    EventCounter started;
    dispatch_async(own_, [&release, &started] {
      started.Add();
      while (!release) std::this_thread::yield();
    });
    started.WaitFor(1);
  }

  std::shared_ptr<InMemoryDomain> domain_ = InMemoryDomain::Make();
  dispatch_queue_t own_ = nullptr;
  EventCounter calls_;
};

TEST_F(ObserverTest, ChangeListArrivesOnTheObserverQueueAfterTheCommit) {
  ASSERT_EQ(SetNow("old", 1), kSuccess);
  struct {
    IObserver::ChangeList changes;
    std::shared_ptr<IDomainSetting> domain;
    std::thread::id thread;
    const platform::RunningFrame* frame;
  } seen;
  std::shared_ptr<SettingsObserver> observer;
  ASSERT_EQ(
      SettingsObserver::Create(
          [&](const std::shared_ptr<IDomainSetting>& domain, const IObserver::ChangeList& changes) {
            seen = {changes, domain, std::this_thread::get_id(), platform::tInnermostFrame};
            EXPECT_EQ(seen.frame->queue->GetLabel(), "com.qelvarin.domainsetting.observer");
            EXPECT_EQ(seen.frame->outer, nullptr);  // no other queue held beneath
            calls_.Add();
          },
          observer),
      kSuccess);
  ASSERT_EQ(domain_->AddObserver(nullptr, observer), kSuccess);
  auto transaction = NewTransaction(*domain_);
  ASSERT_EQ(transaction->Set("a", Int(7)), kSuccess);
  ASSERT_EQ(transaction->Delete("old"), kSuccess);
  ASSERT_EQ(Commit(*domain_, transaction), kSuccess);
  ASSERT_TRUE(calls_.WaitFor(1));
  observer->Detach();

  ASSERT_EQ(seen.changes.size(), 2u);
  EXPECT_EQ(std::get<0>(seen.changes[0]), "a");
  EXPECT_EQ(std::get<1>(seen.changes[0]), IObserver::Modified);
  EXPECT_TRUE(*std::get<2>(seen.changes[0]) == *Int(7));
  EXPECT_EQ(seen.changes[1],
            std::make_tuple(std::string("old"), IObserver::Deleted, std::shared_ptr<IValue>()));
  EXPECT_EQ(seen.domain, domain_);
  EXPECT_NE(seen.thread, std::this_thread::get_id());
}

TEST_F(ObserverTest, DeliveryGoesThroughTheObserversOwnQueue) {
  auto observer = Counting(calls_);
  ASSERT_EQ(domain_->AddObserver(own_, observer), kSuccess);
  std::atomic<bool> release{false};
  Block(release);
  ASSERT_EQ(SetNow("a", 1), kSuccess);
  EXPECT_FALSE(calls_.WaitFor(1, std::chrono::milliseconds(50)));
  release = true;
  EXPECT_TRUE(calls_.WaitFor(1));

  // Applying without notifying tells no one.
  ASSERT_EQ(domain_->Push(MakeRecord("alerts", 1, "quiet", Int(1)), false), kSuccess);
  Drain(own_);
  EXPECT_EQ(calls_.Count(), 1);
}

TEST_F(ObserverTest, EachRegistrationIsToldUntilRemoved) {
  auto observer = Counting(calls_);
  ASSERT_EQ(domain_->AddObserver(own_, observer), kSuccess);
  ASSERT_EQ(domain_->AddObserver(nullptr, observer), kSuccess);
  ASSERT_EQ(SetNow("a", 1), kSuccess);
  ASSERT_TRUE(calls_.WaitFor(2));

  EXPECT_EQ(domain_->RemoveObserver(observer), kSuccess);  // both entries go
  EXPECT_EQ(domain_->RemoveObserver(observer), kNotFound);
  EventCounter witnessed;
  auto witness = Counting(witnessed);
  ASSERT_EQ(domain_->AddObserver(nullptr, witness), kSuccess);
  ASSERT_EQ(SetNow("a", 2), kSuccess);
  ASSERT_TRUE(witnessed.WaitFor(1));  // same queue, so anything for `observer` ran first
  EXPECT_EQ(calls_.Count(), 2);
  EXPECT_EQ(domain_->AddObserver(own_, nullptr), kInvalidArgument);
}

TEST_F(ObserverTest, ReleasedObserversAreSkippedAndPurgedOnRemove) {
  std::weak_ptr<SettingsObserver> gone;
  {
    auto released = Counting(calls_);
    ASSERT_EQ(domain_->AddObserver(own_, released), kSuccess);
    gone = released;
  }
  ASSERT_TRUE(gone.expired());
  ASSERT_EQ(SetNow("a", 1), kSuccess);
  Drain(own_);
  EXPECT_EQ(calls_.Count(), 0);

  auto stranger = Counting(calls_);
  EXPECT_EQ(domain_->RemoveObserver(stranger), kSuccess);  // the released entry went
  EXPECT_EQ(domain_->RemoveObserver(stranger), kNotFound);
}

TEST_F(ObserverTest, DetachDropsDeliveriesAlreadyQueued) {
  auto observer = Counting(calls_);
  ASSERT_EQ(domain_->AddObserver(own_, observer), kSuccess);
  std::atomic<bool> release{false};
  Block(release);
  ASSERT_EQ(SetNow("a", 1), kSuccess);
  observer->Detach();
  release = true;
  Drain(own_);
  EXPECT_EQ(calls_.Count(), 0);
}

TEST_F(ObserverTest, DetachWaitsForADeliveryUnderWay) {
  std::atomic<bool> release{false};
  std::atomic<bool> finished{false};
  std::shared_ptr<SettingsObserver> observer;
  ASSERT_EQ(SettingsObserver::Create(
                [&](const std::shared_ptr<IDomainSetting>&, const IObserver::ChangeList&) {
                  calls_.Add();
                  while (!release) std::this_thread::yield();
                  finished = true;
                },
                observer),
            kSuccess);
  ASSERT_EQ(domain_->AddObserver(own_, observer), kSuccess);
  ASSERT_EQ(SetNow("a", 1), kSuccess);
  ASSERT_TRUE(calls_.WaitFor(1));

  std::atomic<bool> detached{false};
  std::thread detacher([&] {
    observer->Detach();
    detached = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(detached);
  release = true;
  detacher.join();
  EXPECT_TRUE(finished);
}

TEST_F(ObserverTest, DetachFromInsideTheCallbackStopsLaterDeliveries) {
  std::shared_ptr<SettingsObserver> observer;
  SettingsObserver* self = nullptr;
  ASSERT_EQ(SettingsObserver::Create(
                [&](const std::shared_ptr<IDomainSetting>& domain, const IObserver::ChangeList&) {
                  calls_.Add();
                  self->Detach();
                  // No lock of the domain is held: it can be used from here.
                  std::shared_ptr<IValue> value;
                  EXPECT_EQ(domain->Get("a", value), kSuccess);
                  EXPECT_EQ(Commit(*domain, NewTransaction(*domain)), kSuccess);
                },
                observer),
            kSuccess);
  self = observer.get();
  ASSERT_EQ(domain_->AddObserver(own_, observer), kSuccess);
  ASSERT_EQ(SetNow("a", 1), kSuccess);
  ASSERT_EQ(SetNow("a", 2), kSuccess);
  Drain(own_);
  EXPECT_EQ(calls_.Count(), 1);
}

TEST_F(ObserverTest, ForwardsToATargetAndNeedsOneOrACallback) {
  auto inner = Counting(calls_);
  std::shared_ptr<SettingsObserver> outer;
  ASSERT_EQ(SettingsObserver::Create(inner.get(), outer), kSuccess);
  std::shared_ptr<SettingsObserver> out = outer;
  EXPECT_EQ(SettingsObserver::Create(static_cast<IObserver*>(nullptr), out), kInvalidArgument);
  EXPECT_EQ(SettingsObserver::Create(SettingsObserver::Callback(), out), kInvalidArgument);
  EXPECT_EQ(out, outer);

  ASSERT_EQ(domain_->AddObserver(own_, outer), kSuccess);
  ASSERT_EQ(SetNow("a", 1), kSuccess);
  EXPECT_TRUE(calls_.WaitFor(1));
  outer->Detach();
}

TEST_F(ObserverTest, ThrowingCallbackIsReportedAndLaterDeliveriesGoOn) {
  platform::ScopedCaptureSink capture;
  std::shared_ptr<SettingsObserver> observer;
  ASSERT_EQ(SettingsObserver::Create(
                [&](const std::shared_ptr<IDomainSetting>&, const IObserver::ChangeList&) {
                  calls_.Add();
                  if (calls_.Count() == 1) throw std::runtime_error("observer failed");
                },
                observer),
            kSuccess);
  ASSERT_EQ(domain_->AddObserver(own_, observer), kSuccess);
  ASSERT_EQ(SetNow("a", 1), kSuccess);
  ASSERT_EQ(SetNow("a", 2), kSuccess);
  Drain(own_);
  EXPECT_EQ(calls_.Count(), 2);
  auto report = capture->FindExceptionReport("DOST", "OnChange");
  ASSERT_TRUE(report);
  EXPECT_EQ(report->exceptionWhat, "observer failed");
}

}  // namespace
}  // namespace QelSS
