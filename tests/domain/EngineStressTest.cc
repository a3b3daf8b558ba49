#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "DomainTestSupport.h"
#include "ObserverTestSupport.h"

namespace QelSS {
namespace {

using testing::Commit;
using testing::DeliveryLog;
using testing::InMemoryDomain;
using testing::Int;
using testing::IntAt;
using testing::NewTransaction;

// Writers commit while readers read and observers come and go. Nothing may
// deadlock, every accepted commit must raise the generation by exactly one and
// reach the permanent observer once, and no observer may run inside a queue
// block of the domain.
TEST(EngineStress, CommitsReadsAndObserverChurnAgree) {
  constexpr int kWriters = 4;
  constexpr int kCommitsEach = 400;
  auto domain = InMemoryDomain::Make("stress");
  dispatch_queue_t own = dispatch_queue_create("stress.observers", DISPATCH_QUEUE_SERIAL);

  std::atomic<int> violations{0};
  auto checking = [&](const std::shared_ptr<IDomainSetting>& seen, const IObserver::ChangeList&) {
    const platform::RunningFrame* frame = platform::tInnermostFrame;
    if (frame == nullptr || frame->outer != nullptr ||
        frame->queue->GetLabel() == "com.qelvarin.domainsetting") {
      ++violations;
    }
    std::shared_ptr<IValue> value;
    (void)seen->Get("shared", value);  // would deadlock if the domain queue were held
  };

  DeliveryLog permanent;
  auto counter = permanent.MakeObserver();
  ASSERT_EQ(domain->AddObserver(nullptr, counter), kSuccess);

  std::atomic<int> accepted{0};
  std::atomic<int> unexpected{0};
  std::atomic<bool> writing{true};
  std::vector<int> lastAccepted(kWriters, -1);
  std::vector<std::thread> threads;
  for (int w = 0; w < kWriters; ++w) {
    threads.emplace_back([&, w] {
      std::mt19937 random(w);
      const std::string ownKey = "writer" + std::to_string(w) + "/n";
      for (int i = 0; i < kCommitsEach; ++i) {
        auto transaction = NewTransaction(*domain);
        if (!transaction || transaction->Set(ownKey, Int(i)) != kSuccess) {
          ++unexpected;
          continue;
        }
        if (random() % 4 == 0 && transaction->Set("shared", Int(i)) != kSuccess) ++unexpected;
        if (random() % 2 == 0) std::this_thread::yield();
        std::error_code result = Commit(*domain, transaction);
        if (result == kSuccess) {
          ++accepted;
          lastAccepted[w] = i;
        } else if (result != kTransactionConflict) {
          ++unexpected;
        }
      }
    });
  }
  for (int r = 0; r < 2; ++r) {
    threads.emplace_back([&] {
      while (writing) {
        std::shared_ptr<IValue> value;
        std::error_code read = domain->Get("writer1/n", value);
        if (read != kSuccess && read != kNotFound) ++unexpected;
      }
    });
  }
  threads.emplace_back([&] {
    int round = 0;
    while (writing) {
      std::shared_ptr<SettingsObserver> observer;
      if (SettingsObserver::Create(checking, observer) != kSuccess ||
          domain->AddObserver(round % 2 ? own : nullptr, observer) != kSuccess) {
        ++unexpected;
        continue;
      }
      std::this_thread::yield();
      observer->Detach();
      if (domain->RemoveObserver(observer) != kSuccess) ++unexpected;
      ++round;
    }
  });

  for (int w = 0; w < kWriters; ++w) threads[w].join();
  writing = false;
  for (size_t t = kWriters; t < threads.size(); ++t) threads[t].join();

  EXPECT_EQ(unexpected, 0);
  EXPECT_GT(accepted, 0);
  EXPECT_EQ(domain->Generation(), accepted);
  for (int w = 0; w < kWriters; ++w) {
    auto expected = lastAccepted[w] < 0 ? std::nullopt : std::optional<long long>(lastAccepted[w]);
    EXPECT_EQ(IntAt(*domain, "writer" + std::to_string(w) + "/n"), expected) << w;
  }
  ASSERT_TRUE(permanent.WaitFor(static_cast<size_t>(accepted.load())));
  testing::Drain(own);
  EXPECT_EQ(permanent.Count(), static_cast<size_t>(accepted.load()));
  EXPECT_EQ(violations, 0);
  for (const auto& delivery : permanent.Deliveries()) {
    EXPECT_FALSE(delivery.nestedInAnotherQueue);
    EXPECT_EQ(delivery.queueLabel, "com.qelvarin.domainsetting.observer");
  }
  dispatch_release(own);
}

}  // namespace
}  // namespace QelSS
