// Numbers and dates that fit are carried in the object pointer itself. These
// tests walk both sides of every kind's limit: the values must read back,
// compare and hash the same way whichever representation they got.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "platform/XpcRef.h"
#include "platform/xpc/XpcObject.h"
#include "qelss/platform/xpc.h"

namespace {

using QelSS::xpc::IsTagged;

using QelSS::testing::Ref;

constexpr int64_t kInt64Limit = int64_t{1} << 60;
constexpr uint64_t kUInt64Limit = uint64_t{1} << 61;

// Each value with the representation it must get.
template <typename T>
struct Case {
  T value;
  bool tagged;
};

TEST(XpcTagged, Int64ReadsBackOnBothSidesOfTheLimit) {
  const Case<int64_t> cases[] = {{0, true},
                                 {-1, true},
                                 {kInt64Limit - 1, true},
                                 {-kInt64Limit, true},
                                 {kInt64Limit, false},
                                 {-kInt64Limit - 1, false},
                                 {std::numeric_limits<int64_t>::max(), false},
                                 {std::numeric_limits<int64_t>::min(), false}};
  for (const auto& [value, tagged] : cases) {
    Ref object(xpc_int64_create(value));
    EXPECT_EQ(IsTagged(object), tagged) << value;
    EXPECT_EQ(xpc_get_type(object), XPC_TYPE_INT64) << value;
    EXPECT_EQ(xpc_int64_get_value(object), value);
    EXPECT_EQ(xpc_uint64_get_value(object), 0u);
    EXPECT_EQ(xpc_date_get_value(object), 0);
    EXPECT_EQ(xpc_string_get_string_ptr(object), nullptr);
  }
}

TEST(XpcTagged, UInt64ReadsBackOnBothSidesOfTheLimit) {
  const Case<uint64_t> cases[] = {{0, true},
                                  {kUInt64Limit - 1, true},
                                  {kUInt64Limit, false},
                                  {std::numeric_limits<uint64_t>::max(), false}};
  for (const auto& [value, tagged] : cases) {
    Ref object(xpc_uint64_create(value));
    EXPECT_EQ(IsTagged(object), tagged) << value;
    EXPECT_EQ(xpc_get_type(object), XPC_TYPE_UINT64);
    EXPECT_EQ(xpc_uint64_get_value(object), value);
    EXPECT_EQ(xpc_int64_get_value(object), 0);
  }
}

TEST(XpcTagged, DoublesKeepEveryBit) {
  const Case<double> cases[] = {{0.0, true},
                                {-0.0, true},
                                {2.5, true},
                                {-1e15, true},
                                {std::numeric_limits<double>::infinity(), true},
                                {0.1, false},
                                {std::numeric_limits<double>::denorm_min(), false},
                                {std::numeric_limits<double>::max(), false}};
  for (const auto& [value, tagged] : cases) {
    Ref object(xpc_double_create(value));
    EXPECT_EQ(IsTagged(object), tagged) << value;
    EXPECT_EQ(xpc_get_type(object), XPC_TYPE_DOUBLE);
    EXPECT_EQ(std::bit_cast<uint64_t>(xpc_double_get_value(object)),
              std::bit_cast<uint64_t>(value));
  }
  // NaN is equal to nothing, itself included, in either representation.
  Ref quiet(xpc_double_create(std::numeric_limits<double>::quiet_NaN()));
  Ref payload(xpc_double_create(std::bit_cast<double>(uint64_t{0x7ff8000000000001})));
  EXPECT_TRUE(IsTagged(quiet));
  EXPECT_FALSE(IsTagged(payload));
  EXPECT_FALSE(xpc_equal(quiet, quiet));
  EXPECT_FALSE(xpc_equal(payload, payload));
  EXPECT_TRUE(std::isnan(xpc_double_get_value(quiet)));
}

TEST(XpcTagged, DatesOfWholeSecondsAreTaggedAtAnyDistanceFrom1970) {
  const int64_t now = int64_t{1'760'000'000} * 1'000'000'000;
  const Case<int64_t> cases[] = {
      {now, true},      {-now, true}, {std::numeric_limits<int64_t>::min(), true},
      {now + 1, false}, {-1, false},  {std::numeric_limits<int64_t>::max(), false}};
  for (const auto& [value, tagged] : cases) {
    Ref object(xpc_date_create(value));
    EXPECT_EQ(IsTagged(object), tagged) << value;
    EXPECT_EQ(xpc_get_type(object), XPC_TYPE_DATE);
    EXPECT_EQ(xpc_date_get_value(object), value);
    EXPECT_EQ(xpc_int64_get_value(object), 0);
  }
}

TEST(XpcTagged, EqualityAndHashFollowTheValueNotTheRepresentation) {
  // Neighbours across each limit differ; equal values agree in equality and hash.
  Ref inside(xpc_int64_create(kInt64Limit - 1)), inside2(xpc_int64_create(kInt64Limit - 1));
  Ref outside(xpc_int64_create(kInt64Limit)), outside2(xpc_int64_create(kInt64Limit));
  EXPECT_TRUE(xpc_equal(inside, inside2));
  EXPECT_TRUE(xpc_equal(outside, outside2));
  EXPECT_FALSE(xpc_equal(inside, outside));
  EXPECT_EQ(xpc_hash(outside), xpc_hash(outside2));

  // One payload, four kinds: never equal to each other.
  Ref i8(xpc_int64_create(8)), u8(xpc_uint64_create(8)), d8(xpc_date_create(8));
  Ref f8(xpc_double_create(std::bit_cast<double>(uint64_t{8} << 3)));
  EXPECT_FALSE(xpc_equal(i8, u8));
  EXPECT_FALSE(xpc_equal(i8, d8));
  EXPECT_FALSE(xpc_equal(u8, f8));
  EXPECT_FALSE(xpc_equal(i8, xpc_null_create()));
  EXPECT_FALSE(xpc_equal(i8, nullptr));

  Ref zero(xpc_double_create(0.0)), negativeZero(xpc_double_create(-0.0));
  EXPECT_TRUE(xpc_equal(zero, negativeZero));
  EXPECT_EQ(xpc_hash(zero), xpc_hash(negativeZero));
}

// The public calls never make a heap object of a value that fits, but nothing
// may depend on that: a heap object and a tagged word of one value are equal.
TEST(XpcTagged, AHeapObjectEqualsATaggedWordOfTheSameValue) {
  using QelSS::xpc::Int64;
  using QelSS::xpc::UInt64;
  Ref heapInt(new Int64(XPC_TYPE_INT64, -5));
  Ref heapDate(new Int64(XPC_TYPE_DATE, 1'000'000'000));
  Ref heapUInt(new UInt64(XPC_TYPE_UINT64, 7));
  Ref heapDouble(new QelSS::xpc::Double(XPC_TYPE_DOUBLE, 0.5));
  Ref tagInt(xpc_int64_create(-5)), tagDate(xpc_date_create(1'000'000'000));
  Ref tagUInt(xpc_uint64_create(7)), tagDouble(xpc_double_create(0.5));
  ASSERT_TRUE(IsTagged(tagInt) && IsTagged(tagDate) && IsTagged(tagUInt) && IsTagged(tagDouble));
  const std::pair<xpc_object_t, xpc_object_t> pairs[] = {
      {heapInt, tagInt}, {heapDate, tagDate}, {heapUInt, tagUInt}, {heapDouble, tagDouble}};
  for (const auto& [heap, tagged] : pairs) {
    EXPECT_TRUE(xpc_equal(heap, tagged));
    EXPECT_TRUE(xpc_equal(tagged, heap));
    EXPECT_EQ(xpc_hash(heap), xpc_hash(tagged));
  }
  EXPECT_FALSE(xpc_equal(heapInt, tagDate));
}

TEST(XpcTagged, ReferenceCountingAndCopiesAreHarmless) {
  xpc_object_t number = xpc_int64_create(-42);
  ASSERT_TRUE(IsTagged(number));
  EXPECT_EQ(xpc_retain(number), number);
  EXPECT_EQ(xpc_copy(number), number);
  for (int n = 0; n < 5; ++n) xpc_release(number);
  EXPECT_EQ(xpc_int64_get_value(number), -42);
  EXPECT_STREQ(xpc_type_get_name(xpc_get_type(number)), "int64");
}

TEST(XpcTagged, ContainersStoreCopyAndCompareThem) {
  Ref dict(xpc_dictionary_create(nullptr, nullptr, 0));
  Ref array(xpc_array_create(nullptr, 0));
  const int64_t values[] = {-1, 0, kInt64Limit - 1, kInt64Limit,
                            std::numeric_limits<int64_t>::min()};
  for (int64_t value : values) {
    const std::string key = std::to_string(value);
    ASSERT_TRUE(xpc_dictionary_set_int64(dict, key.c_str(), value));
    ASSERT_TRUE(xpc_array_append_value(array, Ref(xpc_int64_create(value))));
  }
  ASSERT_TRUE(xpc_dictionary_set_double(dict, "half", 0.5));
  ASSERT_TRUE(xpc_dictionary_set_value(dict, "when", Ref(xpc_date_create(16))));
  ASSERT_TRUE(xpc_dictionary_set_value(dict, "list", array));

  for (size_t i = 0; i < std::size(values); ++i) {
    EXPECT_EQ(xpc_dictionary_get_int64(dict, std::to_string(values[i]).c_str()), values[i]);
    EXPECT_EQ(xpc_int64_get_value(xpc_array_get_value(array, i)), values[i]);
  }
  EXPECT_EQ(xpc_dictionary_get_double(dict, "half"), 0.5);
  EXPECT_EQ(xpc_date_get_value(xpc_dictionary_get_value(dict, "when")), 16);

  Ref copy(xpc_copy(dict));
  EXPECT_TRUE(xpc_equal(copy, dict));
  EXPECT_EQ(xpc_hash(copy), xpc_hash(dict));
  xpc_dictionary_set_int64(copy, "0", 1);
  EXPECT_FALSE(xpc_equal(copy, dict));

  // Replacing and removing tagged elements releases nothing that is not there.
  EXPECT_TRUE(xpc_array_set_value(array, 0, Ref(xpc_int64_create(kInt64Limit))));
  EXPECT_TRUE(xpc_dictionary_set_value(dict, "half", nullptr));
  size_t visited = 0;
  EXPECT_TRUE(xpc_array_apply(array, [&](size_t, xpc_object_t value) {
    ++visited;
    return xpc_get_type(value) == XPC_TYPE_INT64;
  }));
  EXPECT_EQ(visited, std::size(values));
}

TEST(XpcTagged, ManyThreadsMixBothRepresentations) {
  Ref dict(xpc_dictionary_create(nullptr, nullptr, 0));
  Ref shared(xpc_int64_create(kInt64Limit));  // on the heap
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int n = 0; n < 2000; ++n) {
        const int64_t value = (n % 2 == 0) ? n : kInt64Limit + n;
        const std::string key = "k" + std::to_string(n % 8);
        xpc_dictionary_set_value(dict, key.c_str(), Ref(xpc_int64_create(value)));
        xpc_dictionary_set_value(dict, "shared", shared);
        // Elements are read from a copy: the copy keeps them while other
        // threads replace them in the original.
        Ref copy(xpc_copy(dict));
        EXPECT_EQ(xpc_get_type(xpc_dictionary_get_value(copy, key.c_str())), XPC_TYPE_INT64);
        (void)xpc_equal(copy, dict);
        EXPECT_TRUE(xpc_equal(xpc_dictionary_get_value(copy, "shared"), shared));
        if (t == 0 && n % 100 == 0) (void)xpc_hash(dict);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(xpc_int64_get_value(shared), kInt64Limit);
  EXPECT_EQ(xpc_dictionary_get_count(dict), 9u);
}

}  // namespace
