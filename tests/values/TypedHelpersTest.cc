#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "qelss/values/ArrayFactory.h"
#include "qelss/values/ArrayHelper.h"
#include "qelss/values/DateFactory.h"
#include "qelss/values/HashFactory.h"
#include "qelss/values/HashHelper.h"
#include "qelss/values/NullFactory.h"
#include "qelss/values/NumberFactory.h"
#include "qelss/values/StringFactory.h"
#include "qelss/values/ValueHelper.h"

namespace QelSS {
namespace {

using Bytes = std::vector<unsigned char>;
using ValuePtr = std::shared_ptr<IValue>;

// Near misses must not compile, so that no caller silently gets another kind.
template <typename T>
concept ValueSettable = requires(const T& in, ValuePtr& out) {
  ValueHelper::Set(in, out);
};
template <typename T>
concept ValueGettable = requires(const ValuePtr& value, T& out) {
  ValueHelper::Get(value, out);
};
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
ValuePtr Make(const T& in) {
  ValuePtr value;
  EXPECT_EQ(ValueHelper::Set(in, value), make_error_code(kSuccess));
  return value;
}

ValuePtr Null() {
  std::shared_ptr<INull> null;
  EXPECT_EQ(NullFactory::Create(null), make_error_code(kSuccess));
  return null;
}

std::shared_ptr<IHash> EmptyHash() {
  std::shared_ptr<IHash> hash;
  EXPECT_EQ(HashFactory::Create(hash), make_error_code(kSuccess));
  return hash;
}

std::shared_ptr<IArray> EmptyArray() {
  std::shared_ptr<IArray> array;
  EXPECT_EQ(ArrayFactory::Create(array), make_error_code(kSuccess));
  return array;
}

template <typename T>
std::error_code Read(const ValuePtr& value, T& out) {
  return ValueHelper::Get(value, out);
}

template <typename T>
T RoundTrip(const T& in) {
  T out{};
  EXPECT_EQ(Read(Make(in), out), make_error_code(kSuccess));
  return out;
}

TEST(ValueHelperGet, NarrowReadsKeepTheLowBitsWithoutRangeChecks) {
  short s = 0;
  EXPECT_EQ(Read(Make(70000LL), s), make_error_code(kSuccess));
  EXPECT_EQ(s, 4464);
  EXPECT_EQ(Read(Make(-2LL), s), make_error_code(kSuccess));
  EXPECT_EQ(s, -2);
  unsigned char c = 0;
  EXPECT_EQ(Read(Make(300ULL), c), make_error_code(kSuccess));
  EXPECT_EQ(c, 44);
  unsigned short us = 0;
  EXPECT_EQ(Read(Make(65537ULL), us), make_error_code(kSuccess));
  EXPECT_EQ(us, 1);
}

TEST(ValueHelperGet, KindsAreNeverConvertedAndTheOutputStaysOnFailure) {
  short s = 7;
  EXPECT_EQ(Read(Make(70000ULL), s), make_error_code(kInvalidType));
  unsigned short us = 7;
  EXPECT_EQ(Read(Make(5LL), us), make_error_code(kInvalidType));
  long long ll = 7;
  EXPECT_EQ(Read(Make(5ULL), ll), make_error_code(kInvalidType));
  EXPECT_EQ(s, 7);
  EXPECT_EQ(us, 7);
  EXPECT_EQ(ll, 7);
}

TEST(ValueHelperGet, OtherTypesAndNullGiveInvalidDataAndTouchNothing) {
  long seconds = 7;
  EXPECT_EQ(Read(Make(1234LL), seconds), make_error_code(kInvalidData));
  long long number = 7;
  EXPECT_EQ(Read(Make(1234L), number), make_error_code(kInvalidData));
  std::string text = "kept";
  EXPECT_EQ(Read(Make(Bytes{'a'}), text), make_error_code(kInvalidData));
  EXPECT_EQ(Read(ValuePtr(), text), make_error_code(kInvalidData));
  Bytes bytes = {1};
  EXPECT_EQ(Read(Null(), bytes), make_error_code(kInvalidData));
  EXPECT_EQ(seconds, 7);
  EXPECT_EQ(number, 7);
  EXPECT_EQ(text, "kept");
  EXPECT_EQ(bytes, Bytes{1});
}

TEST(ValueHelperGet, PointersShareOrAreResetOnFailure) {
  ValuePtr hash = EmptyHash();
  std::shared_ptr<IHash> asHash;
  EXPECT_EQ(Read(hash, asHash), make_error_code(kSuccess));
  EXPECT_EQ(asHash.get(), dynamic_cast<IHash*>(hash.get()));

  EXPECT_EQ(Read(ValuePtr(), asHash), make_error_code(kInvalidArgument));
  EXPECT_EQ(asHash, nullptr);
  asHash = EmptyHash();
  EXPECT_EQ(ValueHelper::Move(ValuePtr(), asHash), make_error_code(kInvalidData));
  EXPECT_EQ(asHash, nullptr);
  asHash = EmptyHash();
  EXPECT_EQ(Read(Make(1LL), asHash), make_error_code(kInvalidData));
  EXPECT_EQ(asHash, nullptr);

  ValuePtr any = EmptyHash();
  EXPECT_EQ(Read(ValuePtr(), any), make_error_code(kInvalidArgument));
  EXPECT_EQ(any, nullptr);
  ValuePtr text = Make(std::string("x"));
  EXPECT_EQ(ValueHelper::Move(text, any), make_error_code(kSuccess));
  EXPECT_EQ(any, text);
  EXPECT_EQ(text.use_count(), 2);

  std::shared_ptr<IValueSerialize> serializable;
  EXPECT_EQ(ValueHelper::Move(text, serializable), make_error_code(kSuccess));
  EXPECT_EQ(dynamic_cast<IValue*>(serializable.get()), text.get());
  std::shared_ptr<IDate> date;
  EXPECT_EQ(ValueHelper::Move(text, date), make_error_code(kInvalidData));
}

TEST(ValueHelperSet, EachTypeMakesItsKindAndReadsBack) {
  EXPECT_EQ(RoundTrip(true), true);
  EXPECT_EQ(RoundTrip(LLONG_MIN), LLONG_MIN);
  EXPECT_EQ(RoundTrip(ULLONG_MAX), ULLONG_MAX);
  EXPECT_EQ(RoundTrip(2.5), 2.5);
  EXPECT_EQ(RoundTrip(1700000000L), 1700000000L);
  EXPECT_EQ(Make(1700000000L)->GetType(), uint32_t{kValueTypeDate});
  EXPECT_EQ(RoundTrip(std::string("caf\xc3\xa9")), "caf\xc3\xa9");
  EXPECT_EQ(RoundTrip(Bytes{}), Bytes{});
  EXPECT_EQ(RoundTrip(Bytes{0, 0xff, 0}), (Bytes{0, 0xff, 0}));
  EXPECT_FALSE(*Make(5LL) == *Make(5ULL));

  ValuePtr literal;
  ASSERT_EQ(ValueHelper::Set("literal", literal), make_error_code(kSuccess));
  std::string text;
  EXPECT_EQ(Read(literal, text), make_error_code(kSuccess));
  EXPECT_EQ(text, "literal");
}

TEST(ValueHelperSet, PointersAreSharedAndFailuresLeaveTheOutputAlone) {
  std::shared_ptr<IHash> hash = EmptyHash();
  ValuePtr out;
  EXPECT_EQ(ValueHelper::Set(hash, out), make_error_code(kSuccess));
  EXPECT_EQ(dynamic_cast<IHash*>(out.get()), hash.get());

  const ValuePtr before = out;
  EXPECT_EQ(ValueHelper::Set(std::shared_ptr<IHash>(), out), make_error_code(kInvalidArgument));
  EXPECT_EQ(ValueHelper::Set<const char*>(nullptr, out), make_error_code(kInvalidArgument));
  EXPECT_EQ(ValueHelper::Set(LONG_MAX, out), make_error_code(kInvalidArgument));
  EXPECT_EQ(out, before);
}

TEST(HashHelper, ReadsAndWritesKeysThroughTheValueConversions) {
  auto hash = EmptyHash();
  ASSERT_EQ(HashHelper::Set(hash, "u", static_cast<unsigned short>(65535)),
            make_error_code(kSuccess));
  short s = 3;
  EXPECT_EQ(HashHelper::Get(hash, "u", s), make_error_code(kInvalidType));
  EXPECT_EQ(s, 3);
  unsigned long long wide = 0;
  EXPECT_EQ(HashHelper::Get(hash, "u", wide), make_error_code(kSuccess));
  EXPECT_EQ(wide, 65535u);

  ASSERT_EQ(HashHelper::Set(hash, "s", static_cast<short>(-2)), make_error_code(kSuccess));
  long long signedWide = 0;
  EXPECT_EQ(HashHelper::Get(hash, "s", signedWide), make_error_code(kSuccess));
  EXPECT_EQ(signedWide, -2);

  ASSERT_EQ(HashHelper::Set(hash, "when", 1000L), make_error_code(kSuccess));
  long when = 0;
  EXPECT_EQ(HashHelper::Get(hash, "when", when), make_error_code(kSuccess));
  EXPECT_EQ(when, 1000);
  EXPECT_EQ(HashHelper::Get(hash, "when", signedWide), make_error_code(kInvalidData));

  ASSERT_EQ(HashHelper::Set(hash, "name", "text"), make_error_code(kSuccess));
  std::string name;
  EXPECT_EQ(HashHelper::Get(hash, "name", name), make_error_code(kSuccess));
  EXPECT_EQ(name, "text");
  std::shared_ptr<IArray> notArray = EmptyArray();
  EXPECT_EQ(HashHelper::Get(hash, "name", notArray), make_error_code(kInvalidData));
  EXPECT_EQ(notArray, nullptr);

  auto inner = EmptyHash();
  ASSERT_EQ(HashHelper::Set(hash, "inner", inner), make_error_code(kSuccess));
  std::shared_ptr<IHash> readBack;
  EXPECT_EQ(HashHelper::Get(hash, "inner", readBack), make_error_code(kSuccess));
  EXPECT_EQ(readBack, inner);
}

TEST(HashHelper, NullHashAbsentKeyAndFailedValueChangeNothing) {
  std::string out = "kept";
  EXPECT_EQ(HashHelper::Get(nullptr, "k", out), make_error_code(kInvalidArgument));
  EXPECT_EQ(HashHelper::Set(nullptr, "k", 1LL), make_error_code(kInvalidArgument));

  auto hash = EmptyHash();
  std::shared_ptr<IHash> pointer = hash;
  EXPECT_EQ(HashHelper::Get(hash, "absent", out), make_error_code(kNotFound));
  EXPECT_EQ(HashHelper::Get(hash, "absent", pointer), make_error_code(kNotFound));
  EXPECT_EQ(out, "kept");
  EXPECT_EQ(pointer, hash);

  ASSERT_EQ(HashHelper::Set(hash, "k", "old"), make_error_code(kSuccess));
  EXPECT_EQ(HashHelper::Set<const char*>(hash, "k", nullptr), make_error_code(kInvalidArgument));
  EXPECT_EQ(HashHelper::Set(hash, "k", std::shared_ptr<IData>()),
            make_error_code(kInvalidArgument));
  EXPECT_EQ(HashHelper::Get(hash, "k", out), make_error_code(kSuccess));
  EXPECT_EQ(out, "old");
  EXPECT_EQ(hash->GetCount(), 1u);
}

TEST(ArrayHelper, AppendsFindsAndRemovesByValueAndKind) {
  auto array = EmptyArray();
  ASSERT_EQ(ArrayHelper::AppendObject(array, 5LL), make_error_code(kSuccess));
  ASSERT_EQ(ArrayHelper::AppendObject(array, std::string("x")), make_error_code(kSuccess));
  ASSERT_EQ(ArrayHelper::AppendObject(array, 5LL), make_error_code(kSuccess));
  ASSERT_EQ(ArrayHelper::AppendObject(array, 60L), make_error_code(kSuccess));
  ASSERT_EQ(array->GetCount(), 4u);

  EXPECT_EQ(ArrayHelper::ContainsObject(array, 60L), make_error_code(kSuccess));
  EXPECT_EQ(ArrayHelper::ContainsObject(array, 60LL), make_error_code(kNotFound));
  EXPECT_EQ(ArrayHelper::ContainsObject(array, 5ULL), make_error_code(kNotFound));
  EXPECT_EQ(ArrayHelper::RemoveObject(array, 5ULL), make_error_code(kNotFound));

  EXPECT_EQ(ArrayHelper::RemoveObject(array, 5LL), make_error_code(kSuccess));
  ASSERT_EQ(array->GetCount(), 2u);
  ValuePtr first;
  ASSERT_EQ(array->Get(0, first), make_error_code(kSuccess));
  std::string text;
  EXPECT_EQ(Read(first, text), make_error_code(kSuccess));
  EXPECT_EQ(text, "x");
  EXPECT_EQ(ArrayHelper::ContainsObject(array, 5LL), make_error_code(kNotFound));
}

TEST(ArrayHelper, NullArrayOrValueIsRefusedAndLeavesTheArrayAlone) {
  EXPECT_EQ(ArrayHelper::AppendObject(nullptr, true), make_error_code(kInvalidArgument));
  EXPECT_EQ(ArrayHelper::RemoveObject(nullptr, true), make_error_code(kInvalidArgument));
  EXPECT_EQ(ArrayHelper::ContainsObject(nullptr, true), make_error_code(kInvalidArgument));

  auto array = EmptyArray();
  ASSERT_EQ(ArrayHelper::AppendObject(array, Bytes{}), make_error_code(kSuccess));
  EXPECT_EQ(ArrayHelper::AppendObject(array, ValuePtr()), make_error_code(kInvalidArgument));
  EXPECT_EQ(ArrayHelper::RemoveObject(array, ValuePtr()), make_error_code(kInvalidArgument));
  EXPECT_EQ(ArrayHelper::AppendObject(array, LONG_MIN), make_error_code(kInvalidArgument));
  EXPECT_EQ(array->GetCount(), 1u);
  EXPECT_EQ(ArrayHelper::ContainsObject(array, Bytes{}), make_error_code(kSuccess));
}

}  // namespace
}  // namespace QelSS
