// Small numbers live in a tagged word instead of a platform object, and short
// strings keep their text inline and make their platform string on demand.
// None of that may show: values on either side of each limit must behave alike.
#include <gtest/gtest.h>

#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "qelss/values/INumber.h"
#include "qelss/values/IString.h"
#include "qelss/values/IValueInternal.h"
#include "qelss/values/NumberFactory.h"
#include "qelss/values/StringFactory.h"
#include "values/String.h"
#include "values/Value.h"

namespace QelSS {
namespace {

template <typename T>
std::shared_ptr<INumber> MakeNumber(T value) {
  std::shared_ptr<INumber> number;
  EXPECT_EQ(NumberFactory::Create(number, value), make_error_code(kSuccess));
  return number;
}

std::shared_ptr<IString> MakeString(const std::string& text) {
  std::shared_ptr<IString> string;
  EXPECT_EQ(StringFactory::Create(string, text), make_error_code(kSuccess));
  return string;
}

std::shared_ptr<IString> MakeStringFromPlatform(const std::string& text) {
  xpc_object_t platform = xpc_string_create(text.c_str());
  std::shared_ptr<IString> string;
  EXPECT_EQ(StringFactory::Create(string, static_cast<void*>(platform)), make_error_code(kSuccess));
  xpc_release(platform);
  return string;
}

xpc_object_t PlatformObject(const std::shared_ptr<IValue>& value) {
  return std::dynamic_pointer_cast<IValueInternal>(value)->GetXPCObject();
}

std::shared_ptr<IValue> CloneOf(const std::shared_ptr<IValue>& value) {
  std::shared_ptr<IValue> clone;
  EXPECT_EQ(value->Clone(clone), make_error_code(kSuccess));
  return clone;
}

std::string Describe(const IValue& value) {
  std::string text;
  EXPECT_EQ(value.Description(text), make_error_code(kSuccess));
  return text;
}

// Equal to itself, to its clone and to its platform copy; its clone survives it.
void ExpectBehavesAsAValue(const std::shared_ptr<IValue>& value) {
  auto clone = CloneOf(value);
  EXPECT_TRUE(*clone == *value);
  EXPECT_TRUE(*value == *clone);
  EXPECT_EQ(Describe(*clone), Describe(*value));
  xpc_object_t copy = nullptr;
  ASSERT_EQ(value->CopyXPCObject(&copy), make_error_code(kSuccess));
  EXPECT_TRUE(xpc_equal(copy, PlatformObject(value)));
  EXPECT_TRUE(xpc_equal(copy, PlatformObject(clone)));
  xpc_release(copy);
}

TEST(NumberRepresentation, ValuesAroundEveryLimitReadBackAndCompare) {
  constexpr long long kLimit = 1LL << 60;
  for (long long value :
       {0LL, -1LL, kLimit - 1, -kLimit, kLimit, -kLimit - 1, std::numeric_limits<long long>::max(),
        std::numeric_limits<long long>::min()}) {
    auto number = MakeNumber(value);
    int64_t out = 0;
    EXPECT_EQ(number->GetInt64(out), make_error_code(kSuccess));
    EXPECT_EQ(out, value);
    EXPECT_EQ(Describe(*number), std::to_string(value));
    EXPECT_TRUE(*number == *MakeNumber(value));
    EXPECT_FALSE(*number == *MakeNumber(value ^ 1));
    ExpectBehavesAsAValue(number);
  }
  for (unsigned long long value :
       {0ULL, (1ULL << 61) - 1, 1ULL << 61, std::numeric_limits<unsigned long long>::max()}) {
    auto number = MakeNumber(value);
    uint64_t out = 0;
    EXPECT_EQ(number->GetUInt64(out), make_error_code(kSuccess));
    EXPECT_EQ(out, value);
    EXPECT_FALSE(*number == *MakeNumber(static_cast<long long>(value)));
    ExpectBehavesAsAValue(number);
  }
  for (double value : {0.5, 0.1, -3.0, 1e-310}) {
    auto number = MakeNumber(value);
    double out = 0;
    EXPECT_EQ(number->GetDouble(out), make_error_code(kSuccess));
    EXPECT_EQ(out, value);
    ExpectBehavesAsAValue(number);
  }
}

TEST(StringRepresentation, ShortAndLongTextsBehaveAlike) {
  const size_t limit = String::kInlineCapacity;
  for (size_t length : {size_t{0}, size_t{1}, limit, limit + 1, size_t{300}}) {
    std::string text;
    for (size_t i = 0; i < length; ++i) text += static_cast<char>('a' + i % 26);
    auto made = MakeString(text);
    auto wrapped = MakeStringFromPlatform(text);
    for (const auto& string : {made, wrapped}) {
      EXPECT_EQ(string->GetLength(), length);
      EXPECT_EQ(std::string(string->GetCString()), text);
      EXPECT_EQ(Describe(*string), text);
      EXPECT_STREQ(xpc_string_get_string_ptr(PlatformObject(string)), text.c_str());
      ExpectBehavesAsAValue(string);
    }
    EXPECT_TRUE(*made == *wrapped);
    EXPECT_TRUE(*wrapped == *made);
    EXPECT_FALSE(*made == *MakeString(text + "x"));
    EXPECT_FALSE(*MakeString(text + "x") == *wrapped);
  }
}

TEST(StringRepresentation, ACloneKeepsItsTextWhenTheOriginalGoes) {
  for (const std::string text : {"short", "a text far longer than any inline buffer"}) {
    std::shared_ptr<IValue> clone;
    {
      auto original = MakeString(text);
      clone = CloneOf(original);
    }
    EXPECT_EQ(std::dynamic_pointer_cast<IString>(clone)->GetCString(), text);
    EXPECT_STREQ(xpc_string_get_string_ptr(PlatformObject(clone)), text.c_str());
  }
}

TEST(StringRepresentation, ThreadsAskingAtOnceAllGetTheOnePlatformString) {
  for (int round = 0; round < 20; ++round) {
    auto string = MakeString("raced for");
    constexpr int kThreads = 4;
    std::vector<xpc_object_t> seen(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        xpc_object_t copy = nullptr;
        EXPECT_EQ(string->CopyXPCObject(&copy), make_error_code(kSuccess));
        seen[t] = PlatformObject(string);
        EXPECT_STREQ(xpc_string_get_string_ptr(seen[t]), "raced for");
        xpc_release(copy);
      });
    }
    for (auto& thread : threads) thread.join();
    for (xpc_object_t object : seen) EXPECT_EQ(object, seen[0]);
  }
}

// Another implementation of the string interface is compared through its
// platform object, as before short strings kept their text inline.
class ForeignString final : public IString, public Value {
 public:
  explicit ForeignString(const char* text)
      : Value(kValueTypeString), object_(xpc_string_create(text)) {}
  ~ForeignString() override { xpc_release(object_); }
  size_t GetLength() const override { return xpc_string_get_length(object_); }
  const char* GetCString() const override { return xpc_string_get_string_ptr(object_); }
  std::error_code GetWString(std::wstring&) const override { return kNotImplemented; }
  xpc_object_t GetXPCObject() const noexcept override { return object_; }

 private:
  xpc_object_t object_;
};

TEST(StringRepresentation, AnotherStringClassComparesByItsPlatformText) {
  ForeignString foreignText("same");
  const IValue& foreign = foreignText;
  EXPECT_TRUE(*MakeString("same") == foreign);
  EXPECT_TRUE(*MakeStringFromPlatform("same") == foreign);
  EXPECT_FALSE(*MakeString("sam") == foreign);
  EXPECT_FALSE(*MakeString("same, but longer than the inline buffer") == foreign);
}

}  // namespace
}  // namespace QelSS
