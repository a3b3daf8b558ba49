#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <clocale>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "qelss/values/DataFactory.h"
#include "qelss/values/DateFactory.h"
#include "qelss/values/IValueInternal.h"
#include "qelss/values/StringFactory.h"
#include "qelss/values/UUIDFactory.h"

namespace QelSS {
namespace {

std::shared_ptr<IData> MakeData(const std::vector<unsigned char>& bytes) {
  static const unsigned char kNoBytes = 0;
  std::shared_ptr<IData> data;
  EXPECT_EQ(DataFactory::Create(data, bytes.empty() ? &kNoBytes : bytes.data(), bytes.size()),
            make_error_code(kSuccess));
  return data;
}

template <typename... Source>
std::shared_ptr<IDate> MakeDate(Source... time) {
  std::shared_ptr<IDate> date;
  EXPECT_EQ(DateFactory::Create(date, time...), make_error_code(kSuccess));
  return date;
}

template <typename... Source>
std::shared_ptr<IUUID> MakeUUID(const Source&... bytes) {
  std::shared_ptr<IUUID> uuid;
  EXPECT_EQ(UUIDFactory::Create(uuid, bytes...), make_error_code(kSuccess));
  return uuid;
}

std::string Describe(const IValue& value, unsigned int indent = 0) {
  std::string text = "untouched";
  EXPECT_EQ(value.Description(text, indent), make_error_code(kSuccess));
  return text;
}

xpc_object_t PlatformObject(const std::shared_ptr<IValue>& value) {
  return std::dynamic_pointer_cast<IValueInternal>(value)->GetXPCObject();
}

int64_t Nanoseconds(const std::shared_ptr<IDate>& date) {
  return xpc_date_get_value(PlatformObject(date));
}

const UUIDBytes kKnownUUID = {0x12, 0x34, 0x56, 0x78, 0x9a, 0xbc, 0xde, 0xf0,
                              0x0f, 0xed, 0xcb, 0xa9, 0x87, 0x65, 0x43, 0x21};

TEST(Data, KeepsItsOwnCopyAndDescribesItAsHexPairs) {
  unsigned char buffer[] = {0x0a, 0xff, 0x00, 0x10};
  std::shared_ptr<IData> data;
  ASSERT_EQ(DataFactory::Create(data, buffer, sizeof buffer), make_error_code(kSuccess));
  buffer[0] = 9;
  EXPECT_EQ(std::vector<unsigned char>(data->GetBytes(), data->GetBytes() + data->GetLength()),
            (std::vector<unsigned char>{0x0a, 0xff, 0x00, 0x10}));
  EXPECT_EQ(data->GetType(), uint32_t{kValueTypeData});
  EXPECT_EQ(Describe(*data), "0a ff 00 10");
  EXPECT_EQ(Describe(*MakeData({0x0a, 0xff}), 2), "  0a ff");
  EXPECT_EQ(Describe(*MakeData({}), 3), "   ");
  EXPECT_EQ(MakeData({})->GetLength(), 0u);
}

TEST(Data, EqualityComparesEveryByteOfTheSameKind) {
  auto data = MakeData({'a', 'b', 'c'});
  EXPECT_TRUE(*data == *MakeData({'a', 'b', 'c'}));
  EXPECT_FALSE(*data == *MakeData({'a', 'b'}));
  EXPECT_TRUE(*data != *MakeData({'a', 'b', 'd'}));
  EXPECT_TRUE(*MakeData({}) == *MakeData({}));
  std::shared_ptr<IString> text;
  ASSERT_EQ(StringFactory::Create(text, "abc"), make_error_code(kSuccess));
  EXPECT_FALSE(*data == *text);
  EXPECT_FALSE(*MakeData({kKnownUUID.begin(), kKnownUUID.end()}) == *MakeUUID(kKnownUUID));
}

TEST(Data, FactoryFailuresLeaveTheOutputAlone) {
  auto data = MakeData({7});
  auto before = data;
  EXPECT_EQ(DataFactory::Create(data, nullptr, 0), make_error_code(kInvalidArgument));
  xpc_object_t text = xpc_string_create("not data");
  EXPECT_EQ(DataFactory::Create(data, static_cast<void*>(text)), make_error_code(kInvalidType));
  xpc_release(text);
  EXPECT_EQ(DataFactory::Create(data, static_cast<void*>(nullptr)), make_error_code(kInvalidType));
  EXPECT_EQ(data, before);

  xpc_object_t platform = xpc_data_create("\x05\x06", 2);
  ASSERT_EQ(DataFactory::Create(data, static_cast<void*>(platform)), make_error_code(kSuccess));
  xpc_release(platform);  // the value holds its own reference
  EXPECT_EQ(Describe(*data), "05 06");
}

TEST(Date, TimeIsWholeUnsignedSecondsSince1970) {
  auto epoch = MakeDate(0L);
  EXPECT_EQ(epoch->GetTime(), 0u);
  EXPECT_EQ(epoch->GetAbsoluteTime(), -978307200.0);
  EXPECT_EQ(epoch->GetType(), uint32_t{kValueTypeDate});
  EXPECT_EQ(MakeDate(1234567890L)->GetAbsoluteTime(), 256260690.0);

  // Before 1970 the nanoseconds are read as unsigned: no sign correction.
  auto before1970 = MakeDate(-1L);
  EXPECT_EQ(Nanoseconds(before1970), -1000000000);
  EXPECT_EQ(before1970->GetTime(), 18446744072u);
  EXPECT_EQ(before1970->GetAbsoluteTime(), 18446744072.0 - 978307200.0);
}

TEST(Date, AbsoluteTimeKeepsTheFractionOnlyInTheNanoseconds) {
  auto date = MakeDate(0.75);
  EXPECT_EQ(date->GetTime(), 978307200u);
  EXPECT_EQ(date->GetAbsoluteTime(), 0.0);
  // A double near 1e18 carries the nanoseconds to within a few hundred.
  EXPECT_NEAR(static_cast<double>(Nanoseconds(date) - 978307200000000000), 750000000.0, 256.0);
  EXPECT_EQ(Nanoseconds(MakeDate(-978307200.5)), -500000000);
  EXPECT_TRUE(*MakeDate(-978307200.0) == *MakeDate(0L));
  EXPECT_FALSE(*MakeDate(1.0) == *MakeDate(1.5));
}

TEST(Date, TimesBeyondSigned64BitNanosecondsAreRefused) {
  auto date = MakeDate(0L);
  auto before = date;
  EXPECT_EQ(DateFactory::Create(date, std::numeric_limits<long>::max()),
            make_error_code(kInvalidArgument));
  EXPECT_EQ(DateFactory::Create(date, 9223372037L), make_error_code(kInvalidArgument));
  EXPECT_EQ(DateFactory::Create(date, -9223372037L), make_error_code(kInvalidArgument));
  EXPECT_EQ(DateFactory::Create(date, std::numeric_limits<double>::quiet_NaN()),
            make_error_code(kInvalidArgument));
  EXPECT_EQ(DateFactory::Create(date, -std::numeric_limits<double>::infinity()),
            make_error_code(kInvalidArgument));
  EXPECT_EQ(DateFactory::Create(date, 1e10), make_error_code(kInvalidArgument));
  EXPECT_EQ(date, before);
  // The last whole seconds on either side still fit.
  EXPECT_EQ(MakeDate(9223372036L)->GetTime(), 9223372036u);
  EXPECT_EQ(Nanoseconds(MakeDate(-9223372036L)), -9223372036000000000);
}

TEST(Date, NowAndPlatformDates) {
  using std::chrono::system_clock;
  const auto first = system_clock::to_time_t(system_clock::now());
  auto now = MakeDate();
  EXPECT_GE(now->GetTime(), static_cast<uint64_t>(first));
  EXPECT_LE(now->GetTime(), static_cast<uint64_t>(system_clock::to_time_t(system_clock::now())));

  xpc_object_t platform = xpc_date_create(5000000001);
  auto date = MakeDate(static_cast<void*>(platform));
  xpc_release(platform);
  EXPECT_EQ(date->GetTime(), 5u);
  // A platform object of another kind is a bad argument for a date, not a bad type.
  xpc_object_t number = xpc_int64_create(5);
  EXPECT_EQ(DateFactory::Create(date, static_cast<void*>(number)),
            make_error_code(kInvalidArgument));
  xpc_release(number);
  EXPECT_EQ(DateFactory::Create(date, static_cast<void*>(nullptr)),
            make_error_code(kInvalidArgument));
  EXPECT_EQ(date->GetTime(), 5u);
}

TEST(Date, DescriptionIsTheLocalDateAndTime) {
  const std::string locale = std::setlocale(LC_TIME, nullptr);
  const char* tz = std::getenv("TZ");
  const std::string previousTz = tz ? tz : "";
  setenv("TZ", "UTC", 1);
  tzset();
  std::setlocale(LC_TIME, "C");

  EXPECT_EQ(Describe(*MakeDate(0L)), "Thu Jan  1 00:00:00 1970");
  EXPECT_EQ(Describe(*MakeDate(1234567890L), 2), "  Fri Feb 13 23:31:30 2009");
  // A nanosecond before 1970 is the last second of 1969, not the first of 1970.
  xpc_object_t justBefore = xpc_date_create(-1);
  EXPECT_EQ(Describe(*MakeDate(static_cast<void*>(justBefore))), "Wed Dec 31 23:59:59 1969");
  xpc_release(justBefore);

  if (tz) {
    setenv("TZ", previousTz.c_str(), 1);
  } else {
    unsetenv("TZ");
  }
  tzset();
  std::setlocale(LC_TIME, locale.c_str());
}

TEST(UUID, RandomOrFromBytesWithCanonicalText) {
  auto a = MakeUUID();
  EXPECT_FALSE(*a == *MakeUUID());
  EXPECT_EQ(a->GetBytes()[6] >> 4, 4);  // version 4, variant 10xx
  EXPECT_EQ(a->GetBytes()[8] >> 6, 2);
  EXPECT_EQ(a->GetType(), uint32_t{kValueTypeUUID});
  UUIDBytes bytes;
  std::copy_n(a->GetBytes(), bytes.size(), bytes.begin());
  EXPECT_TRUE(*MakeUUID(bytes) == *a);

  auto known = MakeUUID(kKnownUUID);
  std::string text = "untouched";
  ASSERT_EQ(known->GetString(text), make_error_code(kSuccess));
  EXPECT_EQ(text, "12345678-9ABC-DEF0-0FED-CBA987654321");
  EXPECT_EQ(Describe(*known, 1), " " + text);
  EXPECT_TRUE(std::equal(kKnownUUID.begin(), kKnownUUID.end(), known->GetBytes()));
}

TEST(UUID, WrapsPlatformUUIDsOnly) {
  xpc_object_t platform = xpc_uuid_create(kKnownUUID.data());
  auto uuid = MakeUUID(static_cast<void*>(platform));
  xpc_release(platform);
  EXPECT_TRUE(*uuid == *MakeUUID(kKnownUUID));

  auto before = uuid;
  xpc_object_t data = xpc_data_create(kKnownUUID.data(), kKnownUUID.size());
  EXPECT_EQ(UUIDFactory::Create(uuid, static_cast<void*>(data)), make_error_code(kInvalidType));
  xpc_release(data);
  EXPECT_EQ(UUIDFactory::Create(uuid, static_cast<void*>(nullptr)), make_error_code(kInvalidType));
  EXPECT_EQ(uuid, before);
}

std::vector<std::shared_ptr<IValue>> OneOfEach() {
  return {MakeData({0xde, 0xad}), MakeData({}), MakeDate(-86400L), MakeDate(0.25), MakeUUID()};
}

TEST(ScalarValues, CopyXPCObjectAndCloneShareTheImmutablePayload) {
  for (const auto& value : OneOfEach()) {
    EXPECT_EQ(value->CopyXPCObject(nullptr), make_error_code(kInvalidArgument));
    xpc_object_t copy = nullptr;
    ASSERT_EQ(value->CopyXPCObject(&copy), make_error_code(kSuccess));
    EXPECT_TRUE(xpc_equal(copy, PlatformObject(value)));
    xpc_release(copy);  // under AddressSanitizer a missing or extra reference shows

    std::shared_ptr<IValue> clone;
    ASSERT_EQ(value->Clone(clone), make_error_code(kSuccess));
    EXPECT_NE(clone.get(), value.get());
    const IValue& cloned = *clone;
    const IValue& original = *value;
    EXPECT_EQ(typeid(cloned), typeid(original));
    EXPECT_TRUE(*clone == *value);
    EXPECT_EQ(Describe(*clone, 1), Describe(*value, 1));
    EXPECT_EQ(PlatformObject(clone), PlatformObject(value));
  }
  std::shared_ptr<IValue> clone;
  ASSERT_EQ(MakeData({1, 2, 3})->Clone(clone), make_error_code(kSuccess));
  EXPECT_EQ(Describe(*clone), "01 02 03");  // outlives its original
}

TEST(ScalarValues, ConcurrentUseOfSharedValues) {
  const auto values = OneOfEach();
  std::vector<std::string> expected;
  for (const auto& value : values) expected.push_back(Describe(*value, 2));
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&values, &expected] {
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
}

}  // namespace
}  // namespace QelSS
