#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "DomainTestSupport.h"
#include "ObserverTestSupport.h"
#include "platform/report/CaptureSink.h"

namespace QelSS {
namespace {

using testing::Commit;
using testing::DeliveryLog;
using testing::Drain;
using testing::InMemoryDomain;
using testing::Int;
using testing::MakeRecord;
using testing::NewTransaction;
using testing::QueueBlocker;

class ObserverTest : public ::testing::Test {
 protected:
  void SetUp() override { own_ = dispatch_queue_create("test.observer", DISPATCH_QUEUE_SERIAL); }
  void TearDown() override { dispatch_release(own_); }

  std::error_code SetNow(const std::string& path, long long value) {
    auto transaction = NewTransaction(*domain_);
    EXPECT_EQ(transaction->Set(path, Int(value)), kSuccess);
    return Commit(*domain_, transaction);
  }

  std::shared_ptr<InMemoryDomain> domain_ = InMemoryDomain::Make();
  dispatch_queue_t own_ = nullptr;
  DeliveryLog log_;
};

TEST_F(ObserverTest, ChangeListArrivesOnTheObserverQueueAfterTheCommit) {
  ASSERT_EQ(SetNow("old", 1), kSuccess);
  auto observer = log_.MakeObserver();
  ASSERT_EQ(domain_->AddObserver(nullptr, observer), kSuccess);

  auto transaction = NewTransaction(*domain_);
  ASSERT_EQ(transaction->Set("a", Int(7)), kSuccess);
  ASSERT_EQ(transaction->Delete("old"), kSuccess);
  ASSERT_EQ(Commit(*domain_, transaction), kSuccess);

  ASSERT_TRUE(log_.WaitFor(1));
  auto delivery = log_.Deliveries().at(0);
  ASSERT_EQ(delivery.changes.size(), 2u);
  EXPECT_EQ(std::get<0>(delivery.changes[0]), "a");
  EXPECT_EQ(std::get<1>(delivery.changes[0]), IObserver::Modified);
  EXPECT_TRUE(*std::get<2>(delivery.changes[0]) == *Int(7));
  EXPECT_EQ(std::get<0>(delivery.changes[1]), "old");
  EXPECT_EQ(std::get<1>(delivery.changes[1]), IObserver::Deleted);
  EXPECT_EQ(std::get<2>(delivery.changes[1]), nullptr);

  EXPECT_EQ(delivery.domain, domain_);
  EXPECT_NE(delivery.thread, std::this_thread::get_id());
  EXPECT_EQ(delivery.queueLabel, "com.qelvarin.domainsetting.observer");
  EXPECT_FALSE(delivery.nestedInAnotherQueue);
}

TEST_F(ObserverTest, ObserverWithItsOwnQueueIsCalledThere) {
  auto observer = log_.MakeObserver();
  ASSERT_EQ(domain_->AddObserver(own_, observer), kSuccess);
  {
    // The delivery waits for the observer's busy queue: it is queued there.
    QueueBlocker busy(own_);
    ASSERT_EQ(SetNow("a", 1), kSuccess);
    EXPECT_FALSE(log_.WaitFor(1, std::chrono::milliseconds(50)));
  }
  ASSERT_TRUE(log_.WaitFor(1));
  EXPECT_EQ(log_.Deliveries().at(0).queueLabel, "test.observer");
}

TEST_F(ObserverTest, OnlyApplicationsThatAskToNotifyAreTold) {
  auto observer = log_.MakeObserver();
  ASSERT_EQ(domain_->AddObserver(own_, observer), kSuccess);
  ASSERT_EQ(domain_->Push(MakeRecord("alerts", 0, "quiet", Int(1)), false), kSuccess);
  ASSERT_EQ(domain_->Push(MakeRecord("alerts", 1, "loud", Int(1)), true), kSuccess);
  ASSERT_TRUE(log_.WaitFor(1));
  Drain(own_);
  ASSERT_EQ(log_.Count(), 1u);
  EXPECT_EQ(std::get<0>(log_.Deliveries()[0].changes.at(0)), "loud");
}

TEST_F(ObserverTest, UnreadableChangeListsAreNotPosted) {
  auto observer = log_.MakeObserver();
  ASSERT_EQ(domain_->AddObserver(own_, observer), kSuccess);
  std::shared_ptr<IArray> broken;
  std::shared_ptr<IArray> good;
  ASSERT_EQ(GetChangeArray(MakeRecord("alerts", 0, "a", Int(1)), broken), kSuccess);
  ASSERT_EQ(GetChangeArray(MakeRecord("alerts", 0, "b", nullptr), good), kSuccess);
  ASSERT_EQ(broken->Append(Int(2)), kSuccess);
  domain_->Notify(broken);
  domain_->Notify(good);
  ASSERT_TRUE(log_.WaitFor(1));
  Drain(own_);
  ASSERT_EQ(log_.Count(), 1u);
  EXPECT_EQ(log_.Deliveries()[0].changes.at(0),
            std::make_tuple(std::string("b"), IObserver::Deleted, std::shared_ptr<IValue>()));
}

TEST_F(ObserverTest, EachRegistrationIsToldOnce) {
  auto observer = log_.MakeObserver();
  ASSERT_EQ(domain_->AddObserver(own_, observer), kSuccess);
  ASSERT_EQ(domain_->AddObserver(nullptr, observer), kSuccess);
  ASSERT_EQ(SetNow("a", 1), kSuccess);
  ASSERT_TRUE(log_.WaitFor(2));

  EXPECT_EQ(domain_->RemoveObserver(observer), kSuccess);  // both entries go
  ASSERT_EQ(SetNow("a", 2), kSuccess);
  DeliveryLog later;
  auto witness = later.MakeObserver();
  ASSERT_EQ(domain_->AddObserver(own_, witness), kSuccess);
  ASSERT_EQ(SetNow("a", 3), kSuccess);
  ASSERT_TRUE(later.WaitFor(1));
  EXPECT_EQ(log_.Count(), 2u);
}

TEST_F(ObserverTest, ReleasedObserversAreSkippedAndPurgedOnRemove) {
  std::weak_ptr<SettingsObserver> gone;
  {
    auto released = log_.MakeObserver();
    ASSERT_EQ(domain_->AddObserver(own_, released), kSuccess);
    gone = released;
  }
  ASSERT_TRUE(gone.expired());
  DeliveryLog alive;
  auto kept = alive.MakeObserver();
  ASSERT_EQ(domain_->AddObserver(own_, kept), kSuccess);
  ASSERT_EQ(SetNow("a", 1), kSuccess);
  ASSERT_TRUE(alive.WaitFor(1));
  Drain(own_);
  EXPECT_EQ(log_.Count(), 0u);

  auto stranger = log_.MakeObserver();
  EXPECT_EQ(domain_->RemoveObserver(stranger), kSuccess);  // only the released entry went
  EXPECT_EQ(domain_->RemoveObserver(stranger), kNotFound);
  EXPECT_EQ(domain_->RemoveObserver(kept), kSuccess);
  EXPECT_EQ(domain_->AddObserver(own_, nullptr), kInvalidArgument);
}

TEST_F(ObserverTest, DetachDropsDeliveriesAlreadyQueued) {
  auto observer = log_.MakeObserver();
  ASSERT_EQ(domain_->AddObserver(own_, observer), kSuccess);
  {
    QueueBlocker busy(own_);
    ASSERT_EQ(SetNow("a", 1), kSuccess);
    observer->Detach();
  }
  Drain(own_);
  EXPECT_EQ(log_.Count(), 0u);
}

TEST_F(ObserverTest, DetachWaitsForADeliveryUnderWay) {
  std::atomic<bool> entered{false};
  std::atomic<bool> release{false};
  std::atomic<bool> finished{false};
  std::shared_ptr<SettingsObserver> observer;
  ASSERT_EQ(SettingsObserver::Create(
                [&](const std::shared_ptr<IDomainSetting>&, const IObserver::ChangeList&) {
                  entered = true;
                  while (!release) std::this_thread::yield();
                  finished = true;
                },
                observer),
            kSuccess);
  ASSERT_EQ(domain_->AddObserver(own_, observer), kSuccess);
  ASSERT_EQ(SetNow("a", 1), kSuccess);
  while (!entered) std::this_thread::yield();

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
  std::atomic<int> calls{0};
  std::shared_ptr<SettingsObserver> observer;
  SettingsObserver* self = nullptr;
  ASSERT_EQ(SettingsObserver::Create(
                [&](const std::shared_ptr<IDomainSetting>&, const IObserver::ChangeList&) {
                  ++calls;
                  self->Detach();
                },
                observer),
            kSuccess);
  self = observer.get();
  ASSERT_EQ(domain_->AddObserver(own_, observer), kSuccess);
  ASSERT_EQ(SetNow("a", 1), kSuccess);
  ASSERT_EQ(SetNow("a", 2), kSuccess);
  Drain(own_);
  EXPECT_EQ(calls, 1);
}

TEST_F(ObserverTest, CreationNeedsATargetOrACallback) {
  std::shared_ptr<SettingsObserver> kept = log_.MakeObserver();
  std::shared_ptr<SettingsObserver> out = kept;
  EXPECT_EQ(SettingsObserver::Create(static_cast<IObserver*>(nullptr), out), kInvalidArgument);
  EXPECT_EQ(SettingsObserver::Create(SettingsObserver::Callback(), out), kInvalidArgument);
  EXPECT_EQ(out, kept);
}

TEST_F(ObserverTest, ForwardsToATargetUntilDetached) {
  auto inner = log_.MakeObserver();
  std::shared_ptr<SettingsObserver> outer;
  ASSERT_EQ(SettingsObserver::Create(inner.get(), outer), kSuccess);
  ASSERT_EQ(domain_->AddObserver(own_, outer), kSuccess);
  ASSERT_EQ(SetNow("a", 1), kSuccess);
  ASSERT_TRUE(log_.WaitFor(1));
  outer->Detach();
  ASSERT_EQ(SetNow("a", 2), kSuccess);
  Drain(own_);
  EXPECT_EQ(log_.Count(), 1u);
}

TEST_F(ObserverTest, ThrowingCallbackIsReportedAndLaterDeliveriesGoOn) {
  platform::ScopedCaptureSink capture;
  std::atomic<int> calls{0};
  std::shared_ptr<SettingsObserver> observer;
  ASSERT_EQ(SettingsObserver::Create(
                [&](const std::shared_ptr<IDomainSetting>&, const IObserver::ChangeList&) {
                  if (++calls == 1) throw std::runtime_error("observer failed");
                },
                observer),
            kSuccess);
  ASSERT_EQ(domain_->AddObserver(own_, observer), kSuccess);
  ASSERT_EQ(SetNow("a", 1), kSuccess);
  ASSERT_EQ(SetNow("a", 2), kSuccess);
  Drain(own_);
  EXPECT_EQ(calls, 2);
  auto report = capture->FindExceptionReport("DOST", "OnChange");
  ASSERT_TRUE(report);
  EXPECT_EQ(report->exceptionWhat, "observer failed");
}

TEST_F(ObserverTest, CallbacksMayUseTheDomain) {
  std::atomic<int> calls{0};
  DeliveryLog added;
  auto second = added.MakeObserver();
  std::shared_ptr<SettingsObserver> observer;
  ASSERT_EQ(SettingsObserver::Create(
                [&](const std::shared_ptr<IDomainSetting>& domain, const IObserver::ChangeList&) {
                  if (++calls > 1) return;
                  std::shared_ptr<IValue> value;
                  EXPECT_EQ(domain->Get("a", value), kSuccess);
                  EXPECT_EQ(domain->AddObserver(nullptr, second), kSuccess);
                  EXPECT_EQ(Commit(*domain, NewTransaction(*domain)), kSuccess);
                },
                observer),
            kSuccess);
  ASSERT_EQ(domain_->AddObserver(own_, observer), kSuccess);
  ASSERT_EQ(SetNow("a", 1), kSuccess);
  Drain(own_);
  EXPECT_EQ(calls, 1);
  ASSERT_EQ(SetNow("a", 2), kSuccess);
  EXPECT_TRUE(added.WaitFor(1));
  // The callback refers to this test's locals.
  observer->Detach();
}

}  // namespace
}  // namespace QelSS
