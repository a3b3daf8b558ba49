#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <ctime>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "platform/XpcRef.h"
#include "qelss/platform/xpc.h"

namespace {

using QelSS::testing::Ref;

std::vector<std::string> DictionaryKeys(xpc_object_t dictionary) {
  std::vector<std::string> keys;
  xpc_dictionary_apply(dictionary, [&](const char* key, xpc_object_t) {
    keys.emplace_back(key);
    return true;
  });
  return keys;
}

TEST(XpcScalars, NumbersKeepTheirKindAndValue) {
  Ref i(xpc_int64_create(std::numeric_limits<int64_t>::min()));
  Ref u(xpc_uint64_create(std::numeric_limits<uint64_t>::max()));
  Ref d(xpc_double_create(2.5));
  EXPECT_EQ(xpc_get_type(i), XPC_TYPE_INT64);
  EXPECT_EQ(xpc_get_type(u), XPC_TYPE_UINT64);
  EXPECT_EQ(xpc_get_type(d), XPC_TYPE_DOUBLE);
  EXPECT_EQ(xpc_int64_get_value(i), std::numeric_limits<int64_t>::min());
  EXPECT_EQ(xpc_uint64_get_value(u), std::numeric_limits<uint64_t>::max());
  EXPECT_EQ(xpc_double_get_value(d), 2.5);
  EXPECT_STREQ(xpc_type_get_name(xpc_get_type(u)), "uint64");

  // Another kind's getter answers the neutral value, never a conversion.
  EXPECT_EQ(xpc_int64_get_value(u), 0);
  EXPECT_EQ(xpc_uint64_get_value(i), 0u);
  EXPECT_EQ(xpc_double_get_value(i), 0.0);
  EXPECT_FALSE(xpc_bool_get_value(i));
  EXPECT_EQ(xpc_int64_get_value(nullptr), 0);
  EXPECT_EQ(xpc_get_type(nullptr), nullptr);
}

TEST(XpcScalars, NullAndBoolAreSharedObjects) {
  EXPECT_EQ(xpc_null_create(), xpc_null_create());
  EXPECT_EQ(xpc_get_type(xpc_null_create()), XPC_TYPE_NULL);
  EXPECT_EQ(xpc_bool_create(true), xpc_bool_create(true));
  EXPECT_NE(xpc_bool_create(true), xpc_bool_create(false));
  EXPECT_TRUE(xpc_bool_get_value(xpc_bool_create(true)));
  EXPECT_FALSE(xpc_bool_get_value(xpc_bool_create(false)));
  // Releasing a shared object more often than retaining it must not free it.
  for (int n = 0; n < 3; ++n) xpc_release(xpc_bool_create(true));
  EXPECT_TRUE(xpc_bool_get_value(xpc_bool_create(true)));
}

TEST(XpcScalars, StringsAndDataOwnACopyOfTheirBytes) {
  char text[] = "h\xc3\xa9llo";
  Ref s(xpc_string_create(text));
  text[0] = 'X';
  EXPECT_STREQ(xpc_string_get_string_ptr(s), "h\xc3\xa9llo");
  EXPECT_EQ(xpc_string_get_length(s), 6u);
  EXPECT_EQ(xpc_string_create(nullptr), nullptr);

  Ref empty(xpc_string_create(""));
  EXPECT_STREQ(xpc_string_get_string_ptr(empty), "");
  EXPECT_EQ(xpc_string_get_length(empty), 0u);

  const unsigned char bytes[] = {0x00, 0xff, 0x00, 0x10};
  Ref data(xpc_data_create(bytes, sizeof bytes));
  ASSERT_EQ(xpc_data_get_length(data), 4u);
  EXPECT_EQ(std::memcmp(xpc_data_get_bytes_ptr(data), bytes, 4), 0);
  Ref none(xpc_data_create(nullptr, 0));
  EXPECT_EQ(xpc_data_get_length(none), 0u);
  EXPECT_NE(xpc_data_get_bytes_ptr(none), nullptr);
  EXPECT_EQ(xpc_data_create(nullptr, 3), nullptr);

  EXPECT_EQ(xpc_string_get_string_ptr(data), nullptr);
  EXPECT_EQ(xpc_data_get_bytes_ptr(s), nullptr);
}

TEST(XpcScalars, DatesAndUuids) {
  Ref before(xpc_date_create(-1));
  EXPECT_EQ(xpc_date_get_value(before), -1);
  Ref now(xpc_date_create_from_current());
  const int64_t seconds = xpc_date_get_value(now) / 1'000'000'000;
  EXPECT_LE(std::abs(seconds - static_cast<int64_t>(std::time(nullptr))), 2);

  unsigned char raw[16];
  for (int n = 0; n < 16; ++n) raw[n] = static_cast<unsigned char>(n * 17);
  Ref uuid(xpc_uuid_create(raw));
  EXPECT_EQ(std::memcmp(xpc_uuid_get_bytes(uuid), raw, 16), 0);
  EXPECT_EQ(xpc_uuid_create(nullptr), nullptr);
  EXPECT_EQ(xpc_uuid_get_bytes(before), nullptr);
}

TEST(XpcErrors, ConnectionErrorsDescribeThemselves) {
  EXPECT_EQ(xpc_get_type(XPC_ERROR_CONNECTION_INVALID), XPC_TYPE_ERROR);
  EXPECT_STREQ(xpc_dictionary_get_string(XPC_ERROR_CONNECTION_INVALID, XPC_ERROR_KEY_DESCRIPTION),
               "Connection invalid");
  EXPECT_STREQ(
      xpc_dictionary_get_string(XPC_ERROR_CONNECTION_INTERRUPTED, XPC_ERROR_KEY_DESCRIPTION),
      "Connection interrupted");
  EXPECT_EQ(xpc_dictionary_get_string(XPC_ERROR_CONNECTION_INVALID, "other"), nullptr);
  EXPECT_FALSE(xpc_equal(XPC_ERROR_CONNECTION_INVALID, XPC_ERROR_CONNECTION_INTERRUPTED));
  EXPECT_EQ(xpc_copy(XPC_ERROR_CONNECTION_INVALID), XPC_ERROR_CONNECTION_INVALID);
  xpc_release(XPC_ERROR_CONNECTION_INVALID);
  EXPECT_EQ(xpc_get_type(XPC_ERROR_CONNECTION_INVALID), XPC_TYPE_ERROR);
}

TEST(XpcEquality, KindAndContentDecide) {
  Ref i5(xpc_int64_create(5)), i5b(xpc_int64_create(5)), u5(xpc_uint64_create(5));
  EXPECT_TRUE(xpc_equal(i5, i5b));
  EXPECT_FALSE(xpc_equal(i5, u5));
  EXPECT_EQ(xpc_hash(i5), xpc_hash(i5b));

  Ref zero(xpc_double_create(0.0)), negZero(xpc_double_create(-0.0));
  EXPECT_TRUE(xpc_equal(zero, negZero));
  EXPECT_EQ(xpc_hash(zero), xpc_hash(negZero));
  Ref nan(xpc_double_create(std::nan("")));
  EXPECT_FALSE(xpc_equal(nan, nan));

  Ref s(xpc_string_create("ab")), d(xpc_data_create("ab", 2)), d2(xpc_data_create("ab", 2));
  EXPECT_FALSE(xpc_equal(s, d));
  EXPECT_TRUE(xpc_equal(d, d2));
  Ref date(xpc_date_create(5));
  EXPECT_FALSE(xpc_equal(date, i5));

  EXPECT_TRUE(xpc_equal(nullptr, nullptr));
  EXPECT_FALSE(xpc_equal(i5, nullptr));
  EXPECT_TRUE(xpc_equal(xpc_null_create(), xpc_null_create()));
}

TEST(XpcEquality, ContainersCompareDeeply) {
  auto build = [](int64_t leaf) {
    xpc_object_t inner = xpc_array_create(nullptr, 0);
    xpc_array_append_value(inner, Ref(xpc_int64_create(leaf)));
    xpc_object_t outer = xpc_dictionary_create(nullptr, nullptr, 0);
    xpc_dictionary_set_value(outer, "list", inner);
    xpc_release(inner);
    return outer;
  };
  Ref a(build(1)), b(build(1)), c(build(2));
  EXPECT_TRUE(xpc_equal(a, b));
  EXPECT_EQ(xpc_hash(a), xpc_hash(b));
  EXPECT_FALSE(xpc_equal(a, c));

  xpc_dictionary_set_int64(b, "extra", 0);
  EXPECT_FALSE(xpc_equal(a, b));
  xpc_dictionary_set_value(b, "extra", nullptr);
  EXPECT_TRUE(xpc_equal(a, b));

  // Same values under different keys are different dictionaries.
  Ref x(xpc_dictionary_create(nullptr, nullptr, 0)), y(xpc_dictionary_create(nullptr, nullptr, 0));
  xpc_dictionary_set_int64(x, "k1", 1);
  xpc_dictionary_set_int64(y, "k2", 1);
  EXPECT_FALSE(xpc_equal(x, y));

  Ref shortList(xpc_array_create(nullptr, 0));
  EXPECT_FALSE(xpc_equal(shortList, xpc_dictionary_get_value(a, "list")));
}

TEST(XpcCopy, ScalarsShareContainersCopyTheirSlots) {
  Ref s(xpc_string_create("shared"));
  Ref copy(xpc_copy(s));
  EXPECT_EQ(copy.object, s.object);

  Ref inner(xpc_array_create(nullptr, 0));
  Ref dict(xpc_dictionary_create(nullptr, nullptr, 0));
  xpc_dictionary_set_value(dict, "inner", inner);
  xpc_dictionary_set_value(dict, "s", s);
  Ref dictCopy(xpc_copy(dict));
  ASSERT_NE(dictCopy.object, dict.object);
  EXPECT_TRUE(xpc_equal(dict, dictCopy));
  // One level deep: the slots are new, the elements are the same objects.
  EXPECT_EQ(xpc_dictionary_get_value(dictCopy, "inner"), inner.object);
  xpc_dictionary_set_value(dictCopy, "s", nullptr);
  EXPECT_EQ(xpc_dictionary_get_count(dict), 2u);
  EXPECT_EQ(xpc_dictionary_get_count(dictCopy), 1u);

  Ref arrayCopy(xpc_copy(inner));
  xpc_array_append_value(arrayCopy, s);
  EXPECT_EQ(xpc_array_get_count(inner), 0u);
  EXPECT_EQ(xpc_copy(nullptr), nullptr);
}

TEST(XpcArray, IndexedAccess) {
  xpc_object_t initial[] = {xpc_int64_create(1), xpc_int64_create(2)};
  Ref array(xpc_array_create(initial, 2));
  for (xpc_object_t o : initial) xpc_release(o);
  // The array keeps its own references to what it was created with.
  EXPECT_EQ(xpc_int64_get_value(xpc_array_get_value(array, 1)), 2);

  EXPECT_TRUE(xpc_array_append_value(array, Ref(xpc_string_create("three"))));
  EXPECT_EQ(xpc_array_get_count(array), 3u);
  EXPECT_TRUE(xpc_array_set_value(array, 0, Ref(xpc_uint64_create(9))));
  EXPECT_EQ(xpc_uint64_get_value(xpc_array_get_value(array, 0)), 9u);
  EXPECT_TRUE(xpc_array_set_value(array, XPC_ARRAY_APPEND, xpc_null_create()));
  EXPECT_EQ(xpc_array_get_count(array), 4u);

  EXPECT_FALSE(xpc_array_set_value(array, 4, xpc_null_create()));
  EXPECT_EQ(xpc_array_get_value(array, 4), nullptr);
  EXPECT_FALSE(xpc_array_append_value(array, nullptr));
  EXPECT_FALSE(xpc_array_append_value(array, array));
  EXPECT_FALSE(xpc_array_append_value(Ref(xpc_int64_create(0)), xpc_null_create()));
  EXPECT_EQ(xpc_array_get_count(array), 4u);

  xpc_object_t withHole[] = {xpc_null_create(), nullptr};
  EXPECT_EQ(xpc_array_create(withHole, 2), nullptr);
}

TEST(XpcArray, ApplyVisitsInOrderAndStops) {
  Ref array(xpc_array_create(nullptr, 0));
  for (int64_t n = 0; n < 5; ++n) xpc_array_append_value(array, Ref(xpc_int64_create(n * 10)));

  std::vector<std::pair<size_t, int64_t>> seen;
  EXPECT_TRUE(xpc_array_apply(array, [&](size_t index, xpc_object_t value) {
    seen.emplace_back(index, xpc_int64_get_value(value));
    return true;
  }));
  ASSERT_EQ(seen.size(), 5u);
  EXPECT_EQ(seen[3], std::make_pair(size_t{3}, int64_t{30}));

  int visits = 0;
  EXPECT_FALSE(xpc_array_apply(array, [&](size_t index, xpc_object_t) {
    ++visits;
    return index < 1;
  }));
  EXPECT_EQ(visits, 2);

  // The applier may change the array; it walks the elements as they were.
  visits = 0;
  xpc_array_apply(array, [&](size_t, xpc_object_t value) {
    ++visits;
    xpc_array_set_value(array, 0, xpc_null_create());
    xpc_array_append_value(array, value);
    return true;
  });
  EXPECT_EQ(visits, 5);
  EXPECT_EQ(xpc_array_get_count(array), 10u);
  EXPECT_FALSE(xpc_array_apply(xpc_null_create(), [](size_t, xpc_object_t) { return true; }));
}

TEST(XpcDictionary, SetReplaceRemove) {
  Ref dict(xpc_dictionary_create(nullptr, nullptr, 0));
  EXPECT_TRUE(xpc_dictionary_set_value(dict, "k", Ref(xpc_int64_create(1))));
  EXPECT_TRUE(xpc_dictionary_set_value(dict, "k", Ref(xpc_string_create("v"))));
  EXPECT_EQ(xpc_dictionary_get_count(dict), 1u);
  EXPECT_STREQ(xpc_dictionary_get_string(dict, "k"), "v");
  EXPECT_EQ(xpc_dictionary_get_value(dict, "missing"), nullptr);

  EXPECT_TRUE(xpc_dictionary_set_value(dict, "k", nullptr));
  EXPECT_EQ(xpc_dictionary_get_count(dict), 0u);
  EXPECT_TRUE(xpc_dictionary_set_value(dict, "absent", nullptr));
  EXPECT_FALSE(xpc_dictionary_set_value(dict, nullptr, xpc_null_create()));
  EXPECT_FALSE(xpc_dictionary_set_value(dict, "self", dict));
  EXPECT_FALSE(xpc_dictionary_set_value(Ref(xpc_array_create(nullptr, 0)), "k", xpc_null_create()));

  const char* keys[] = {"a", "a"};
  xpc_object_t values[] = {xpc_bool_create(false), xpc_bool_create(true)};
  Ref duplicate(xpc_dictionary_create(keys, values, 2));
  EXPECT_EQ(xpc_dictionary_get_count(duplicate), 1u);
  EXPECT_TRUE(xpc_dictionary_get_bool(duplicate, "a"));
}

TEST(XpcDictionary, TypedConveniencesDoNotConvert) {
  Ref dict(xpc_dictionary_create(nullptr, nullptr, 0));
  xpc_dictionary_set_bool(dict, "b", true);
  xpc_dictionary_set_int64(dict, "i", -7);
  xpc_dictionary_set_uint64(dict, "u", 7);
  xpc_dictionary_set_double(dict, "d", 0.25);
  EXPECT_FALSE(xpc_dictionary_set_string(dict, "nothing", nullptr));
  EXPECT_EQ(xpc_dictionary_get_count(dict), 4u);
  EXPECT_TRUE(xpc_dictionary_get_bool(dict, "b"));
  EXPECT_EQ(xpc_dictionary_get_int64(dict, "i"), -7);
  EXPECT_EQ(xpc_dictionary_get_uint64(dict, "u"), 7u);
  EXPECT_EQ(xpc_dictionary_get_double(dict, "d"), 0.25);
  EXPECT_EQ(xpc_dictionary_get_int64(dict, "u"), 0);
  EXPECT_EQ(xpc_dictionary_get_string(dict, "i"), nullptr);
}

TEST(XpcDictionary, ApplyWalksKeysInByteOrderAndStops) {
  Ref dict(xpc_dictionary_create(nullptr, nullptr, 0));
  for (const char* key : {"b", "a", "B", "\xc3\xa9", "aa"}) xpc_dictionary_set_int64(dict, key, 1);
  EXPECT_EQ(DictionaryKeys(dict), (std::vector<std::string>{"B", "a", "aa", "b", "\xc3\xa9"}));

  std::vector<std::string> seen;
  EXPECT_FALSE(xpc_dictionary_apply(dict, [&](const char* key, xpc_object_t) {
    seen.emplace_back(key);
    return seen.size() < 2;
  }));
  EXPECT_EQ(seen.size(), 2u);

  // Removing every key while walking: the walk still sees them all.
  size_t visits = 0;
  EXPECT_TRUE(xpc_dictionary_apply(dict, [&](const char* key, xpc_object_t value) {
    ++visits;
    xpc_dictionary_set_value(dict, key, nullptr);
    return xpc_int64_get_value(value) == 1;
  }));
  EXPECT_EQ(visits, 5u);
  EXPECT_EQ(xpc_dictionary_get_count(dict), 0u);
}

TEST(XpcLifetime, ContainersKeepWhatTheyHold) {
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

TEST(XpcConcurrency, RetainAndReleaseFromManyThreads) {
  xpc_object_t shared = xpc_string_create("shared");
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([shared] {
      for (int n = 0; n < 10000; ++n) {
        xpc_retain(shared);
        Ref copy(xpc_copy(shared));
        xpc_release(shared);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_STREQ(xpc_string_get_string_ptr(shared), "shared");
  xpc_release(shared);
}

TEST(XpcConcurrency, ContainersChangedAndReadFromManyThreads) {
  Ref dict(xpc_dictionary_create(nullptr, nullptr, 0));
  Ref array(xpc_array_create(nullptr, 0));
  Ref probe(xpc_dictionary_create(nullptr, nullptr, 0));
  constexpr int kThreads = 4, kRounds = 500;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int n = 0; n < kRounds; ++n) {
        std::string key = "k" + std::to_string(n % 16);
        xpc_dictionary_set_int64(dict, key.c_str(), t);
        xpc_array_append_value(array, dict);
        if (n % 3 == 0) xpc_dictionary_set_value(dict, key.c_str(), nullptr);
        xpc_dictionary_apply(
            dict, [](const char*, xpc_object_t v) { return xpc_get_type(v) == XPC_TYPE_INT64; });
        Ref copy(xpc_copy(dict));
        (void)xpc_equal(copy, dict);
        (void)xpc_equal(dict, probe);  // both directions at once must not deadlock
        (void)xpc_equal(probe, dict);
        if (n % 50 == 0) (void)xpc_hash(array);
        (void)xpc_array_get_count(array);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(xpc_array_get_count(array), size_t{kThreads * kRounds});
  EXPECT_LE(xpc_dictionary_get_count(dict), 16u);
}

}  // namespace
