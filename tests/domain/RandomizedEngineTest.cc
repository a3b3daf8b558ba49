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

using testing::InMemoryDomain;
using testing::Int;

using State = std::map<std::string, long long>;

// An open transaction beside what the model expects of it: its snapshot and the
// effective changes it recorded (nullopt for a deletion).
struct Open {
  std::shared_ptr<ITransaction> transaction;
  int64_t base;
  State working;
  std::vector<std::pair<std::string, std::optional<long long>>> recorded;
};

// The engine's rules over std::map: a commit from an older generation is
// accepted when at most five generations old and touching no path changed
// since, two deletions of one path excepted.
class Model {
 public:
  ErrorCode Commit(const Open& open) {
    if (open.recorded.empty()) return kSuccess;
    const int64_t age = generation - open.base;
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
      if (value) committed[key] = *value;
      if (!value) committed.erase(key);
      paths[key] = paths[key] || value.has_value();
    }
    history_.push_back(std::move(paths));
    if (history_.size() > 5) history_.pop_front();
    ++generation;
    return kSuccess;
  }

  State committed;
  int64_t generation = 0;

 private:
  std::deque<std::map<std::string, bool>> history_;
};

class RandomizedEngineTest : public ::testing::TestWithParam<unsigned> {};

TEST_P(RandomizedEngineTest, MatchesAMapModel) {
  const std::vector<std::string> keys = {"k0", "k1", "k2", "k3", "grp/k0", "grp/k1"};
  std::mt19937 random(GetParam());
  auto pick = [&](size_t n) { return static_cast<size_t>(random() % n); };
  // Several spellings of one key must act as one key.
  auto spell = [&](const std::string& key) {
    const size_t how = pick(4);
    return how == 0 ? "/" + key : how == 1 ? key + "//" : key;
  };
  auto domain = InMemoryDomain::Make("model");
  Model model;
  std::vector<Open> open;
  for (int step = 0; step < 2000; ++step) {
    const size_t action = pick(10);
    if (open.empty() || (action == 0 && open.size() < 4)) {
      open.push_back({testing::NewTransaction(*domain), model.generation, model.committed, {}});
      continue;
    }
    Open& target = open[pick(open.size())];
    const std::string& key = keys[pick(keys.size())];
    if (action < 5) {
      const long long value = static_cast<long long>(pick(3));
      ASSERT_EQ(target.transaction->Set(spell(key), Int(value)), kSuccess);
      auto found = target.working.find(key);
      if (found != target.working.end() && found->second == value) continue;
      target.working[key] = value;
      target.recorded.emplace_back(key, value);
    } else if (action < 7) {
      ASSERT_EQ(target.transaction->Delete(spell(key)), kSuccess);
      if (target.working.erase(key) != 0) target.recorded.emplace_back(key, std::nullopt);
    } else {
      ASSERT_EQ(testing::Commit(*domain, target.transaction), model.Commit(target))
          << "step " << step;
      open.erase(open.begin() + (&target - open.data()));
      ASSERT_EQ(domain->Generation(), model.generation) << "step " << step;
      for (const std::string& each : keys) {
        auto found = model.committed.find(each);
        ASSERT_EQ(testing::IntAt(*domain, each), found == model.committed.end()
                                                     ? std::nullopt
                                                     : std::optional<long long>(found->second))
            << each << " at step " << step;
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(RandomRuns, RandomizedEngineTest, ::testing::Values(1u, 2u, 3u, 4u));

}  // namespace
}  // namespace QelSS
