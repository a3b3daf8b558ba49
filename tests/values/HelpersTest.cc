// The typed helpers and key paths: how plain C++ types map onto values.
#include <gtest/gtest.h>

#include <climits>
#include <vector>

#include "qelss/values/ArrayHelper.h"
#include "qelss/values/HashHelper.h"
#include "qelss/values/NullFactory.h"
#include "values/KeyPath.h"
#include "values/ValuesTestSupport.h"

namespace QelSS {
namespace {

using namespace QelSS::testing;
using Bytes = std::vector<unsigned char>;
using ValuePtr = std::shared_ptr<IValue>;

// Near misses must not compile, so that no caller silently gets another kind.
template <typename T>
concept ValueSettable = requires(const T& in, ValuePtr& out) { ValueHelper::Set(in, out); };
template <typename T>
concept ValueGettable = requires(const ValuePtr& value, T& out) { ValueHelper::Get(value, out); };
template <typename T>
concept HashGettable = requires(const std::shared_ptr<IHash>& hash, T& out) {
  HashHelper::Get(hash, "k", out);
};
template <typename T>
concept HashSettable = requires(const std::shared_ptr<IHash>& hash, const T& in) {
  HashHelper::Set(hash, "k", in);
};
template <typename T>
concept Appendable = requires(const std::shared_ptr<IArray>& array, const T& in) {
  ArrayHelper::AppendObject(array, in);
};

static_assert(ValueSettable<long> && ValueSettable<const char*> && ValueSettable<char[4]>);
static_assert(!ValueSettable<int> && !ValueSettable<unsigned long> && !ValueSettable<char*>);
static_assert(!ValueSettable<short> && !ValueSettable<float>);
static_assert(ValueGettable<unsigned char> && !ValueGettable<int> && !ValueGettable<const char*>);
static_assert(HashSettable<short> && HashSettable<unsigned short> && !HashSettable<unsigned char>);
static_assert(!HashSettable<std::shared_ptr<IString>> && HashGettable<std::shared_ptr<IString>>);
static_assert(!HashGettable<unsigned char> && !HashGettable<std::shared_ptr<INumber>>);
static_assert(Appendable<long> && !Appendable<const char*> && !Appendable<std::shared_ptr<IHash>>);

template <typename T>
T RoundTrip(const T& in) {
  T out{};
  EXPECT_EQ(ValueHelper::Get(V(in), out), kOk);
  return out;
}

// Reads `value` into a T that starts as `initial`; the code and what is left.
template <typename T>
std::pair<std::error_code, T> Read(const ValuePtr& value, T initial) {
  std::error_code code = ValueHelper::Get(value, initial);
  return {code, initial};
}

TEST(ValueHelper, EachTypeMakesItsKindAndReadsBack) {
  EXPECT_EQ(RoundTrip(true), true);
  EXPECT_EQ(RoundTrip(LLONG_MIN), LLONG_MIN);
  EXPECT_EQ(RoundTrip(ULLONG_MAX), ULLONG_MAX);
  EXPECT_EQ(RoundTrip(2.5), 2.5);
  EXPECT_EQ(RoundTrip(1700000000L), 1700000000L);
  EXPECT_EQ(V(1700000000L)->GetType(), uint32_t{kValueTypeDate});
  EXPECT_EQ(RoundTrip(std::string("caf\xc3\xa9")), "caf\xc3\xa9");
  EXPECT_EQ(RoundTrip(Bytes{}), Bytes{});
  EXPECT_EQ(RoundTrip(Bytes{0, 0xff, 0}), (Bytes{0, 0xff, 0}));
  EXPECT_EQ(Describe(*V("literal")), "literal");

  // Narrow reads keep the low bits without range checks, within a kind.
  EXPECT_EQ(Read<short>(Int(70000), 0), std::make_pair(kOk, short{4464}));
  EXPECT_EQ(Read<short>(Int(-2), 0), std::make_pair(kOk, short{-2}));
  EXPECT_EQ(Read<unsigned char>(V(300ULL), 0), std::make_pair(kOk, static_cast<unsigned char>(44)));
  EXPECT_EQ(Read<unsigned short>(V(65537ULL), 0), std::make_pair(kOk, static_cast<unsigned short>(1)));
}

TEST(ValueHelper, KindsAreNeverConvertedAndFailuresTouchNothing) {
  const auto invalidType = make_error_code(kInvalidType), invalidData = make_error_code(kInvalidData);
  EXPECT_EQ(Read<short>(V(70000ULL), 7), std::make_pair(invalidType, short{7}));
  EXPECT_EQ(Read<unsigned short>(Int(5), 7), std::make_pair(invalidType, static_cast<unsigned short>(7)));
  EXPECT_EQ(Read<long long>(V(5ULL), 7), std::make_pair(invalidType, 7LL));
  EXPECT_EQ(Read<long>(Int(1234), 7), std::make_pair(invalidData, 7L));
  EXPECT_EQ(Read<long long>(V(1234L), 7), std::make_pair(invalidData, 7LL));
  EXPECT_EQ(Read<std::string>(V(Bytes{'a'}), "kept"), std::make_pair(invalidData, std::string("kept")));
  EXPECT_EQ(Read<std::string>(nullptr, "kept"), std::make_pair(invalidData, std::string("kept")));
  std::shared_ptr<INull> null;
  ASSERT_EQ(NullFactory::Create(null), kOk);
  EXPECT_EQ(Read<Bytes>(null, {1}), std::make_pair(invalidData, Bytes{1}));

  ValuePtr out = Int(1);
  const ValuePtr before = out;
  EXPECT_EQ(ValueHelper::Set(std::shared_ptr<IHash>(), out), make_error_code(kInvalidArgument));
  EXPECT_EQ(ValueHelper::Set<const char*>(nullptr, out), make_error_code(kInvalidArgument));
  EXPECT_EQ(ValueHelper::Set(LONG_MAX, out), make_error_code(kInvalidArgument));
  EXPECT_EQ(out, before);
}

TEST(ValueHelper, PointersShareOrAreResetOnFailure) {
  ValuePtr hash = MakeHash();
  std::shared_ptr<IHash> asHash;
  EXPECT_EQ(ValueHelper::Get(hash, asHash), kOk);
  EXPECT_EQ(asHash.get(), dynamic_cast<IHash*>(hash.get()));
  ValuePtr shared;
  EXPECT_EQ(ValueHelper::Set(asHash, shared), kOk);
  EXPECT_EQ(shared, hash);

  EXPECT_EQ(ValueHelper::Get(ValuePtr(), asHash), make_error_code(kInvalidArgument));
  EXPECT_EQ(asHash, nullptr);
  asHash = MakeHash();
  EXPECT_EQ(ValueHelper::Move(ValuePtr(), asHash), make_error_code(kInvalidData));
  EXPECT_EQ(asHash, nullptr);
  asHash = MakeHash();
  EXPECT_EQ(ValueHelper::Get(Int(1), asHash), make_error_code(kInvalidData));
  EXPECT_EQ(asHash, nullptr);
  ValuePtr any = MakeHash();
  EXPECT_EQ(ValueHelper::Get(ValuePtr(), any), make_error_code(kInvalidArgument));
  EXPECT_EQ(any, nullptr);

  ValuePtr text = Text("x");
  EXPECT_EQ(ValueHelper::Move(text, any), kOk);
  EXPECT_EQ(any, text);
  std::shared_ptr<IValueSerialize> serializable;
  EXPECT_EQ(ValueHelper::Move(text, serializable), kOk);
  EXPECT_EQ(dynamic_cast<IValue*>(serializable.get()), text.get());
  std::shared_ptr<IDate> date;
  EXPECT_EQ(ValueHelper::Move(text, date), make_error_code(kInvalidData));
}

TEST(HashHelper, KeysGoThroughTheValueConversions) {
  auto hash = MakeHash();
  std::string out = "kept";
  EXPECT_EQ(HashHelper::Get(nullptr, "k", out), make_error_code(kInvalidArgument));
  EXPECT_EQ(HashHelper::Set(nullptr, "k", 1LL), make_error_code(kInvalidArgument));
  std::shared_ptr<IHash> pointer = hash;
  EXPECT_EQ(HashHelper::Get(hash, "absent", out), make_error_code(kNotFound));
  EXPECT_EQ(HashHelper::Get(hash, "absent", pointer), make_error_code(kNotFound));
  EXPECT_TRUE(out == "kept" && pointer == hash);

  ASSERT_EQ(HashHelper::Set(hash, "u", static_cast<unsigned short>(65535)), kOk);
  short s = 3;
  unsigned long long wide = 0;
  EXPECT_EQ(HashHelper::Get(hash, "u", s), make_error_code(kInvalidType));
  EXPECT_EQ(HashHelper::Get(hash, "u", wide), kOk);
  EXPECT_TRUE(s == 3 && wide == 65535u);
  ASSERT_EQ(HashHelper::Set(hash, "s", static_cast<short>(-2)), kOk);
  long long signedWide = 0;
  EXPECT_EQ(HashHelper::Get(hash, "s", signedWide), kOk);
  EXPECT_EQ(signedWide, -2);
  ASSERT_EQ(HashHelper::Set(hash, "when", 1000L), kOk);
  EXPECT_EQ(HashHelper::Get(hash, "when", signedWide), make_error_code(kInvalidData));

  ASSERT_EQ(HashHelper::Set(hash, "name", "text"), kOk);
  EXPECT_EQ(HashHelper::Set<const char*>(hash, "name", nullptr), make_error_code(kInvalidArgument));
  EXPECT_EQ(HashHelper::Set(hash, "name", std::shared_ptr<IData>()), make_error_code(kInvalidArgument));
  EXPECT_EQ(HashHelper::Get(hash, "name", out), kOk);
  EXPECT_EQ(out, "text");
  std::shared_ptr<IArray> notArray = MakeArray();
  EXPECT_EQ(HashHelper::Get(hash, "name", notArray), make_error_code(kInvalidData));
  EXPECT_EQ(notArray, nullptr);
  auto inner = MakeHash();
  ASSERT_EQ(HashHelper::Set(hash, "inner", inner), kOk);
  EXPECT_EQ(HashHelper::Get(hash, "inner", pointer), kOk);
  EXPECT_EQ(pointer, inner);
}

TEST(ArrayHelper, AppendsFindsAndRemovesByValueAndKind) {
  EXPECT_EQ(ArrayHelper::AppendObject(nullptr, true), make_error_code(kInvalidArgument));
  EXPECT_EQ(ArrayHelper::RemoveObject(nullptr, true), make_error_code(kInvalidArgument));
  EXPECT_EQ(ArrayHelper::ContainsObject(nullptr, true), make_error_code(kInvalidArgument));
  auto array = MakeArray();
  for (auto append : {ArrayHelper::AppendObject(array, 5LL), ArrayHelper::AppendObject(array, std::string("x")),
                      ArrayHelper::AppendObject(array, 5LL), ArrayHelper::AppendObject(array, 60L)}) {
    ASSERT_EQ(append, kOk);
  }
  EXPECT_EQ(ArrayHelper::AppendObject(array, ValuePtr()), make_error_code(kInvalidArgument));
  EXPECT_EQ(ArrayHelper::RemoveObject(array, ValuePtr()), make_error_code(kInvalidArgument));
  EXPECT_EQ(ArrayHelper::AppendObject(array, LONG_MIN), make_error_code(kInvalidArgument));
  EXPECT_EQ(ArrayHelper::ContainsObject(array, 60L), kOk);
  EXPECT_EQ(ArrayHelper::ContainsObject(array, 60LL), make_error_code(kNotFound));
  EXPECT_EQ(ArrayHelper::RemoveObject(array, 5ULL), make_error_code(kNotFound));
  EXPECT_EQ(ArrayHelper::RemoveObject(array, 5LL), kOk);
  ASSERT_EQ(array->GetCount(), 2u);
  EXPECT_EQ(ArrayHelper::ContainsObject(array, std::string("x")), kOk);
  EXPECT_EQ(ArrayHelper::ContainsObject(array, 5LL), make_error_code(kNotFound));
}

class KeyPathTest : public ::testing::Test {
 protected:
  std::error_code Store(const std::string& path, const ValuePtr& value) {
    return KeyPath::Store(tree_, path, value);
  }
  // The value at `path`, or null when the lookup fails.
  ValuePtr At(const std::string& path) {
    ValuePtr value;
    return Succeeded(KeyPath::Lookup(tree_, path, value)) ? value : nullptr;
  }
  std::shared_ptr<IHash> tree_ = MakeHash();
};

TEST_F(KeyPathTest, StoreCreatesLevelsAndEmptyComponentsAreSkipped) {
  using Parts = std::vector<std::string>;
  EXPECT_EQ(KeyPath::Split("/a//b/"), (Parts{"a", "b"}));
  EXPECT_TRUE(KeyPath::Split("///").empty());
  ValuePtr value = Int(5);
  ASSERT_EQ(Store("a/b/c", value), kOk);
  EXPECT_EQ(At("/a//b/c/"), value);
  EXPECT_EQ(At("a/b")->GetType(), uint32_t{kValueTypeHash});
  ASSERT_EQ(Store("/a//x/", Int(2)), kOk);
  EXPECT_TRUE(*At("a/x") == *Int(2));
  EXPECT_EQ(tree_->GetCount(), 1u);
  // An equal value is refused and the stored object kept; another kind is not equal.
  EXPECT_EQ(Store("a/b/c", Int(5)), make_error_code(kOperationRefused));
  EXPECT_EQ(At("a/b/c"), value);
  EXPECT_EQ(Store("a/b/c", V(5ULL)), kOk);
  ASSERT_EQ(Store("a/b", Int(9)), kOk);
  EXPECT_EQ(At("a/b/c"), nullptr);
}

TEST_F(KeyPathTest, BadPathsScalarsOnTheWayAndCyclesChangeNothing) {
  ASSERT_EQ(Store("a/leaf", Int(1)), kOk);
  const ValuePtr snapshot = CloneOf(tree_);
  ValuePtr out = Int(7);
  for (const char* path : {"", "/", "//"}) {
    EXPECT_EQ(Store(path, Int(1)), make_error_code(kInvalidArgument)) << path;
    EXPECT_EQ(KeyPath::Remove(tree_, path), make_error_code(kInvalidArgument)) << path;
    EXPECT_EQ(KeyPath::Lookup(tree_, path, out), make_error_code(kInvalidArgument)) << path;
  }
  EXPECT_EQ(Store("a", nullptr), make_error_code(kInvalidArgument));
  EXPECT_EQ(KeyPath::Store(nullptr, "a", Int(1)), make_error_code(kInvalidArgument));
  EXPECT_EQ(KeyPath::Lookup(nullptr, "a", out), make_error_code(kInvalidArgument));
  EXPECT_EQ(KeyPath::Remove(nullptr, "a"), make_error_code(kInvalidArgument));

  EXPECT_EQ(Store("a/leaf/deeper/x", Int(2)), make_error_code(kInvalidType));
  EXPECT_EQ(KeyPath::Lookup(tree_, "a/leaf/x", out), make_error_code(kNotFound));
  EXPECT_EQ(KeyPath::Remove(tree_, "a/leaf/x"), make_error_code(kNotFound));
  // A value holding its own ancestor is refused without leftover levels.
  ValuePtr a = At("a");
  EXPECT_EQ(Store("new/deeper/k", tree_), make_error_code(kInvalidArgument));
  EXPECT_EQ(Store("a/fresh/k", a), make_error_code(kInvalidArgument));
  EXPECT_EQ(Store("a/fresh/k", MakeArray({a})), make_error_code(kInvalidArgument));
  EXPECT_TRUE(*tree_ == *snapshot && *out == *Int(7));
  EXPECT_EQ(Store("copy", a), kOk);  // beside itself is sharing, not a cycle
}

TEST_F(KeyPathTest, RemoveTakesOnlyTheLastLevel) {
  ASSERT_EQ(Store("a/b/c", Int(1)), kOk);
  ASSERT_EQ(Store("a/b/d", Int(2)), kOk);
  EXPECT_EQ(KeyPath::Remove(tree_, "/a/b//c"), kOk);
  EXPECT_TRUE(At("a/b/c") == nullptr && At("a/b/d") != nullptr);
  EXPECT_EQ(KeyPath::Remove(tree_, "a/b/c"), make_error_code(kNotFound));
  EXPECT_EQ(KeyPath::Remove(tree_, "a/missing/c"), make_error_code(kNotFound));
  EXPECT_EQ(KeyPath::Remove(tree_, "a/b/d"), kOk);
  EXPECT_EQ(At("a/b")->GetType(), uint32_t{kValueTypeHash});
}

}  // namespace
}  // namespace QelSS
