// Containers used from many threads at once. Every value stored under key "k<i>"
// (or appended as element i) is the number i, so any torn or mixed-up state
// shows as a value that does not match its key. The cross-direction tests fail
// by hanging (the queue layer aborts a cycle of waits) or by a sanitizer report.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <latch>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "qelss/values/IArray.h"
#include "qelss/values/IHash.h"
#include "values/ValuesTestSupport.h"

namespace QelSS {
namespace {

using namespace QelSS::testing;

constexpr int kKeys = 32;
constexpr int kRounds = 2000;

std::string KeyText(int index) { return "k" + std::to_string(index); }

int IndexOfKey(const char* key) { return std::atoi(key + 1); }

long long NumberOf(const IValue& value) {
  int64_t number = -1;
  auto* typed = dynamic_cast<const INumber*>(&value);
  return typed != nullptr && typed->GetInt64(number) == kOk ? number : -1;
}

// Every entry holds the number of its key, in ascending key order. The count
// can only be checked against a hash that no other thread is changing.
void ExpectConsistentHash(const IHash& hash, bool settled = true) {
  std::string previous;
  size_t visited = 0;
  EXPECT_EQ(hash.Iterate([&](const auto& key, const auto& value, bool&) {
    EXPECT_LT(previous, key->GetCString());
    previous = key->GetCString();
    if (value->GetType() != kValueTypeHash) {
      EXPECT_EQ(NumberOf(*value), IndexOfKey(key->GetCString())) << key->GetCString();
    }
    ++visited;
  }),
            kOk);
  if (settled) {
    EXPECT_EQ(visited, hash.GetCount());
  }
}

// Runs each task on its own thread `rounds` times, all threads starting together.
void RunTogether(const std::vector<std::function<void(std::mt19937&)>>& tasks,
                 int rounds = kRounds) {
  std::latch start(static_cast<std::ptrdiff_t>(tasks.size()));
  std::vector<std::thread> threads;
  for (size_t i = 0; i < tasks.size(); ++i) {
    threads.emplace_back([&, i] {
      std::mt19937 random(static_cast<unsigned>(i) + 1);
      start.arrive_and_wait();
      for (int round = 0; round < rounds; ++round) tasks[i](random);
    });
  }
  for (auto& thread : threads) thread.join();
}

int AnyKey(std::mt19937& random) { return static_cast<int>(random() % kKeys); }

TEST(ContainerStress, OneHashFromManyThreads) {
  auto hash = MakeHash({{"nested", MakeHash()}});
  auto nested = std::dynamic_pointer_cast<IHash>(GetKey(*hash, "nested"));
  RunTogether({
      [&](std::mt19937& random) {
        int i = AnyKey(random);
        EXPECT_EQ(hash->Set(KeyText(i).c_str(), Int(i)), kOk);
        EXPECT_EQ(nested->Set(Key(KeyText(i).c_str()), Int(i)), kOk);
      },
      [&](std::mt19937& random) {
        std::error_code result = hash->Delete(KeyText(AnyKey(random)).c_str());
        EXPECT_TRUE(result == kOk || result == make_error_code(kNotFound));
        nested->RemoveAll();
      },
      [&](std::mt19937& random) {
        int i = AnyKey(random);
        std::shared_ptr<IValue> value;
        if (hash->Get(KeyText(i).c_str(), value) == kOk) {
          EXPECT_EQ(NumberOf(*value), i);
        }
      },
      [&](std::mt19937&) { ExpectConsistentHash(*hash, false); },
      [&](std::mt19937&) {
        std::shared_ptr<IValue> clone;
        ASSERT_EQ(hash->Clone(clone), kOk);
        auto copy = std::dynamic_pointer_cast<IHash>(clone);
        ExpectConsistentHash(*copy);
        ExpectConsistentHash(*std::dynamic_pointer_cast<IHash>(GetKey(*copy, "nested")));
      },
      [&](std::mt19937& random) {
        int i = AnyKey(random);
        EXPECT_EQ(hash->Merge(MakeHash({{KeyText(i).c_str(), Int(i)},
                                        {"nested", MakeHash({{KeyText(i).c_str(), Int(i)}})}})),
                  kOk);
        std::string text;
        EXPECT_EQ(hash->Description(text), kOk);
      },
  });
  ExpectConsistentHash(*hash);
  ExpectConsistentHash(*nested);
}

TEST(ContainerStress, OneArrayFromManyThreads) {
  auto array = MakeArray();
  auto expectConsistent = [](const IArray& list) {
    EXPECT_EQ(list.Iterate([](const auto& value, unsigned int, bool&) {
      long long number = NumberOf(*value);
      EXPECT_TRUE(number >= 0 && number < kKeys);
    }),
              kOk);
  };
  // Adders trim the front so that the array stays short whatever the schedule.
  auto trim = [&] {
    if (array->GetCount() > 2 * kKeys) {
      std::error_code result = array->RemoveAt(0);
      EXPECT_TRUE(result == kOk || result == make_error_code(kIndexOutOfRange));
    }
  };
  RunTogether({
      [&](std::mt19937& random) {
        EXPECT_EQ(array->Append(Int(AnyKey(random))), kOk);
        trim();
      },
      [&](std::mt19937& random) {
        EXPECT_EQ(array->Insert(0, Int(AnyKey(random))), kOk);
        trim();
      },
      [&](std::mt19937& random) {
        std::error_code result = array->Remove(Int(AnyKey(random)));
        EXPECT_TRUE(result == kOk || result == make_error_code(kNotFound));
      },
      [&](std::mt19937& random) {
        std::shared_ptr<IValue> value;
        std::error_code result = array->Get(static_cast<unsigned>(random() % 8), value);
        EXPECT_TRUE(result == kOk || result == make_error_code(kIndexOutOfRange));
        (void)array->Contains(Int(AnyKey(random)));
      },
      [&](std::mt19937&) {
        std::shared_ptr<IValue> clone;
        ASSERT_EQ(array->Clone(clone), kOk);
        expectConsistent(*std::dynamic_pointer_cast<IArray>(clone));
        expectConsistent(*array);
      },
  });
  expectConsistent(*array);
}

// Each thread works on the pair in its own direction; a container that held its
// queue while waiting for the other's would deadlock here.
TEST(ContainerStress, OppositeDirectionsNeverDeadlock) {
  constexpr int kCrossRounds = 10000;
  auto a = MakeHash({{"k1", Int(1)}, {"inner", MakeHash({{"k2", Int(2)}})}});
  auto b = MakeHash({{"k1", Int(1)}, {"inner", MakeHash({{"k3", Int(3)}})}});
  auto x = MakeArray({MakeHash({{"k4", Int(4)}}), Int(5)});
  auto y = MakeArray({MakeHash({{"k4", Int(4)}}), Int(5)});
  auto hashes = [](std::shared_ptr<IHash> from, std::shared_ptr<IHash> to) {
    return [=](std::mt19937& random) {
      (void)(*from == *to);
      EXPECT_EQ(from->Merge(to), kOk);
      if (random() % 8 == 0) {
        EXPECT_EQ(from->Assign(to), kOk);
      }
    };
  };
  auto arrays = [](std::shared_ptr<IArray> list, std::shared_ptr<IArray> other) {
    return [=](std::mt19937& random) {
      (void)(*list == *other);
      (void)list->Contains(std::shared_ptr<IValue>(other));
      if (random() % 8 == 0) {
        EXPECT_EQ(list->Assign(other), kOk);
      }
      EXPECT_EQ(list->Append(other), kOk);
      if (list->GetCount() > 16) {
        (void)list->Remove(MakeHash({{"k4", Int(4)}}));
        (void)list->Remove(Int(5));
      }
    };
  };
  RunTogether({hashes(a, b), hashes(b, a), arrays(x, y), arrays(y, x)}, kCrossRounds);
  ExpectConsistentHash(*a);
  ExpectConsistentHash(*b);
}

}  // namespace
}  // namespace QelSS
