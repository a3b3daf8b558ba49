#include <gtest/gtest.h>

#include <deque>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "DomainTestSupport.h"

namespace QelSS {
namespace {

using testing::Commit;
using testing::InMemoryDomain;
using testing::Int;
using testing::IntAt;
using testing::NewTransaction;

using State = std::map<std::string, long long>;

// The engine's rules restated over std::map: transactions record only
// effective changes against their snapshot, and a commit from an older
// generation is accepted when it is at most five generations old and touches
// no path changed since, deletions of one path excepted.
class Model {
 public:
  struct Open {
    std::shared_ptr<ITransaction> transaction;
    int64_t base = 0;
    State working;
    std::vector<std::pair<std::string, std::optional<long long>>> recorded;  // nullopt: delete
  };

  Open Begin(std::shared_ptr<ITransaction> transaction) const {
    return Open{std::move(transaction), generation_, committed_, {}};
  }

  static void Set(Open& open, const std::string& key, long long value) {
    auto found = open.working.find(key);
    if (found != open.working.end() && found->second == value) return;
    open.working[key] = value;
    open.recorded.emplace_back(key, value);
  }

  static void Delete(Open& open, const std::string& key) {
    if (open.working.erase(key) == 0) return;
    open.recorded.emplace_back(key, std::nullopt);
  }

  // Applies the commit to the model and returns the code the engine must give.
  ErrorCode Commit(const Open& open) {
    if (open.recorded.empty()) return kSuccess;
    const int64_t age = generation_ - open.base;
    if (age > 5) return kTransactionConflict;
    for (int64_t i = 0; i < age; ++i) {
      const auto& changed = history_[history_.size() - 1 - static_cast<size_t>(i)];
      for (const auto& [key, value] : open.recorded) {
        auto found = changed.find(key);
        if (found != changed.end() && (found->second || value)) return kTransactionConflict;
      }
    }
    std::map<std::string, bool> paths;  // true when set
    for (const auto& [key, value] : open.recorded) {
      if (value) {
        committed_[key] = *value;
      } else {
        committed_.erase(key);
      }
      paths[key] = paths[key] || value.has_value();
    }
    history_.push_back(std::move(paths));
    if (history_.size() > 5) history_.pop_front();
    ++generation_;
    return kSuccess;
  }

  const State& committed() const { return committed_; }
  int64_t generation() const { return generation_; }

 private:
  State committed_;
  int64_t generation_ = 0;
  std::deque<std::map<std::string, bool>> history_;
};

class RandomizedEngineTest : public ::testing::TestWithParam<unsigned> {};

TEST_P(RandomizedEngineTest, MatchesAMapModel) {
  const std::vector<std::string> keys = {"k0", "k1", "k2", "k3", "k4", "grp/k0", "grp/k1"};
  std::mt19937 random(GetParam());
  auto pick = [&](size_t n) { return static_cast<size_t>(random() % n); };
  // Several spellings of one key must behave as one key.
  auto spell = [&](const std::string& key) {
    switch (pick(4)) {
      case 0:
        return "/" + key;
      case 1:
        return key + "/";
      default:
        return key;
    }
  };

  auto domain = InMemoryDomain::Make("model");
  Model model;
  std::vector<Model::Open> open;
  for (int step = 0; step < 2000; ++step) {
    const size_t action = pick(10);
    if (open.empty() || (action == 0 && open.size() < 4)) {
      auto transaction = NewTransaction(*domain);
      ASSERT_TRUE(transaction);
      open.push_back(model.Begin(transaction));
    } else if (action < 5) {
      Model::Open& target = open[pick(open.size())];
      const std::string& key = keys[pick(keys.size())];
      const long long value = static_cast<long long>(pick(3));
      ASSERT_EQ(target.transaction->Set(spell(key), Int(value)), kSuccess);
      Model::Set(target, key, value);
    } else if (action < 7) {
      Model::Open& target = open[pick(open.size())];
      const std::string& key = keys[pick(keys.size())];
      ASSERT_EQ(target.transaction->Delete(spell(key)), kSuccess);
      Model::Delete(target, key);
    } else {
      const size_t index = pick(open.size());
      // Paths are recorded as spelled; the model compares them canonically,
      // which is what the engine must do too.
      ASSERT_EQ(Commit(*domain, open[index].transaction), model.Commit(open[index]))
          << "step " << step;
      open.erase(open.begin() + static_cast<std::ptrdiff_t>(index));
      ASSERT_EQ(domain->Generation(), model.generation()) << "step " << step;
      for (const std::string& key : keys) {
        auto expected = model.committed().find(key);
        ASSERT_EQ(IntAt(*domain, key), expected == model.committed().end()
                                           ? std::nullopt
                                           : std::optional<long long>(expected->second))
            << key << " at step " << step;
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomizedEngineTest, ::testing::Values(1u, 2u, 3u, 4u));

}  // namespace
}  // namespace QelSS
