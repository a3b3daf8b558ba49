// Numbers, strings, null, data, dates and UUIDs: small numbers and short texts
// live inside the value instead of a platform object, which must never show.
#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "qelss/platform/ErrorCode.h"
#include "qelss/values/DataFactory.h"
#include "qelss/values/DateFactory.h"
#include "qelss/values/Exceptions.h"
#include "qelss/values/NullFactory.h"
#include "qelss/values/NumberFactory.h"
#include "qelss/values/UUIDFactory.h"
#include "qelss/values/XPCObject.h"
#include "values/String.h"
#include "values/Value.h"
#include "values/ValuesTestSupport.h"

namespace QelSS {
namespace {

using namespace QelSS::testing;
using Bytes = std::vector<unsigned char>;
using ValuePtr = std::shared_ptr<IValue>;

const UUIDBytes kKnownUUID = {0x12, 0x34, 0x56, 0x78, 0x9a, 0xbc, 0xde, 0xf0,
                              0x0f, 0xed, 0xcb, 0xa9, 0x87, 0x65, 0x43, 0x21};

ValuePtr Null() {
  std::shared_ptr<INull> null;
  EXPECT_EQ(NullFactory::Create(null), kOk);
  return null;
}

template <typename Factory, typename Out, typename... Source>
ValuePtr Made(Source... source) {
  std::shared_ptr<Out> out;
  EXPECT_EQ(Factory::Create(out, source...), kOk);
  return out;
}

// Wraps a platform object and drops the creation reference.
template <typename Factory, typename Out>
ValuePtr Wrapped(xpc_object_t object) {
  ValuePtr value = Made<Factory, Out>(static_cast<void*>(object));
  xpc_release(object);
  return value;
}

ValuePtr PlatformString(const std::string& text) {
  return Wrapped<StringFactory, IString>(xpc_string_create(text.c_str()));
}

// Sets the time zone, LC_TIME and LC_CTYPE for one test and restores them.
class ScopedLocale {
 public:
  ScopedLocale(const char* ctype, const char* tz) {
    const char* previousTz = std::getenv("TZ");
    tz_ = previousTz ? std::optional<std::string>(previousTz) : std::nullopt;
    setenv("TZ", tz, 1);
    tzset();
    valid_ = std::setlocale(LC_CTYPE, ctype) && std::setlocale(LC_TIME, "C");
  }
  ~ScopedLocale() {
    std::setlocale(LC_CTYPE, ctype_.c_str());
    std::setlocale(LC_TIME, time_.c_str());
    tz_ ? setenv("TZ", tz_->c_str(), 1) : unsetenv("TZ");
    tzset();
  }
  bool valid() const { return valid_; }

 private:
  std::string ctype_ = std::setlocale(LC_CTYPE, nullptr), time_ = std::setlocale(LC_TIME, nullptr);
  std::optional<std::string> tz_;
  bool valid_ = false;
};

TEST(Scalars, EachKindHasItsTagAndDescription) {
  ScopedLocale utc("C", "UTC");
  struct Case {
    ValuePtr value;
    ValueType type;
    std::string text;
  };
  const std::string longText(300, 'x');
  const Case cases[] = {
      {V(true), kValueTypeNumber, "1"},
      {V(false), kValueTypeNumber, "0"},
      {V(2.5), kValueTypeNumber, "2.500000"},
      {V(-0.0000004), kValueTypeNumber, "-0.000000"},
      {V(1e20), kValueTypeNumber, "100000000000000000000.000000"},
      {V(std::numeric_limits<long long>::min()), kValueTypeNumber, "-9223372036854775808"},
      {V(std::numeric_limits<unsigned long long>::max()), kValueTypeNumber,
       "18446744073709551615"},
      {Null(), kValueTypeNull, "nullObj"},
      {Text("say \"hi\"\n"), kValueTypeString, "say \"hi\"\n"},
      {Text(""), kValueTypeString, ""},
      {Text(longText), kValueTypeString, longText},
      {V(Bytes{0x0a, 0xff, 0x00, 0x10}), kValueTypeData, "0a ff 00 10"},
      {V(Bytes{}), kValueTypeData, ""},
      {V(0L), kValueTypeDate, "Thu Jan  1 00:00:00 1970"},
      {V(1234567890L), kValueTypeDate, "Fri Feb 13 23:31:30 2009"},
      // A nanosecond before 1970 is the last second of 1969.
      {Wrapped<DateFactory, IDate>(xpc_date_create(-1)), kValueTypeDate,
       "Wed Dec 31 23:59:59 1969"},
      {Made<UUIDFactory, IUUID>(kKnownUUID), kValueTypeUUID,
       "12345678-9ABC-DEF0-0FED-CBA987654321"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.value->GetType(), uint32_t{c.type}) << c.text;
    EXPECT_EQ(Describe(*c.value), c.text);
    EXPECT_EQ(Describe(*c.value, 2), "  " + c.text);
  }
}

// Every value equals its clone and its platform copy, whatever representation
// it has; values either side of each inline limit behave alike.
TEST(Scalars, ClonesAndPlatformCopiesAroundEveryRepresentationLimit) {
  constexpr long long kLimit = 1LL << 60;
  std::vector<ValuePtr> values = {Null(), V(Bytes{0xde, 0xad}), V(-86400L), V(0.25),
                                  Made<UUIDFactory, IUUID>(), V(0.5), V(0.1), V(1e-310)};
  for (long long n : {0LL, -1LL, kLimit - 1, -kLimit, kLimit, -kLimit - 1,
                      std::numeric_limits<long long>::max(), std::numeric_limits<long long>::min()}) {
    values.push_back(Int(n));
    EXPECT_EQ(Describe(*Int(n)), std::to_string(n));
    EXPECT_FALSE(*Int(n) == *Int(n ^ 1));
  }
  for (unsigned long long n : {0ULL, (1ULL << 61) - 1, 1ULL << 61, ~0ULL}) {
    values.push_back(V(n));
    EXPECT_FALSE(*V(n) == *Int(static_cast<long long>(n)));  // the kind counts, not the bits
  }
  for (size_t length : {size_t{0}, size_t{1}, String::kInlineCapacity,
                        String::kInlineCapacity + 1, size_t{300}}) {
    std::string text;
    for (size_t i = 0; i < length; ++i) text += static_cast<char>('a' + i % 26);
    auto made = Text(text), wrapped = PlatformString(text);
    EXPECT_TRUE(*made == *wrapped && *wrapped == *made) << length;
    EXPECT_FALSE(*made == *Text(text + "x") || *Text(text + "x") == *wrapped);
    EXPECT_STREQ(xpc_string_get_string_ptr(PlatformObject(made)), text.c_str());
    EXPECT_EQ(std::dynamic_pointer_cast<IString>(wrapped)->GetLength(), length);
    values.insert(values.end(), {made, wrapped});
  }
  for (const auto& value : values) {
    EXPECT_EQ(value->CopyXPCObject(nullptr), make_error_code(kInvalidArgument));
    xpc_object_t copy = nullptr;
    ASSERT_EQ(value->CopyXPCObject(&copy), kOk);
    auto clone = CloneOf(value);
    EXPECT_NE(clone.get(), value.get());
    const IValue &cloned = *clone, &original = *value;
    EXPECT_EQ(typeid(cloned), typeid(original));
    EXPECT_TRUE(*clone == *value && *value == *clone) << Describe(*value);
    EXPECT_EQ(Describe(*clone, 1), Describe(*value, 1));
    // Immutable payloads are shared, not copied.
    EXPECT_EQ(PlatformObject(clone), PlatformObject(value));
    EXPECT_TRUE(xpc_equal(copy, PlatformObject(clone)));
    xpc_release(copy);  // under AddressSanitizer a missing or extra reference shows
  }
  ValuePtr clone = CloneOf(Text("a text far longer than any inline buffer"));
  EXPECT_STREQ(std::dynamic_pointer_cast<IString>(clone)->GetCString(),
               "a text far longer than any inline buffer");  // outlives its original
}

TEST(Scalars, EqualityNeedsTheSameKindAndContent) {
  const std::pair<ValuePtr, ValuePtr> unequal[] = {
      {Int(5), V(5ULL)},
      {Int(5), V(5.0)},
      {V(true), Int(1)},
      {Int(5), Text("5")},
      {Int(0), Null()},
      {Null(), Text("")},
      {Text("ab"), Text("ab ")},
      {V(Bytes{'a', 'b', 'c'}), Text("abc")},
      {V(Bytes{'a', 'b', 'c'}), V(Bytes{'a', 'b'})},
      {V(Bytes{'a', 'b', 'c'}), V(Bytes{'a', 'b', 'd'})},
      {V(Bytes(kKnownUUID.begin(), kKnownUUID.end())), Made<UUIDFactory, IUUID>(kKnownUUID)},
      {Made<DateFactory, IDate>(1.0), Made<DateFactory, IDate>(1.5)},
      {Made<UUIDFactory, IUUID>(), Made<UUIDFactory, IUUID>()},
  };
  for (const auto& [a, b] : unequal) {
    EXPECT_FALSE(*a == *b) << Describe(*a) << " vs " << Describe(*b);
    EXPECT_TRUE(*a != *b);
  }
  EXPECT_TRUE(*V(0.0) == *V(-0.0));
  EXPECT_TRUE((*Made<DateFactory, IDate>(-978307200.0) == *V(0L)));
  EXPECT_TRUE(*V(Bytes{}) == *V(Bytes{}));
  EXPECT_TRUE(*Null() == *Null());
  // The text ends at its first NUL.
  EXPECT_TRUE(*Text(std::string("ab\0cd", 5)) == *Text("ab"));
}

TEST(Scalars, NumbersAnswerOnlyTheirOwnKindsGetter) {
  auto i = std::dynamic_pointer_cast<INumber>(Int(-5));
  auto u = std::dynamic_pointer_cast<INumber>(V(~0ULL));
  auto b = std::dynamic_pointer_cast<INumber>(V(true));
  auto d = std::dynamic_pointer_cast<INumber>(V(2.5));
  int64_t asInt = 42;
  uint64_t asUInt = 42;
  bool asBool = false;
  double asDouble = 42.0;
  for (const auto& other : {u, d, b}) EXPECT_EQ(other->GetInt64(asInt), make_error_code(kInvalidType));
  EXPECT_EQ(i->GetUInt64(asUInt), make_error_code(kInvalidType));
  EXPECT_EQ(i->GetDouble(asDouble), make_error_code(kInvalidType));
  EXPECT_EQ(i->GetBool(asBool), make_error_code(kInvalidType));
  EXPECT_TRUE(asInt == 42 && asUInt == 42 && asDouble == 42.0 && !asBool);

  ASSERT_TRUE(i->GetInt64(asInt) == kOk && u->GetUInt64(asUInt) == kOk &&
              b->GetBool(asBool) == kOk && d->GetDouble(asDouble) == kOk);
  EXPECT_TRUE(asInt == -5 && asUInt == ~0ULL && asBool && asDouble == 2.5);
  xpc_type_t kinds[3] = {};
  ASSERT_TRUE(u->GetNumberType(kinds[0]) == kOk && b->GetNumberType(kinds[1]) == kOk &&
              d->GetNumberType(kinds[2]) == kOk);
  EXPECT_TRUE(kinds[0] == XPC_TYPE_UINT64 && kinds[1] == XPC_TYPE_BOOL &&
              kinds[2] == XPC_TYPE_DOUBLE);
}

// Each factory takes a platform object of its own kind only, and a failed
// call leaves the caller's pointer as it was.
template <typename Factory, typename Out>
void ExpectWrapsOnly(xpc_object_t good, xpc_object_t bad, ErrorCode badCode, const char* text) {
  std::shared_ptr<Out> out;
  ASSERT_EQ(Factory::Create(out, static_cast<void*>(good)), kOk);
  xpc_release(good);  // the value holds its own reference
  EXPECT_EQ(Describe(*out), text);
  auto before = out;
  EXPECT_EQ(Factory::Create(out, static_cast<void*>(bad)), make_error_code(badCode));
  EXPECT_EQ(Factory::Create(out, static_cast<void*>(nullptr)), make_error_code(badCode));
  EXPECT_EQ(out, before);
  xpc_release(bad);
}

TEST(Scalars, FactoriesWrapOnlyPlatformObjectsOfTheirKind) {
  ScopedLocale utc("C", "UTC");
  ExpectWrapsOnly<NumberFactory, INumber>(xpc_uint64_create(9), xpc_string_create("9"),
                                          kInvalidType, "9");
  ExpectWrapsOnly<NullFactory, INull>(xpc_null_create(), xpc_bool_create(false), kInvalidType,
                                      "nullObj");
  ExpectWrapsOnly<StringFactory, IString>(xpc_string_create("p"), xpc_int64_create(1),
                                          kInvalidType, "p");
  ExpectWrapsOnly<DataFactory, IData>(xpc_data_create("\x05\x06", 2), xpc_string_create("d"),
                                      kInvalidType, "05 06");
  ExpectWrapsOnly<UUIDFactory, IUUID>(xpc_uuid_create(kKnownUUID.data()),
                                      xpc_data_create(kKnownUUID.data(), 16), kInvalidType,
                                      "12345678-9ABC-DEF0-0FED-CBA987654321");
  // Another kind is a bad argument for a date, not a bad type.
  ExpectWrapsOnly<DateFactory, IDate>(xpc_date_create(5000000001), xpc_int64_create(5),
                                      kInvalidArgument, "Thu Jan  1 00:00:05 1970");

  std::shared_ptr<IString> string;
  EXPECT_EQ(StringFactory::Create(string, static_cast<const char*>(nullptr)),
            make_error_code(kInvalidArgument));
  std::shared_ptr<IData> data;
  EXPECT_EQ(DataFactory::Create(data, nullptr, 0), make_error_code(kInvalidArgument));
  EXPECT_TRUE(string == nullptr && data == nullptr);
}

TEST(Scalars, DatesAreWholeUnsignedSecondsSince1970) {
  auto date = [](auto time) { return std::dynamic_pointer_cast<IDate>(Made<DateFactory, IDate>(time)); };
  auto nanoseconds = [](const ValuePtr& value) { return xpc_date_get_value(PlatformObject(value)); };
  EXPECT_EQ(date(0L)->GetTime(), 0u);
  EXPECT_EQ(date(0L)->GetAbsoluteTime(), -978307200.0);
  EXPECT_EQ(date(1234567890L)->GetAbsoluteTime(), 256260690.0);
  // Before 1970 the nanoseconds are read as unsigned: no sign correction.
  EXPECT_EQ(nanoseconds(date(-1L)), -1000000000);
  EXPECT_EQ(date(-1L)->GetTime(), 18446744072u);
  EXPECT_EQ(date(-1L)->GetAbsoluteTime(), 18446744072.0 - 978307200.0);
  // Absolute times keep their fraction only in the nanoseconds.
  EXPECT_EQ(date(0.75)->GetTime(), 978307200u);
  EXPECT_EQ(date(0.75)->GetAbsoluteTime(), 0.0);
  EXPECT_NEAR(static_cast<double>(nanoseconds(date(0.75)) - 978307200000000000), 750000000.0,
              256.0);
  EXPECT_EQ(nanoseconds(date(-978307200.5)), -500000000);
  // The last whole seconds either side of signed 64-bit nanoseconds still fit.
  EXPECT_EQ(date(9223372036L)->GetTime(), 9223372036u);
  EXPECT_EQ(nanoseconds(date(-9223372036L)), -9223372036000000000);

  std::shared_ptr<IDate> out = date(0L), before = out;
  for (long seconds : {std::numeric_limits<long>::max(), 9223372037L, -9223372037L}) {
    EXPECT_EQ(DateFactory::Create(out, seconds), make_error_code(kInvalidArgument));
  }
  for (double absolute : {std::numeric_limits<double>::quiet_NaN(),
                          -std::numeric_limits<double>::infinity(), 1e10}) {
    EXPECT_EQ(DateFactory::Create(out, absolute), make_error_code(kInvalidArgument));
  }
  EXPECT_EQ(out, before);

  const auto first = std::time(nullptr);
  std::shared_ptr<IDate> now;
  ASSERT_EQ(DateFactory::Create(now), kOk);
  EXPECT_GE(now->GetTime(), static_cast<uint64_t>(first));
  EXPECT_LE(now->GetTime(), static_cast<uint64_t>(std::time(nullptr)));
}

TEST(Scalars, RandomUUIDsAreVersionFourAndRoundTripThroughTheirBytes) {
  std::shared_ptr<IUUID> a;
  ASSERT_EQ(UUIDFactory::Create(a), kOk);
  EXPECT_EQ(a->GetBytes()[6] >> 4, 4);
  EXPECT_EQ(a->GetBytes()[8] >> 6, 2);
  UUIDBytes bytes;
  std::copy_n(a->GetBytes(), bytes.size(), bytes.begin());
  EXPECT_TRUE((*Made<UUIDFactory, IUUID>(bytes) == *a));
  std::string text;
  ASSERT_EQ(std::dynamic_pointer_cast<IUUID>(Made<UUIDFactory, IUUID>(kKnownUUID))->GetString(text),
            kOk);
  EXPECT_EQ(text, "12345678-9ABC-DEF0-0FED-CBA987654321");
}

TEST(Scalars, WideTextFollowsTheCurrentLocale) {
  auto wide = [](const char* text, std::wstring& out) {
    return std::dynamic_pointer_cast<IString>(Text(text))->GetWString(out);
  };
  std::wstring out = L"kept";
  {
    ScopedLocale utf8("C.UTF-8", "UTC");
    ASSERT_TRUE(utf8.valid());
    EXPECT_EQ(wide("bad \xff byte", out), make_error_code(kConversionError));
    EXPECT_EQ(out, L"kept");
    EXPECT_EQ(wide("caf\xc3\xa9", out), kOk);
    EXPECT_EQ(out, L"caf\u00e9");
  }
  ScopedLocale c("C", "UTC");
  EXPECT_EQ(wide("caf\xc3\xa9", out), make_error_code(kConversionError));
  EXPECT_EQ(out, L"caf\u00e9");
  EXPECT_EQ(wide("", out), kOk);
  EXPECT_EQ(out, L"");
}

// Threads asking a short string for its platform object at once all get the
// one it makes; clones and descriptions of shared values never tear.
TEST(Scalars, SharedValuesUsedFromManyThreads) {
  const std::vector<ValuePtr> values = {Text("raced for"), V(Bytes{1, 2}), V(0.25), Null(),
                                        Text(std::string(100, 'y'))};
  std::vector<std::string> expected;
  for (const auto& value : values) expected.push_back(Describe(*value, 2));
  std::vector<xpc_object_t> seen(4);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      seen[t] = PlatformObject(values[0]);
      for (int n = 0; n < 300; ++n) {
        for (size_t i = 0; i < values.size(); ++i) {
          std::shared_ptr<IValue> clone;
          std::string text;
          if (!Succeeded(values[i]->Clone(clone)) || !(*clone == *values[i]) ||
              !Succeeded(clone->Description(text, 2)) || text != expected[i]) {
            ADD_FAILURE() << "clone or description of value " << i << " differs";
            return;
          }
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  for (xpc_object_t object : seen) EXPECT_EQ(object, seen[0]);
}

// Other implementations of the interfaces: equality looks at the tag, the
// interface and the platform object, not at the class.
class ForeignNumber final : public INumber, public Value {
 public:
  explicit ForeignNumber(int64_t value)
      : Value(kValueTypeNumber), object_(xpc_int64_create(value), false) {}
  std::error_code GetBool(bool&) const override { return kInvalidType; }
  std::error_code GetUInt64(uint64_t&) const override { return kInvalidType; }
  std::error_code GetInt64(int64_t&) const override { return kInvalidType; }
  std::error_code GetDouble(double&) const override { return kInvalidType; }
  std::error_code GetNumberType(xpc_type_t&) const override { return kInvalidType; }
  xpc_object_t GetXPCObject() const noexcept override { return object_.Get(); }

 private:
  XPCObject object_;
};

class ForeignString final : public IString, public Value {
 public:
  explicit ForeignString(const char* text)
      : Value(kValueTypeString), object_(xpc_string_create(text), false) {}
  size_t GetLength() const override { return xpc_string_get_length(object_.Get()); }
  const char* GetCString() const override { return xpc_string_get_string_ptr(object_.Get()); }
  std::error_code GetWString(std::wstring&) const override { return kNotImplemented; }
  xpc_object_t GetXPCObject() const noexcept override { return object_.Get(); }

 private:
  XPCObject object_;
};

class BareValue final : public Value {
 public:
  explicit BareValue(ValueType type) : Value(type) {}
};

TEST(ValueBase, ForeignClassesCompareByTagInterfaceAndPlatformObject) {
  // Interface-typed operands, as callers hold values: with a concrete class on
  // one side, C++20 may rewrite a == b as b == a and pick that class's operator.
  ForeignNumber foreignFive(5);
  ForeignString foreignSame("same");
  const IValue &number = foreignFive, &string = foreignSame;
  EXPECT_TRUE(*Int(5) == number);
  EXPECT_FALSE(*Int(6) == number || *V(5ULL) == number);
  EXPECT_TRUE(*Text("same") == string && *PlatformString("same") == string);
  EXPECT_FALSE(*Text("sam") == string);
  EXPECT_FALSE(*Text("same, but longer than the inline buffer") == string);
  // The number tag without the number interface is not a number; the base
  // alone compares tags only.
  BareValue tagged(kValueTypeNumber), bare(kValueTypeDate), other(kValueTypeDate);
  const IValue& taggedValue = tagged;
  const IValue& bareValue = bare;
  EXPECT_FALSE(*Int(5) == taggedValue);
  EXPECT_TRUE(taggedValue == *Int(5));
  EXPECT_TRUE(bareValue == other && !(bareValue != other));
  EXPECT_FALSE(bareValue == *Null());

  std::string text = "untouched";
  std::vector<uint8_t> bytes{1};
  ValuePtr clone;
  xpc_object_t object = nullptr;
  EXPECT_EQ(bare.Description(text, 3), make_error_code(kNotImplemented));
  EXPECT_EQ(bare.Clone(clone), make_error_code(kNotImplemented));
  EXPECT_EQ(bare.Serialize(bytes), make_error_code(kNotImplemented));
  EXPECT_EQ(bare.CopyXPCObject(&object), make_error_code(kNotImplemented));
  EXPECT_TRUE(text == "untouched" && bare.GetXPCObject() == nullptr);
}

TEST(ValueBase, PlatformHandleOwnsExactlyOneReference) {
  xpc_object_t raw = xpc_string_create("handled");
  {
    XPCObject adopted(raw, false);  // takes over the creation reference
    XPCObject retained(raw, true);
    XPCObject copy(retained);
    XPCObject moved(std::move(copy));
    EXPECT_TRUE(copy.Get() == nullptr && moved.Get() == raw);
    XPCObject assigned;
    assigned = moved;
    XPCObject target(xpc_int64_create(1), false);
    target = std::move(assigned);
    EXPECT_TRUE(target.Get() == raw && !assigned);
    // Releasing first and having no self-check, a self-assignment empties the handle.
    XPCObject& alias = target;
    target = alias;
    EXPECT_FALSE(target);
    EXPECT_STREQ(xpc_string_get_string_ptr(adopted.Get()), "handled");
  }
  EXPECT_FALSE(XPCObject(nullptr, true));
}

TEST(ErrorCodes, CategoryNamesAndExceptions) {
  std::error_code ours = kNotFound;
  EXPECT_STREQ(ours.category().name(), "QelSharedSettingError");
  EXPECT_EQ(ours.message(), "QelSharedSetting Message");
  EXPECT_EQ(ours.value(), 203);
  EXPECT_NE(ours, std::error_code(203, std::generic_category()));
  EXPECT_FALSE(Succeeded(std::error_code(100, std::system_category())));
  EXPECT_EQ(ErrorCodeName(375), "kVerificationError");
  EXPECT_EQ(ErrorCodeName(42), "unknown");
  EXPECT_EQ(DescribeErrorCode(kNotFound), "kNotFound (203)");
  EXPECT_EQ(DescribeErrorCode(std::error_code(2, std::generic_category())), "generic (2)");

  QelException::StdErrException* copy =
      TransactionException(make_error_code(kTransactionConflict), "conflict").copyThis();
  EXPECT_STREQ(copy->what(), "conflict");
  EXPECT_EQ(copy->code(), make_error_code(kTransactionConflict));
  EXPECT_THROW(copy->deleteAndRethrow(), TransactionException);
}

}  // namespace
}  // namespace QelSS
