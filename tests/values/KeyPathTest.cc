#include "values/KeyPath.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "qelss/values/ArrayFactory.h"
#include "qelss/values/HashFactory.h"
#include "qelss/values/ValueHelper.h"

namespace QelSS {
namespace {

using ValuePtr = std::shared_ptr<IValue>;

class KeyPathTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(HashFactory::Create(tree_), make_error_code(kSuccess)); }

  static ValuePtr Number(long long n) {
    ValuePtr value;
    EXPECT_EQ(ValueHelper::Set(n, value), make_error_code(kSuccess));
    return value;
  }

  std::error_code Store(const std::string& path, const ValuePtr& value) {
    return KeyPath::Store(tree_, path, value);
  }

  // The value at `path`, or null when the lookup fails.
  ValuePtr At(const std::string& path) {
    ValuePtr value;
    return Succeeded(KeyPath::Lookup(tree_, path, value)) ? value : nullptr;
  }

  // A deep copy to compare the tree with after a failed change.
  ValuePtr Snapshot() {
    ValuePtr copy;
    EXPECT_EQ(tree_->Clone(copy), make_error_code(kSuccess));
    return copy;
  }

  bool Unchanged(const ValuePtr& snapshot) { return *tree_ == *snapshot; }

  std::shared_ptr<IHash> tree_;
};

TEST(KeyPathSplit, SkipsEmptyComponents) {
  using Parts = std::vector<std::string>;
  EXPECT_EQ(KeyPath::Split("/a//b/"), (Parts{"a", "b"}));
  EXPECT_EQ(KeyPath::Split("a/b"), (Parts{"a", "b"}));
  EXPECT_EQ(KeyPath::Split("single"), (Parts{"single"}));
  EXPECT_TRUE(KeyPath::Split("").empty());
  EXPECT_TRUE(KeyPath::Split("///").empty());
}

TEST_F(KeyPathTest, StoreCreatesNestedLevelsAndLookupSharesTheValue) {
  ValuePtr value = Number(1);
  ASSERT_EQ(Store("a/b/c", value), make_error_code(kSuccess));
  EXPECT_EQ(At("a/b/c"), value);
  EXPECT_EQ(At("/a//b/c/"), value);
  EXPECT_EQ(At("a/b")->GetType(), uint32_t{kValueTypeHash});

  ASSERT_EQ(Store("/a//x/", Number(2)), make_error_code(kSuccess));
  EXPECT_TRUE(*At("a/x") == *Number(2));
  EXPECT_EQ(At("a/b/c"), value);
  EXPECT_EQ(tree_->GetCount(), 1u);
}

TEST_F(KeyPathTest, StoringAnEqualValueIsRefusedAndKeepsTheStoredObject) {
  ValuePtr first = Number(5);
  ASSERT_EQ(Store("k/v", first), make_error_code(kSuccess));
  EXPECT_EQ(Store("k/v", Number(5)), make_error_code(kOperationRefused));
  EXPECT_EQ(Store("k/v", first), make_error_code(kOperationRefused));
  EXPECT_EQ(At("k/v"), first);

  ValuePtr unsignedFive;
  ASSERT_EQ(ValueHelper::Set(5ULL, unsignedFive), make_error_code(kSuccess));
  EXPECT_EQ(Store("k/v", unsignedFive), make_error_code(kSuccess));
  EXPECT_EQ(At("k/v"), unsignedFive);

  ASSERT_EQ(Store("k", Number(9)), make_error_code(kSuccess));
  EXPECT_EQ(At("k/v"), nullptr);
}

TEST_F(KeyPathTest, PathsWithoutComponentsAndNullArgumentsAreInvalid) {
  ValuePtr out;
  for (const char* path : {"", "/", "//"}) {
    EXPECT_EQ(Store(path, Number(1)), make_error_code(kInvalidArgument)) << path;
    EXPECT_EQ(KeyPath::Remove(tree_, path), make_error_code(kInvalidArgument)) << path;
    EXPECT_EQ(KeyPath::Lookup(tree_, path, out), make_error_code(kInvalidArgument)) << path;
  }
  EXPECT_EQ(Store("a", nullptr), make_error_code(kInvalidArgument));
  EXPECT_EQ(KeyPath::Store(nullptr, "a", Number(1)), make_error_code(kInvalidArgument));
  EXPECT_EQ(KeyPath::Lookup(nullptr, "a", out), make_error_code(kInvalidArgument));
  EXPECT_EQ(KeyPath::Remove(nullptr, "a"), make_error_code(kInvalidArgument));
  EXPECT_EQ(tree_->GetCount(), 0u);
}

TEST_F(KeyPathTest, AScalarInTheMiddleOfAPathStopsEveryOperation) {
  ASSERT_EQ(Store("a/leaf", Number(1)), make_error_code(kSuccess));
  ValuePtr snapshot = Snapshot();

  EXPECT_EQ(Store("a/leaf/deeper/x", Number(2)), make_error_code(kInvalidType));
  EXPECT_TRUE(Unchanged(snapshot));
  ValuePtr out = Number(7);
  EXPECT_EQ(KeyPath::Lookup(tree_, "a/leaf/x", out), make_error_code(kNotFound));
  EXPECT_TRUE(*out == *Number(7));
  EXPECT_EQ(KeyPath::Remove(tree_, "a/leaf/x"), make_error_code(kNotFound));
  EXPECT_TRUE(Unchanged(snapshot));
}

TEST_F(KeyPathTest, AValueHoldingItsOwnAncestorIsRefusedWithoutLeftoverLevels) {
  ASSERT_EQ(Store("a/b", Number(1)), make_error_code(kSuccess));
  ValuePtr snapshot = Snapshot();

  EXPECT_EQ(Store("new/deeper/k", tree_), make_error_code(kInvalidArgument));
  ValuePtr a = At("a");
  EXPECT_EQ(Store("a/fresh/k", a), make_error_code(kInvalidArgument));
  std::shared_ptr<IArray> wrapper;
  ASSERT_EQ(ArrayFactory::Create(wrapper), make_error_code(kSuccess));
  ASSERT_EQ(wrapper->Append(a), make_error_code(kSuccess));
  EXPECT_EQ(Store("a/fresh/k", wrapper), make_error_code(kInvalidArgument));
  EXPECT_TRUE(Unchanged(snapshot));

  // A subtree may be stored beside itself: that is sharing, not a cycle.
  EXPECT_EQ(Store("copy", a), make_error_code(kSuccess));
}

TEST_F(KeyPathTest, RemoveTakesOnlyTheLastLevelAndReportsWhatIsMissing) {
  ASSERT_EQ(Store("a/b/c", Number(1)), make_error_code(kSuccess));
  ASSERT_EQ(Store("a/b/d", Number(2)), make_error_code(kSuccess));

  EXPECT_EQ(KeyPath::Remove(tree_, "/a/b//c"), make_error_code(kSuccess));
  EXPECT_EQ(At("a/b/c"), nullptr);
  EXPECT_NE(At("a/b/d"), nullptr);
  EXPECT_EQ(KeyPath::Remove(tree_, "a/b/c"), make_error_code(kNotFound));
  EXPECT_EQ(KeyPath::Remove(tree_, "a/missing/c"), make_error_code(kNotFound));

  EXPECT_EQ(KeyPath::Remove(tree_, "a/b/d"), make_error_code(kSuccess));
  EXPECT_EQ(At("a/b")->GetType(), uint32_t{kValueTypeHash});
  EXPECT_EQ(KeyPath::Remove(tree_, "a"), make_error_code(kSuccess));
  EXPECT_EQ(tree_->GetCount(), 0u);
}

}  // namespace
}  // namespace QelSS
