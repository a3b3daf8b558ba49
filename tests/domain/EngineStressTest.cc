#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "DomainTestSupport.h"
#include "platform/dispatch/RunningFrame.h"
#include "platform/dispatch/SerialQueue.h"
#include "qelss/domain/SettingsObserver.h"
#include "qelss/values/ValueHelper.h"

namespace QelSS {
namespace {

using testing::Commit;
using testing::EventCounter;
using testing::InMemoryDomain;
using testing::Int;
using testing::IntAt;
using testing::NewTransaction;

// Writers commit while readers read and observers come and go. Nothing may
// deadlock, every accepted commit raises the generation by exactly one and
// reaches the permanent observer once, and no observer runs inside a block of
// another queue (the domain's above all).
TEST(EngineStress, CommitsReadsAndObserverChurnAgree) {
  constexpr int kWriters = 4;
  constexpr int kCommitsEach = 400;
  auto domain = InMemoryDomain::Make("stress");
  dispatch_queue_t own = dispatch_queue_create("stress.observers", DISPATCH_QUEUE_SERIAL);
  std::atomic<int> violations{0};
  EventCounter delivered;
  auto checking = [&](const std::shared_ptr<IDomainSetting>& seen, const IObserver::ChangeList&) {
    const platform::RunningFrame* frame = platform::tInnermostFrame;
    if (frame == nullptr || frame->outer != nullptr) ++violations;
    std::shared_ptr<IValue> value;
    (void)seen->Get("shared", value);  // would deadlock if the domain queue were held
  };
  std::shared_ptr<SettingsObserver> permanent;
  ASSERT_EQ(
      SettingsObserver::Create(
          [&](const std::shared_ptr<IDomainSetting>& seen, const IObserver::ChangeList& changes) {
            checking(seen, changes);
            delivered.Add();
          },
          permanent),
      kSuccess);
  ASSERT_EQ(domain->AddObserver(nullptr, permanent), kSuccess);

  std::atomic<int> accepted{0};
  std::atomic<int> unexpected{0};
  std::atomic<bool> writing{true};
  std::vector<int> lastAccepted(kWriters, -1);
  std::vector<std::thread> writers;
  for (int w = 0; w < kWriters; ++w) {
    writers.emplace_back([&, w] {
      std::mt19937 random(w);
      const std::string key = "writer" + std::to_string(w) + "/n";
      for (int i = 0; i < kCommitsEach; ++i) {
        auto transaction = NewTransaction(*domain);
        if (transaction->Set(key, Int(i)) != kSuccess) ++unexpected;
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
  std::vector<std::thread> others;
  for (int r = 0; r < 2; ++r) {
    others.emplace_back([&] {
      while (writing) {
        std::shared_ptr<IValue> value;
        std::error_code read = domain->Get("writer1/n", value);
        if (read != kSuccess && read != kNotFound) ++unexpected;
      }
    });
  }
  others.emplace_back([&] {
    for (int round = 0; writing; ++round) {
      std::shared_ptr<SettingsObserver> observer;
      if (SettingsObserver::Create(checking, observer) != kSuccess ||
          domain->AddObserver(round % 2 ? own : nullptr, observer) != kSuccess) {
        ++unexpected;
        continue;
      }
      std::this_thread::yield();
      observer->Detach();
      if (domain->RemoveObserver(observer) != kSuccess) ++unexpected;
    }
  });
  for (auto& writer : writers) writer.join();
  writing = false;
  for (auto& other : others) other.join();

  EXPECT_EQ(unexpected, 0);
  EXPECT_EQ(domain->Generation(), accepted);
  for (int w = 0; w < kWriters; ++w) {
    auto expected = lastAccepted[w] < 0 ? std::nullopt : std::optional<long long>(lastAccepted[w]);
    EXPECT_EQ(IntAt(*domain, "writer" + std::to_string(w) + "/n"), expected) << w;
  }
  ASSERT_TRUE(delivered.WaitFor(accepted));
  testing::Drain(own);
  permanent->Detach();
  EXPECT_EQ(delivered.Count(), accepted);
  EXPECT_EQ(violations, 0);
  dispatch_release(own);
}

// Readers never see half a commit, and what they read stays as it was while
// later commits go on: each commit is a new version, never a change to the
// hashes a reader holds.
TEST(EngineStress, ReadersSeeWholeCommitsAndKeepWhatTheyRead) {
  auto domain = InMemoryDomain::Make("versions");
  auto first = NewTransaction(*domain);
  ASSERT_EQ(first->Set("pair/a", Int(0)), kSuccess);
  ASSERT_EQ(first->Set("pair/b", Int(0)), kSuccess);
  ASSERT_EQ(Commit(*domain, first), kSuccess);

  std::atomic<bool> writing{true};
  std::atomic<int> torn{0}, changed{0}, unexpected{0}, reads{0};
  auto valueOf = [](const std::shared_ptr<IHash>& pair, const char* key) {
    std::shared_ptr<IValue> value;
    long long number = -1;
    if (pair->Get(key, value) == kSuccess) (void)ValueHelper::Get(value, number);
    return number;
  };
  std::vector<std::thread> readers;
  for (int r = 0; r < 2; ++r) {
    readers.emplace_back([&] {
      while (writing) {
        std::shared_ptr<IValue> value;
        auto pair = domain->Get("pair", value) == kSuccess ? std::dynamic_pointer_cast<IHash>(value)
                                                           : nullptr;
        if (!pair) {
          ++unexpected;
          continue;
        }
        const long long a = valueOf(pair, "a");
        if (valueOf(pair, "b") != a) ++torn;
        // Long enough for several commits to land meanwhile.
        std::this_thread::sleep_for(std::chrono::microseconds(50));
        if (valueOf(pair, "a") != a || valueOf(pair, "b") != a) ++changed;
        ++reads;
      }
    });
  }
  std::vector<std::thread> writers;
  for (int w = 0; w < 2; ++w) {
    writers.emplace_back([&, w] {
      for (int i = 1; i <= 2000; ++i) {
        auto transaction = NewTransaction(*domain);
        const long long v = w * 10000 + i;
        if (transaction->Set("pair/a", Int(v)) != kSuccess ||
            transaction->Set("pair/b", Int(v)) != kSuccess) {
          ++unexpected;
        }
        const std::error_code result = Commit(*domain, transaction);
        if (result != kSuccess && result != kTransactionConflict) ++unexpected;
      }
    });
  }
  for (auto& writer : writers) writer.join();
  writing = false;
  for (auto& reader : readers) reader.join();
  EXPECT_GT(reads, 0);
  EXPECT_EQ(unexpected, 0);
  EXPECT_EQ(torn, 0);
  EXPECT_EQ(changed, 0);
}

}  // namespace
}  // namespace QelSS
