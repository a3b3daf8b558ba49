// The messaging objects. Numbers and dates that fit are carried in the object
// pointer itself; the cases walk both sides of every kind's limit, and values
// must read back, compare and hash alike whichever representation they got.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstring>
#include <ctime>
#include <functional>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "platform/XpcRef.h"
#include "platform/xpc/XpcObject.h"
#include "qelss/platform/xpc.h"

namespace {

using QelSS::testing::Ref;
using QelSS::xpc::IsTagged;
using Strings = std::vector<std::string>;

constexpr int64_t kInt64Limit = int64_t{1} << 60;
constexpr uint64_t kUInt64Limit = uint64_t{1} << 61;
constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
constexpr int64_t kMax = std::numeric_limits<int64_t>::max();

Strings DictionaryKeys(xpc_object_t dictionary) {
  Strings keys;
  xpc_dictionary_apply(dictionary, [&](const char* key, xpc_object_t) {
    keys.emplace_back(key);
    return true;
  });
  return keys;
}

TEST(XpcNumbers, ReadBackOnBothSidesOfEveryTaggingLimit) {
  struct Case {
    xpc_object_t object;
    xpc_type_t type;
    bool tagged;
    uint64_t bits;  // what the kind's own getter answers, as raw bits
  };
  auto d = [](double value) { return std::bit_cast<uint64_t>(value); };
  const int64_t now = int64_t{1'760'000'000} * 1'000'000'000;  // whole seconds tag at any distance
  const Case cases[] = {
      {xpc_int64_create(0), XPC_TYPE_INT64, true, 0},
      {xpc_int64_create(-kInt64Limit), XPC_TYPE_INT64, true, static_cast<uint64_t>(-kInt64Limit)},
      {xpc_int64_create(kInt64Limit - 1), XPC_TYPE_INT64, true, kInt64Limit - 1},
      {xpc_int64_create(kInt64Limit), XPC_TYPE_INT64, false, kInt64Limit},
      {xpc_int64_create(-kInt64Limit - 1), XPC_TYPE_INT64, false, static_cast<uint64_t>(-kInt64Limit - 1)},
      {xpc_int64_create(kMin), XPC_TYPE_INT64, false, static_cast<uint64_t>(kMin)},
      {xpc_uint64_create(kUInt64Limit - 1), XPC_TYPE_UINT64, true, kUInt64Limit - 1},
      {xpc_uint64_create(kUInt64Limit), XPC_TYPE_UINT64, false, kUInt64Limit},
      {xpc_uint64_create(~0ULL), XPC_TYPE_UINT64, false, ~0ULL},
      {xpc_double_create(-0.0), XPC_TYPE_DOUBLE, true, d(-0.0)},
      {xpc_double_create(-1e15), XPC_TYPE_DOUBLE, true, d(-1e15)},
      {xpc_double_create(INFINITY), XPC_TYPE_DOUBLE, true, d(INFINITY)},
      {xpc_double_create(0.1), XPC_TYPE_DOUBLE, false, d(0.1)},
      {xpc_double_create(std::numeric_limits<double>::denorm_min()), XPC_TYPE_DOUBLE, false,
       d(std::numeric_limits<double>::denorm_min())},
      {xpc_date_create(now), XPC_TYPE_DATE, true, static_cast<uint64_t>(now)},
      {xpc_date_create(-now), XPC_TYPE_DATE, true, static_cast<uint64_t>(-now)},
      {xpc_date_create(kMin), XPC_TYPE_DATE, true, static_cast<uint64_t>(kMin)},
      {xpc_date_create(now + 1), XPC_TYPE_DATE, false, static_cast<uint64_t>(now + 1)},
      {xpc_date_create(-1), XPC_TYPE_DATE, false, ~0ULL},
      {xpc_date_create(kMax), XPC_TYPE_DATE, false, static_cast<uint64_t>(kMax)},
  };
  for (const auto& c : cases) {
    Ref object(c.object);
    SCOPED_TRACE(::testing::Message() << xpc_type_get_name(c.type) << " " << c.bits);
    EXPECT_EQ(IsTagged(object), c.tagged);
    EXPECT_EQ(xpc_get_type(object), c.type);
    const uint64_t read[] = {static_cast<uint64_t>(xpc_int64_get_value(object)),
                             xpc_uint64_get_value(object), d(xpc_double_get_value(object)),
                             static_cast<uint64_t>(xpc_date_get_value(object))};
    const xpc_type_t kinds[] = {XPC_TYPE_INT64, XPC_TYPE_UINT64, XPC_TYPE_DOUBLE, XPC_TYPE_DATE};
    // Another kind's getter answers the neutral value, never a conversion.
    for (size_t k = 0; k < 4; ++k) EXPECT_EQ(read[k], kinds[k] == c.type ? c.bits : 0u) << k;
    EXPECT_EQ(xpc_string_get_string_ptr(object), nullptr);
    // Tagged words ignore reference counting; copies of them are themselves.
    EXPECT_EQ(xpc_copy(object), c.tagged ? c.object : xpc_copy(object));
    if (!c.tagged) xpc_release(object), xpc_release(object);
  }
  EXPECT_EQ(xpc_int64_get_value(nullptr), 0);
  EXPECT_EQ(xpc_get_type(nullptr), nullptr);
  EXPECT_STREQ(xpc_type_get_name(XPC_TYPE_UINT64), "uint64");
}

TEST(XpcScalars, SharedSingletonsAndOwnedBytes) {
  EXPECT_EQ(xpc_null_create(), xpc_null_create());
  EXPECT_EQ(xpc_bool_create(true), xpc_bool_create(true));
  EXPECT_NE(xpc_bool_create(true), xpc_bool_create(false));
  // Releasing a shared object more often than retaining it must not free it.
  for (int n = 0; n < 3; ++n) xpc_release(xpc_bool_create(true));
  EXPECT_TRUE(xpc_bool_get_value(xpc_bool_create(true)));
  EXPECT_FALSE(xpc_bool_get_value(xpc_int64_create(1)));

  char text[] = "h\xc3\xa9llo";
  Ref s(xpc_string_create(text));
  text[0] = 'X';
  EXPECT_STREQ(xpc_string_get_string_ptr(s), "h\xc3\xa9llo");
  EXPECT_EQ(xpc_string_get_length(s), 6u);
  const unsigned char bytes[] = {0x00, 0xff, 0x00, 0x10};
  Ref data(xpc_data_create(bytes, sizeof bytes));
  ASSERT_EQ(xpc_data_get_length(data), 4u);
  EXPECT_EQ(std::memcmp(xpc_data_get_bytes_ptr(data), bytes, 4), 0);
  Ref none(xpc_data_create(nullptr, 0));
  EXPECT_TRUE(xpc_data_get_length(none) == 0 && xpc_data_get_bytes_ptr(none) != nullptr);
  EXPECT_TRUE(xpc_string_get_string_ptr(data) == nullptr && xpc_data_get_bytes_ptr(s) == nullptr);
  unsigned char raw[16];
  for (int n = 0; n < 16; ++n) raw[n] = static_cast<unsigned char>(n * 17);
  Ref uuid(xpc_uuid_create(raw));
  EXPECT_EQ(std::memcmp(xpc_uuid_get_bytes(uuid), raw, 16), 0);
  EXPECT_EQ(xpc_uuid_get_bytes(data), nullptr);
  for (xpc_object_t refused : {xpc_string_create(nullptr), xpc_data_create(nullptr, 3),
                               xpc_uuid_create(nullptr)}) {
    EXPECT_EQ(refused, nullptr);
  }
  Ref now(xpc_date_create_from_current());
  EXPECT_LE(std::abs(xpc_date_get_value(now) / 1'000'000'000 - std::time(nullptr)), 2);

  EXPECT_EQ(xpc_get_type(XPC_ERROR_CONNECTION_INVALID), XPC_TYPE_ERROR);
  EXPECT_STREQ(xpc_dictionary_get_string(XPC_ERROR_CONNECTION_INVALID, XPC_ERROR_KEY_DESCRIPTION),
               "Connection invalid");
  EXPECT_STREQ(
      xpc_dictionary_get_string(XPC_ERROR_CONNECTION_INTERRUPTED, XPC_ERROR_KEY_DESCRIPTION),
      "Connection interrupted");
  EXPECT_EQ(xpc_dictionary_get_string(XPC_ERROR_CONNECTION_INVALID, "other"), nullptr);
  EXPECT_EQ(xpc_copy(XPC_ERROR_CONNECTION_INVALID), XPC_ERROR_CONNECTION_INVALID);
  xpc_release(XPC_ERROR_CONNECTION_INVALID);
  EXPECT_EQ(xpc_get_type(XPC_ERROR_CONNECTION_INVALID), XPC_TYPE_ERROR);
}

// A heap object made directly stands for what the public calls never make: a
// value that fits, untagged. Equality and hash follow the value only.
TEST(XpcEquality, FollowsKindAndValueNotRepresentation) {
  using QelSS::xpc::Int64;
  using QelSS::xpc::UInt64;
  Ref i5(xpc_int64_create(5)), heapI5(new Int64(XPC_TYPE_INT64, 5)), u5(xpc_uint64_create(5));
  Ref heapU7(new UInt64(XPC_TYPE_UINT64, 7)), u7(xpc_uint64_create(7));
  Ref heapDate(new Int64(XPC_TYPE_DATE, 1'000'000'000)), date(xpc_date_create(1'000'000'000));
  Ref heapHalf(new QelSS::xpc::Double(XPC_TYPE_DOUBLE, 0.5)), half(xpc_double_create(0.5));
  Ref outside(xpc_int64_create(kInt64Limit)), outside2(xpc_int64_create(kInt64Limit));
  Ref zero(xpc_double_create(0.0)), negativeZero(xpc_double_create(-0.0));
  Ref d(xpc_data_create("ab", 2)), d2(xpc_data_create("ab", 2)), s(xpc_string_create("ab"));
  const std::pair<xpc_object_t, xpc_object_t> equal[] = {
      {i5, heapI5}, {u7, heapU7}, {date, heapDate}, {half, heapHalf},
      {outside, outside2}, {zero, negativeZero}, {d, d2}, {xpc_null_create(), xpc_null_create()}};
  for (const auto& [a, b] : equal) {
    EXPECT_TRUE(xpc_equal(a, b) && xpc_equal(b, a));
    EXPECT_EQ(xpc_hash(a), xpc_hash(b));
  }
  Ref i8(xpc_int64_create(8)), u8(xpc_uint64_create(8)), d8(xpc_date_create(8));
  Ref f8(xpc_double_create(std::bit_cast<double>(uint64_t{8} << 3)));
  Ref nan(xpc_double_create(NAN)), payload(xpc_double_create(std::bit_cast<double>(0x7ff8000000000001ULL)));
  const std::pair<xpc_object_t, xpc_object_t> unequal[] = {
      {i5, u5}, {i8, u8}, {i8, d8}, {u8, f8}, {heapI5, date}, {s, d}, {outside, xpc_int64_create(kInt64Limit - 1)},
      {i8, xpc_null_create()}, {i8, nullptr}, {nan, nan}, {payload, payload}};
  for (const auto& [a, b] : unequal) EXPECT_FALSE(xpc_equal(a, b));
  EXPECT_TRUE(IsTagged(nan) && !IsTagged(payload));
  EXPECT_TRUE(xpc_equal(nullptr, nullptr));
}

xpc_object_t ListIn(int64_t leaf) {
  xpc_object_t inner = xpc_array_create(nullptr, 0);
  xpc_array_append_value(inner, Ref(xpc_int64_create(leaf)));
  xpc_object_t outer = xpc_dictionary_create(nullptr, nullptr, 0);
  xpc_dictionary_set_value(outer, "list", inner);
  xpc_release(inner);
  return outer;
}

TEST(XpcContainers, CompareDeeplyAndCopyOneLevel) {
  Ref a(ListIn(1)), b(ListIn(1)), c(ListIn(2));
  EXPECT_TRUE(xpc_equal(a, b));
  EXPECT_EQ(xpc_hash(a), xpc_hash(b));
  EXPECT_FALSE(xpc_equal(a, c));
  xpc_dictionary_set_int64(b, "extra", 0);
  EXPECT_FALSE(xpc_equal(a, b));
  xpc_dictionary_set_value(b, "extra", nullptr);
  EXPECT_TRUE(xpc_equal(a, b));
  Ref x(xpc_dictionary_create(nullptr, nullptr, 0)), y(xpc_dictionary_create(nullptr, nullptr, 0));
  xpc_dictionary_set_int64(x, "k1", 1);
  xpc_dictionary_set_int64(y, "k2", 1);
  EXPECT_FALSE(xpc_equal(x, y));  // same values under other keys
  EXPECT_FALSE(xpc_equal(Ref(xpc_array_create(nullptr, 0)), xpc_dictionary_get_value(a, "list")));

  Ref s(xpc_string_create("shared"));
  EXPECT_EQ(Ref(xpc_copy(s)).object, s.object);  // immutable scalars are shared
  xpc_dictionary_set_value(a, "s", s);
  Ref copy(xpc_copy(a));
  ASSERT_NE(copy.object, a.object);
  EXPECT_TRUE(xpc_equal(a, copy));
  // The slots are new, the elements are the same objects.
  xpc_object_t list = xpc_dictionary_get_value(a, "list");
  EXPECT_EQ(xpc_dictionary_get_value(copy, "list"), list);
  xpc_dictionary_set_value(copy, "s", nullptr);
  EXPECT_EQ(xpc_dictionary_get_count(a), 2u);
  Ref listCopy(xpc_copy(list));
  xpc_array_append_value(listCopy, s);
  EXPECT_EQ(xpc_array_get_count(list), 1u);
  EXPECT_EQ(xpc_copy(nullptr), nullptr);
}

TEST(XpcContainers, ArraysIndexAppendAndApplyOverWhatTheyHeld) {
  xpc_object_t initial[] = {xpc_int64_create(kInt64Limit), xpc_int64_create(2)};
  Ref array(xpc_array_create(initial, 2));
  for (xpc_object_t o : initial) xpc_release(o);  // the array keeps its own references
  EXPECT_EQ(xpc_int64_get_value(xpc_array_get_value(array, 0)), kInt64Limit);
  EXPECT_TRUE(xpc_array_append_value(array, Ref(xpc_string_create("three"))));
  EXPECT_TRUE(xpc_array_set_value(array, 0, Ref(xpc_uint64_create(9))));
  EXPECT_EQ(xpc_uint64_get_value(xpc_array_get_value(array, 0)), 9u);
  EXPECT_TRUE(xpc_array_set_value(array, XPC_ARRAY_APPEND, xpc_null_create()));
  EXPECT_FALSE(xpc_array_set_value(array, 4, xpc_null_create()));
  EXPECT_EQ(xpc_array_get_value(array, 4), nullptr);
  EXPECT_FALSE(xpc_array_append_value(array, nullptr));
  EXPECT_FALSE(xpc_array_append_value(array, array));
  EXPECT_FALSE(xpc_array_append_value(Ref(xpc_int64_create(0)), xpc_null_create()));
  EXPECT_EQ(xpc_array_get_count(array), 4u);
  xpc_object_t withHole[] = {xpc_null_create(), nullptr};
  EXPECT_EQ(xpc_array_create(withHole, 2), nullptr);

  std::vector<size_t> seen;
  EXPECT_FALSE(xpc_array_apply(array, [&](size_t index, xpc_object_t) {
    seen.push_back(index);
    return index < 1;
  }));
  EXPECT_EQ(seen, (std::vector<size_t>{0, 1}));
  // The applier may change the array; it walks the elements as they were.
  size_t visits = 0;
  EXPECT_TRUE(xpc_array_apply(array, [&](size_t, xpc_object_t value) {
    ++visits;
    xpc_array_set_value(array, 0, xpc_null_create());
    return xpc_array_append_value(array, value);
  }));
  EXPECT_EQ(visits, 4u);
  EXPECT_EQ(xpc_array_get_count(array), 8u);
  EXPECT_FALSE(xpc_array_apply(xpc_null_create(), [](size_t, xpc_object_t) { return true; }));
}

TEST(XpcContainers, DictionariesSetReplaceRemoveAndWalkInByteOrder) {
  Ref dict(xpc_dictionary_create(nullptr, nullptr, 0));
  EXPECT_TRUE(xpc_dictionary_set_value(dict, "k", Ref(xpc_int64_create(1))));
  EXPECT_TRUE(xpc_dictionary_set_value(dict, "k", Ref(xpc_string_create("v"))));
  EXPECT_STREQ(xpc_dictionary_get_string(dict, "k"), "v");
  EXPECT_EQ(xpc_dictionary_get_value(dict, "missing"), nullptr);
  EXPECT_TRUE(xpc_dictionary_set_value(dict, "k", nullptr));
  EXPECT_TRUE(xpc_dictionary_set_value(dict, "absent", nullptr));
  EXPECT_FALSE(xpc_dictionary_set_value(dict, nullptr, xpc_null_create()));
  EXPECT_FALSE(xpc_dictionary_set_value(dict, "self", dict));
  EXPECT_FALSE(xpc_dictionary_set_value(Ref(xpc_array_create(nullptr, 0)), "k", xpc_null_create()));
  EXPECT_FALSE(xpc_dictionary_set_string(dict, "nothing", nullptr));
  EXPECT_EQ(xpc_dictionary_get_count(dict), 0u);

  // Typed conveniences do not convert.
  xpc_dictionary_set_bool(dict, "b", true);
  xpc_dictionary_set_int64(dict, "i", -7);
  xpc_dictionary_set_uint64(dict, "u", 7);
  xpc_dictionary_set_double(dict, "d", 0.25);
  EXPECT_TRUE(xpc_dictionary_get_bool(dict, "b"));
  EXPECT_EQ(xpc_dictionary_get_int64(dict, "i"), -7);
  EXPECT_EQ(xpc_dictionary_get_uint64(dict, "u"), 7u);
  EXPECT_EQ(xpc_dictionary_get_double(dict, "d"), 0.25);
  EXPECT_EQ(xpc_dictionary_get_int64(dict, "u"), 0);
  EXPECT_EQ(xpc_dictionary_get_string(dict, "i"), nullptr);

  for (const char* key : {"B", "\xc3\xa9", "aa"}) xpc_dictionary_set_int64(dict, key, 1);
  EXPECT_EQ(DictionaryKeys(dict), (Strings{"B", "aa", "b", "d", "i", "u", "\xc3\xa9"}));
  Strings seen;
  EXPECT_FALSE(xpc_dictionary_apply(dict, [&](const char* key, xpc_object_t) {
    seen.emplace_back(key);
    return seen.size() < 2;
  }));
  EXPECT_EQ(seen.size(), 2u);
  // Removing every key while walking: the walk still sees them all.
  size_t visits = 0;
  EXPECT_TRUE(xpc_dictionary_apply(dict, [&](const char* key, xpc_object_t) {
    ++visits;
    return xpc_dictionary_set_value(dict, key, nullptr);
  }));
  EXPECT_EQ(visits, 7u);
  EXPECT_EQ(xpc_dictionary_get_count(dict), 0u);

  const char* keys[] = {"a", "a"};
  xpc_object_t values[] = {xpc_bool_create(false), xpc_bool_create(true)};
  Ref duplicate(xpc_dictionary_create(keys, values, 2));
  EXPECT_EQ(xpc_dictionary_get_count(duplicate), 1u);
  EXPECT_TRUE(xpc_dictionary_get_bool(duplicate, "a"));
}

TEST(XpcContainers, KeepWhatTheyHold) {
  xpc_object_t text = xpc_string_create("held by the dictionary only");
  xpc_object_t dict = xpc_dictionary_create(nullptr, nullptr, 0);
  xpc_object_t array = xpc_array_create(nullptr, 0);
  xpc_dictionary_set_value(dict, "t", text);
  xpc_array_append_value(array, dict);
  xpc_release(text);
  xpc_release(dict);
  // Under AddressSanitizer a premature free shows up here, a missing one at exit.
  EXPECT_STREQ(xpc_dictionary_get_string(xpc_array_get_value(array, 0), "t"),
               "held by the dictionary only");
  xpc_object_t kept = xpc_retain(xpc_array_get_value(array, 0));
  xpc_release(array);
  EXPECT_EQ(xpc_dictionary_get_count(kept), 1u);
  xpc_release(kept);
}

// Reference counts, copies, walks and comparisons in both directions at once,
// over both representations; a torn count shows under the sanitizers.
TEST(XpcConcurrency, ContainersChangedAndReadFromManyThreads) {
  Ref dict(xpc_dictionary_create(nullptr, nullptr, 0));
  Ref array(xpc_array_create(nullptr, 0));
  Ref probe(xpc_dictionary_create(nullptr, nullptr, 0));
  Ref shared(xpc_int64_create(kInt64Limit));  // on the heap
  constexpr int kThreads = 4, kRounds = 1000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int n = 0; n < kRounds; ++n) {
        const std::string key = "k" + std::to_string(n % 16);
        const int64_t value = (n % 2 == 0) ? n : kInt64Limit + n;
        xpc_dictionary_set_value(dict, key.c_str(), Ref(xpc_int64_create(value)));
        xpc_dictionary_set_value(dict, "shared", shared);
        xpc_array_append_value(array, dict);
        if (n % 3 == 0) xpc_dictionary_set_value(dict, key.c_str(), nullptr);
        xpc_dictionary_apply(
            dict, [](const char*, xpc_object_t v) { return xpc_get_type(v) == XPC_TYPE_INT64; });
        // Elements are read from a copy: the copy keeps them while other
        // threads replace them in the original.
        Ref copy(xpc_copy(dict));
        EXPECT_TRUE(xpc_equal(xpc_dictionary_get_value(copy, "shared"), shared));
        (void)xpc_equal(copy, dict);
        (void)xpc_equal(dict, probe);
        (void)xpc_equal(probe, dict);
        if (n % 50 == 0) (void)xpc_hash(t == 0 ? array : dict);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(xpc_array_get_count(array), size_t{kThreads * kRounds});
  EXPECT_EQ(xpc_int64_get_value(shared), kInt64Limit);
}

}  // namespace
