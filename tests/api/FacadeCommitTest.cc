// The facade in front of a domain whose commits complete only when the test
// says so: the synchronous wait and its time limit, the asynchronous
// completion's clearing of the transaction, and a facade without a domain.

#include <chrono>
#include <future>
#include <thread>

#include <gtest/gtest.h>

#include "api/FacadeLimits.h"
#include "api/FacadeTestSupport.h"
#include "api/QSSDomainAccess.h"
#include "domain/DomainTestSupport.h"
#include "qelss/domain/SettingsObserver.h"

namespace QelSS {
namespace {

using testing::Code;
using testing::HeldCommitDomain;

class ScopedCommitLimit {
 public:
  explicit ScopedCommitLimit(std::chrono::milliseconds limit)
      : previous_(SetCommitWaitLimitForTesting(limit)) {}
  ~ScopedCommitLimit() { SetCommitWaitLimitForTesting(previous_); }

 private:
  std::chrono::milliseconds previous_;
};

class HeldCommitTest : public ::testing::Test {
 protected:
  void SetUp() override {
    held_ = std::make_shared<HeldCommitDomain>(testing::InMemoryDomain::Make("held"));
    facade_ = QSSDomainAccess::Wrap(held_);
  }

  void WaitUntilHeld(size_t count) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (held_->HeldCount() < count && std::chrono::steady_clock::now() < end) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ASSERT_EQ(held_->HeldCount(), count);
  }

  std::shared_ptr<HeldCommitDomain> held_;
  std::shared_ptr<QSSDomain> facade_;
};

TEST_F(HeldCommitTest, SynchronousCommitWaitsForTheDomainsAnswer) {
  auto commit = std::async(std::launch::async, [this] { return facade_->SetCommit("/k", 1LL); });
  WaitUntilHeld(1);
  EXPECT_EQ(commit.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  held_->ReleaseAll();
  EXPECT_EQ(commit.get(), Code(kSuccess));
  long long value = 0;
  EXPECT_EQ(facade_->Get("/k", value), Code(kSuccess));
  EXPECT_EQ(value, 1);
}

TEST_F(HeldCommitTest, CommitThatNeverCompletesTimesOutAndClearsTheTransaction) {
  ScopedCommitLimit limit(std::chrono::milliseconds(50));
  ASSERT_EQ(facade_->CreateTransaction(), Code(kSuccess));
  ASSERT_EQ(facade_->Set("/k", 1LL), Code(kSuccess));
  EXPECT_EQ(facade_->CommitTransaction(), Code(kTimeout));
  EXPECT_EQ(facade_->Set("/k", 2LL), Code(kFailure));
  EXPECT_EQ(facade_->SetCommit("/j", 2LL), Code(kTimeout));

  // Answers that arrive after the facade gave up change nothing in the facade.
  held_->ReleaseAll();
  EXPECT_EQ(facade_->Set("/k", 3LL), Code(kFailure));
}

TEST_F(HeldCommitTest, AsynchronousCompletionClearsATransactionMadeMeanwhile) {
  ASSERT_EQ(facade_->CreateTransaction(), Code(kSuccess));
  ASSERT_EQ(facade_->Set("/first", 1LL), Code(kSuccess));
  std::error_code outcome = Code(kFailure);
  bool transactionStillThereInDone = false;
  ASSERT_EQ(facade_->CommitTransaction([&](std::error_code rc) {
    outcome = rc;
    transactionStillThereInDone = Succeeded(facade_->Set("/inside", 1LL));
  }),
            Code(kSuccess));

  ASSERT_EQ(facade_->CreateTransaction(), Code(kSuccess));
  ASSERT_EQ(facade_->Set("/second", 2LL), Code(kSuccess));
  held_->ReleaseAll();

  EXPECT_EQ(outcome, Code(kSuccess));
  EXPECT_TRUE(transactionStillThereInDone) << "cleared before done ran";
  EXPECT_EQ(facade_->Set("/second", 3LL), Code(kFailure)) << "the newer transaction survived";
}

TEST_F(HeldCommitTest, CompletionThatOutlivesTheFacadeStillRuns) {
  ASSERT_EQ(facade_->CreateTransaction(), Code(kSuccess));
  ASSERT_EQ(facade_->Set("/k", 1LL), Code(kSuccess));
  std::error_code outcome = Code(kFailure);
  ASSERT_EQ(facade_->CommitTransaction([&outcome](std::error_code rc) { outcome = rc; }),
            Code(kSuccess));
  facade_.reset();
  held_->ReleaseAll();
  EXPECT_EQ(outcome, Code(kSuccess));
}

TEST(FacadeWithoutDomain, EveryDomainOperationAnswersNotOpen) {
  std::shared_ptr<QSSDomain> facade = QSSDomainAccess::Wrap(nullptr);
  long long value = 0;
  EXPECT_EQ(facade->Get("/k", value), Code(kDomainNotOpen));
  EXPECT_EQ(facade->Set("/k", 1LL), Code(kDomainNotOpen));
  EXPECT_EQ(facade->SetCommit("/k", 1LL), Code(kDomainNotOpen));
  EXPECT_EQ(facade->Delete("/k"), Code(kDomainNotOpen));
  EXPECT_EQ(facade->DeleteAndCommit("/k"), Code(kDomainNotOpen));
  EXPECT_EQ(facade->CreateTransaction(), Code(kDomainNotOpen));
  EXPECT_EQ(facade->CommitTransaction(), Code(kDomainNotOpen));
  EXPECT_EQ(facade->CommitTransaction([](std::error_code) {}), Code(kDomainNotOpen));
  std::shared_ptr<SettingsObserver> observer;
  ASSERT_EQ(
      SettingsObserver::Create(
          [](const std::shared_ptr<IDomainSetting>&, const IObserver::ChangeList&) {}, observer),
      Code(kSuccess));
  EXPECT_EQ(facade->AddObserver(nullptr, observer), Code(kDomainNotOpen));
  EXPECT_EQ(facade->RemoveObserver(observer), Code(kDomainNotOpen));

  bool ran = false;
  EXPECT_EQ(facade->PerformBlock([&ran] { ran = true; }), Code(kSuccess));
  EXPECT_TRUE(ran);
}

}  // namespace
}  // namespace QelSS
