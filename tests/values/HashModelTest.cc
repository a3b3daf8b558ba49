// Large hashes against an ordered-map model. The hash keeps its entries in
// sorted leaves that split when full and join when sparse; thousands of keys
// in random, ascending and descending order walk every one of those paths.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "qelss/values/IHash.h"
#include "qelss/values/INumber.h"
#include "values/ValuesTestSupport.h"

namespace QelSS {
namespace {

using namespace QelSS::testing;
using Model = std::map<std::string, long long>;  // std::string orders by bytes, as the hash does

// Keys of several lengths and cases, so that byte order differs from length
// order and from case-blind order; long common beginnings, keys of exactly
// eight bytes and bytes above 0x7f, so that the table's comparison of a key's
// first eight bytes as a number must agree with strcmp.
std::string KeyFor(int n) {
  static const char* const kPrefixes[] = {
      "k", "K", "key.", "a/b", "~", "settings.window.", "\xc3\xa9t\xc3\xa9", "abcdefg"};
  char text[48];
  std::snprintf(text, sizeof text, "%s%d", kPrefixes[n % 8], n);
  return text;
}

class HashModel : public ::testing::Test {
 protected:
  void Set(const std::string& key, long long value) {
    ASSERT_EQ(hash_->Set(key.c_str(), Int(value)), kOk);
    model_[key] = value;
  }

  void Delete(const std::string& key) {
    const bool present = model_.erase(key) == 1;
    EXPECT_EQ(hash_->Delete(key.c_str()), make_error_code(present ? kSuccess : kNotFound)) << key;
  }

  static Model Contents(const IHash& hash) {
    Model seen;
    std::string previous;
    EXPECT_EQ(hash.Iterate([&](const auto& key, const auto& value, bool&) {
      const std::string text = key->GetCString();
      EXPECT_TRUE(seen.empty() || previous < text) << previous << " before " << text;
      previous = text;
      int64_t number = 0;
      EXPECT_EQ(std::dynamic_pointer_cast<INumber>(value)->GetInt64(number), kOk);
      seen[text] = number;
    }),
              kOk);
    return seen;
  }

  void ExpectMatchesModel() {
    ASSERT_EQ(hash_->GetCount(), model_.size());
    ASSERT_EQ(Contents(*hash_), model_);
    for (const auto& [key, value] : model_) ASSERT_EQ(IntAt(*hash_, key.c_str()), value) << key;
  }

  std::shared_ptr<IHash> hash_ = MakeHash();
  Model model_;
};

TEST_F(HashModel, RandomSetsAndDeletesMatchAnOrderedMap) {
  std::mt19937 random(20240607);
  std::uniform_int_distribution<int> keys(0, 2999);
  for (int step = 1; step <= 30000; ++step) {
    const std::string key = KeyFor(keys(random));
    if (random() % 10 < 6) {
      Set(key, step);
    } else {
      Delete(key);
    }
    if (step % 5000 == 0) ExpectMatchesModel();
  }
  for (int n = 3000; n < 3100; ++n) {
    EXPECT_EQ(hash_->Contains(KeyFor(n).c_str()), make_error_code(kNotFound));
  }
  // Emptying it at random joins and frees every leaf; it then works as new.
  std::vector<std::string> left;
  for (const auto& entry : model_) left.push_back(entry.first);
  std::shuffle(left.begin(), left.end(), random);
  for (const auto& key : left) Delete(key);
  ExpectMatchesModel();
  Set("again", 1);
  ExpectMatchesModel();
}

TEST_F(HashModel, AscendingDescendingAndInterleavedFills) {
  for (int n = 0; n < 1500; ++n) Set("m" + std::to_string(100000 + n), n);
  for (int n = 1500; n > 0; --n) Set("a" + std::to_string(100000 + n), -n);
  for (int n = 0; n < 1500; ++n) Set("m" + std::to_string(100000 + n) + "+", n);
  ExpectMatchesModel();
  // Every other key, and all of the first third: leaves thin out unevenly.
  std::vector<std::string> all;
  for (const auto& entry : model_) all.push_back(entry.first);
  for (size_t i = 0; i < all.size(); ++i) {
    if (i % 2 == 0 || i < all.size() / 3) Delete(all[i]);
  }
  ExpectMatchesModel();
  // Replacing keeps the count and the stored key.
  const auto firstKey = model_.begin()->first;
  Set(firstKey, 42);
  ExpectMatchesModel();
}

TEST_F(HashModel, CopiesAndTransfersKeepEveryEntry) {
  std::mt19937 random(7);
  for (int n = 0; n < 2000; ++n) Set(KeyFor(static_cast<int>(random() % 5000)), n);

  std::shared_ptr<IValue> clone;
  ASSERT_EQ(hash_->Clone(clone), kOk);
  auto copy = std::dynamic_pointer_cast<IHash>(clone);
  EXPECT_TRUE(*copy == *hash_);
  EXPECT_EQ(Contents(*copy), model_);
  // The copy grows and shrinks on its own.
  ASSERT_EQ(copy->Set("zzz-new", Int(1)), kOk);
  ASSERT_EQ(copy->Delete(model_.begin()->first.c_str()), kOk);
  ExpectMatchesModel();

  auto assigned = MakeHash({{"replaced", Int(0)}});
  ASSERT_EQ(assigned->Assign(hash_), kOk);
  EXPECT_EQ(Contents(*assigned), model_);

  auto moved = MakeHash({{"replaced", Int(0)}});
  *moved = std::move(*copy);
  EXPECT_EQ(copy->GetCount(), 0u);
  EXPECT_EQ(moved->GetCount(), model_.size());

  HashEntries entries;
  for (const auto& [key, value] : model_) entries.emplace(Key(key.c_str()), Int(value + 1));
  hash_->SetEntries(std::move(entries));
  for (auto& entry : model_) ++entry.second;
  ExpectMatchesModel();
}

}  // namespace
}  // namespace QelSS
