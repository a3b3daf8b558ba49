#include <gtest/gtest.h>

#include <clocale>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "qelss/values/INull.h"
#include "qelss/values/INumber.h"
#include "qelss/values/IString.h"
#include "qelss/values/IValueInternal.h"
#include "qelss/values/NullFactory.h"
#include "qelss/values/NumberFactory.h"
#include "qelss/values/StringFactory.h"
#include "qelss/values/XPCObject.h"
#include "values/Value.h"

namespace QelSS {
namespace {

template <typename T>
std::shared_ptr<INumber> MakeNumber(T value) {
  std::shared_ptr<INumber> number;
  EXPECT_EQ(NumberFactory::Create(number, value), make_error_code(kSuccess));
  return number;
}

std::shared_ptr<IString> MakeString(const char* text) {
  std::shared_ptr<IString> string;
  EXPECT_EQ(StringFactory::Create(string, text), make_error_code(kSuccess));
  return string;
}

std::shared_ptr<INull> MakeNull() {
  std::shared_ptr<INull> null;
  EXPECT_EQ(NullFactory::Create(null), make_error_code(kSuccess));
  return null;
}

std::string Describe(const IValue& value, unsigned int indent = 0) {
  std::string text = "untouched";
  EXPECT_EQ(value.Description(text, indent), make_error_code(kSuccess));
  return text;
}

xpc_object_t PlatformObject(const std::shared_ptr<IValue>& value) {
  return std::dynamic_pointer_cast<IValueInternal>(value)->GetXPCObject();
}

// Sets LC_CTYPE for one test and restores the previous setting.
class CtypeLocale {
 public:
  explicit CtypeLocale(const char* name) : previous_(std::setlocale(LC_CTYPE, nullptr)) {
    valid_ = std::setlocale(LC_CTYPE, name) != nullptr;
  }
  ~CtypeLocale() { std::setlocale(LC_CTYPE, previous_.c_str()); }
  bool valid() const { return valid_; }

 private:
  std::string previous_;
  bool valid_ = false;
};

TEST(Number, EachKindAnswersOnlyItsOwnGetter) {
  auto i = MakeNumber(-5LL);
  auto u = MakeNumber(std::numeric_limits<unsigned long long>::max());
  auto b = MakeNumber(true);
  auto d = MakeNumber(2.5);

  int64_t asInt = 42;
  uint64_t asUInt = 42;
  bool asBool = false;
  double asDouble = 42.0;
  EXPECT_EQ(u->GetInt64(asInt), make_error_code(kInvalidType));
  EXPECT_EQ(asInt, 42);
  EXPECT_EQ(i->GetUInt64(asUInt), make_error_code(kInvalidType));
  EXPECT_EQ(i->GetDouble(asDouble), make_error_code(kInvalidType));
  EXPECT_EQ(d->GetInt64(asInt), make_error_code(kInvalidType));
  EXPECT_EQ(b->GetInt64(asInt), make_error_code(kInvalidType));
  EXPECT_EQ(i->GetBool(asBool), make_error_code(kInvalidType));
  EXPECT_EQ(asUInt, 42u);
  EXPECT_EQ(asDouble, 42.0);
  EXPECT_FALSE(asBool);

  EXPECT_EQ(i->GetInt64(asInt), make_error_code(kSuccess));
  EXPECT_EQ(asInt, -5);
  EXPECT_EQ(u->GetUInt64(asUInt), make_error_code(kSuccess));
  EXPECT_EQ(asUInt, std::numeric_limits<uint64_t>::max());
  EXPECT_EQ(b->GetBool(asBool), make_error_code(kSuccess));
  EXPECT_TRUE(asBool);
  EXPECT_EQ(d->GetDouble(asDouble), make_error_code(kSuccess));
  EXPECT_EQ(asDouble, 2.5);

  xpc_type_t kind = nullptr;
  EXPECT_EQ(u->GetNumberType(kind), make_error_code(kSuccess));
  EXPECT_EQ(kind, XPC_TYPE_UINT64);
  EXPECT_EQ(b->GetNumberType(kind), make_error_code(kSuccess));
  EXPECT_EQ(kind, XPC_TYPE_BOOL);
  EXPECT_EQ(d->GetNumberType(kind), make_error_code(kSuccess));
  EXPECT_EQ(kind, XPC_TYPE_DOUBLE);
  EXPECT_EQ(i->GetType(), uint32_t{kValueTypeNumber});
}

TEST(Number, DescriptionsUseTheKindsDecimalForm) {
  EXPECT_EQ(Describe(*MakeNumber(true)), "1");
  EXPECT_EQ(Describe(*MakeNumber(false)), "0");
  EXPECT_EQ(Describe(*MakeNumber(2.5)), "2.500000");
  EXPECT_EQ(Describe(*MakeNumber(-0.0000004)), "-0.000000");
  EXPECT_EQ(Describe(*MakeNumber(1e20)), "100000000000000000000.000000");
  EXPECT_EQ(Describe(*MakeNumber(std::numeric_limits<long long>::min())), "-9223372036854775808");
  EXPECT_EQ(Describe(*MakeNumber(std::numeric_limits<unsigned long long>::max())),
            "18446744073709551615");
  EXPECT_EQ(Describe(*MakeNumber(7LL), 3), "   7");

  std::string text;
  EXPECT_EQ(MakeNumber(12LL)->Description(text), make_error_code(kSuccess));
  EXPECT_EQ(text, "12");
}

TEST(Number, EqualityNeedsTheSameKind) {
  auto int5 = MakeNumber(5LL);
  EXPECT_TRUE(*int5 == *MakeNumber(5LL));
  EXPECT_FALSE(*int5 != *MakeNumber(5LL));
  EXPECT_FALSE(*int5 == *MakeNumber(5ULL));
  EXPECT_TRUE(*int5 != *MakeNumber(5ULL));
  EXPECT_FALSE(*int5 == *MakeNumber(5.0));
  EXPECT_FALSE(*MakeNumber(true) == *MakeNumber(1LL));
  EXPECT_TRUE(*MakeNumber(0.0) == *MakeNumber(-0.0));
  EXPECT_FALSE(*int5 == *MakeString("5"));
  EXPECT_FALSE(*int5 == *MakeNull());
}

TEST(Number, WrapsPlatformObjectsOfANumberKindOnly) {
  xpc_object_t platform = xpc_uint64_create(9);
  std::shared_ptr<INumber> number;
  ASSERT_EQ(NumberFactory::Create(number, static_cast<void*>(platform)), make_error_code(kSuccess));
  xpc_release(platform);  // the value holds its own reference
  uint64_t value = 0;
  EXPECT_EQ(number->GetUInt64(value), make_error_code(kSuccess));
  EXPECT_EQ(value, 9u);

  auto before = number;
  xpc_object_t text = xpc_string_create("9");
  EXPECT_EQ(NumberFactory::Create(number, static_cast<void*>(text)), make_error_code(kInvalidType));
  EXPECT_EQ(NumberFactory::Create(number, static_cast<void*>(nullptr)),
            make_error_code(kInvalidType));
  EXPECT_EQ(number, before);
  xpc_release(text);
}

TEST(Null, DescribesAndComparesAsNull) {
  auto null = MakeNull();
  EXPECT_EQ(Describe(*null), "nullObj");
  EXPECT_EQ(Describe(*null, 2), "  nullObj");
  EXPECT_EQ(null->GetType(), uint32_t{kValueTypeNull});
  EXPECT_TRUE(*null == *MakeNull());
  EXPECT_FALSE(*null == *MakeNumber(0LL));
  EXPECT_FALSE(*null == *MakeString(""));

  std::shared_ptr<INull> wrapped;
  EXPECT_EQ(NullFactory::Create(wrapped, static_cast<void*>(xpc_null_create())),
            make_error_code(kSuccess));
  EXPECT_TRUE(*wrapped == *null);
  xpc_object_t notNull = xpc_bool_create(false);
  EXPECT_EQ(NullFactory::Create(wrapped, static_cast<void*>(notNull)),
            make_error_code(kInvalidType));
  EXPECT_EQ(NullFactory::Create(wrapped, static_cast<void*>(nullptr)),
            make_error_code(kInvalidType));
}

TEST(String, HoldsItsOwnCopyOfTheText) {
  char buffer[] = "h\xc3\xa9llo";
  auto string = MakeString(buffer);
  buffer[0] = 'X';
  EXPECT_STREQ(string->GetCString(), "h\xc3\xa9llo");
  EXPECT_EQ(string->GetLength(), 6u);
  EXPECT_EQ(string->GetType(), uint32_t{kValueTypeString});

  std::shared_ptr<IString> fromStd;
  ASSERT_EQ(StringFactory::Create(fromStd, std::string("ab\0cd", 5)), make_error_code(kSuccess));
  EXPECT_EQ(fromStd->GetLength(), 2u);  // the text ends at its first NUL
  EXPECT_TRUE(*fromStd == *MakeString("ab"));
  EXPECT_FALSE(*fromStd == *MakeString("abc"));
  EXPECT_TRUE(*fromStd != *MakeString("ab "));
}

TEST(String, FactoryFailuresLeaveTheOutputAlone) {
  auto string = MakeString("kept");
  auto before = string;
  EXPECT_EQ(StringFactory::Create(string, static_cast<const char*>(nullptr)),
            make_error_code(kInvalidArgument));
  xpc_object_t number = xpc_int64_create(1);
  EXPECT_EQ(StringFactory::Create(string, static_cast<void*>(number)),
            make_error_code(kInvalidType));
  xpc_release(number);
  EXPECT_EQ(string, before);

  xpc_object_t platform = xpc_string_create("from platform");
  EXPECT_EQ(StringFactory::Create(string, static_cast<void*>(platform)), make_error_code(kSuccess));
  xpc_release(platform);
  EXPECT_STREQ(string->GetCString(), "from platform");
}

TEST(String, DescriptionIsTheBareText) {
  EXPECT_EQ(Describe(*MakeString("say \"hi\"\n")), "say \"hi\"\n");
  EXPECT_EQ(Describe(*MakeString("x"), 4), "    x");
  EXPECT_EQ(Describe(*MakeString(""), 2), "  ");
}

TEST(String, WideConversionFollowsTheCurrentLocale) {
  auto accented = MakeString("caf\xc3\xa9");
  {
    CtypeLocale utf8("C.UTF-8");
    ASSERT_TRUE(utf8.valid());
    std::wstring wide;
    EXPECT_EQ(accented->GetWString(wide), make_error_code(kSuccess));
    EXPECT_EQ(wide, L"caf\u00e9");

    std::wstring kept = L"kept";
    EXPECT_EQ(MakeString("bad \xff byte")->GetWString(kept), make_error_code(kConversionError));
    EXPECT_EQ(kept, L"kept");
  }
  {
    CtypeLocale c("C");
    std::wstring kept = L"kept";
    EXPECT_EQ(accented->GetWString(kept), make_error_code(kConversionError));
    EXPECT_EQ(kept, L"kept");
    EXPECT_EQ(MakeString("plain")->GetWString(kept), make_error_code(kSuccess));
    EXPECT_EQ(kept, L"plain");
    EXPECT_EQ(MakeString("")->GetWString(kept), make_error_code(kSuccess));
    EXPECT_EQ(kept, L"");
  }
}

TEST(PlatformObjects, CopyXPCObjectGivesTheCallerAReference) {
  std::vector<std::shared_ptr<IValue>> values = {MakeNull(), MakeNumber(3LL), MakeString("s")};
  for (const auto& value : values) {
    EXPECT_EQ(value->CopyXPCObject(nullptr), make_error_code(kInvalidArgument));
    xpc_object_t copy = nullptr;
    ASSERT_EQ(value->CopyXPCObject(&copy), make_error_code(kSuccess));
    EXPECT_TRUE(xpc_equal(copy, PlatformObject(value)));
    xpc_release(copy);  // under AddressSanitizer a missing or extra reference shows
  }
}

TEST(Clone, MakesAnIndependentValueOfTheSameClass) {
  std::vector<std::shared_ptr<IValue>> values = {MakeNull(), MakeNumber(-1LL), MakeNumber(0.5),
                                                 MakeString("text")};
  for (const auto& value : values) {
    const xpc_object_t payload = PlatformObject(value);
    std::shared_ptr<IValue> clone;
    ASSERT_EQ(value->Clone(clone), make_error_code(kSuccess));
    ASSERT_NE(clone, nullptr);
    EXPECT_NE(clone.get(), value.get());
    EXPECT_TRUE(*clone == *value);
    const IValue& cloned = *clone;
    const IValue& original = *value;
    EXPECT_EQ(typeid(cloned), typeid(original));
    EXPECT_EQ(Describe(*clone), Describe(*value));
    // Immutable payloads are shared, not copied.
    EXPECT_EQ(PlatformObject(clone), payload);
  }
  // The clone outlives its original.
  std::shared_ptr<IValue> clone;
  {
    auto original = MakeString("outlives");
    ASSERT_EQ(original->Clone(clone), make_error_code(kSuccess));
  }
  EXPECT_STREQ(std::dynamic_pointer_cast<IString>(clone)->GetCString(), "outlives");
}

TEST(Clone, ConcurrentUseOfOneValue) {
  auto shared = MakeString("shared between threads");
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([shared] {
      for (int n = 0; n < 2000; ++n) {
        std::shared_ptr<IValue> clone;
        std::string text;
        if (!Succeeded(shared->Clone(clone)) || !(*clone == *shared) ||
            !Succeeded(clone->Description(text, 1)) || text != " shared between threads") {
          ADD_FAILURE() << "clone or description differs";
          return;
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
}

// A value class that provides nothing of its own shows the base's defaults.
class BareValue final : public Value {
 public:
  BareValue() : Value(kValueTypeDate) {}
};

// Another implementation of the number interface: equality looks at the tag,
// the interface and the platform object, not at the class.
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

TEST(ValueBase, EqualityAcrossClassesNeedsTagAndInterface) {
  // Interface-typed operands, as callers hold values: with a concrete class on
  // one side, C++20 may rewrite a == b as b == a and pick that class's operator.
  ForeignNumber foreignFive(5);
  const IValue& foreign = foreignFive;
  EXPECT_TRUE(*MakeNumber(5LL) == foreign);
  EXPECT_FALSE(*MakeNumber(6LL) == foreign);
  EXPECT_FALSE(*MakeNumber(5ULL) == foreign);

  // The number tag without the number interface is not a number.
  class TaggedOnly final : public Value {
   public:
    TaggedOnly() : Value(kValueTypeNumber) {}
  } taggedOnly;
  const IValue& tagged = taggedOnly;
  EXPECT_FALSE(*MakeNumber(5LL) == tagged);
  EXPECT_TRUE(tagged == *MakeNumber(5LL));  // the base compares tags only
}

TEST(ValueBase, DefaultsAnswerNotImplemented) {
  BareValue bare, other;
  std::string text = "untouched";
  std::vector<uint8_t> bytes{1};
  std::shared_ptr<IValue> clone;
  xpc_object_t object = nullptr;
  EXPECT_EQ(bare.GetType(), uint32_t{kValueTypeDate});
  EXPECT_EQ(bare.Description(text), make_error_code(kNotImplemented));
  EXPECT_EQ(bare.Description(text, 3), make_error_code(kNotImplemented));
  EXPECT_EQ(text, "untouched");
  EXPECT_EQ(bare.Clone(clone), make_error_code(kNotImplemented));
  EXPECT_EQ(bare.Serialize(bytes), make_error_code(kNotImplemented));
  EXPECT_EQ(bare.CopyXPCObject(&object), make_error_code(kNotImplemented));
  EXPECT_EQ(bare.GetXPCObject(), nullptr);
  const IValue& asValue = bare;
  EXPECT_TRUE(asValue == other);  // the tag alone decides
  EXPECT_FALSE(asValue != other);
  EXPECT_FALSE(bare == *MakeNull());
}

TEST(XPCObjectHandle, OwnsExactlyOneReference) {
  xpc_object_t raw = xpc_string_create("handled");
  {
    XPCObject adopted(raw, false);  // takes over the creation reference
    XPCObject retained(raw, true);
    XPCObject copy(retained);
    XPCObject moved(std::move(copy));
    EXPECT_EQ(copy.Get(), nullptr);
    EXPECT_EQ(moved.Get(), raw);

    XPCObject assigned;
    assigned = moved;
    EXPECT_EQ(assigned.Get(), raw);
    XPCObject target(xpc_int64_create(1), false);
    target = std::move(assigned);
    EXPECT_EQ(target.Get(), raw);
    EXPECT_FALSE(assigned);

    // Releasing first and having no self-check, a self-assignment empties the handle.
    XPCObject& alias = target;
    target = alias;
    EXPECT_FALSE(target);
    EXPECT_STREQ(xpc_string_get_string_ptr(adopted.Get()), "handled");
  }
  XPCObject empty(nullptr, true);
  EXPECT_FALSE(empty);
}

}  // namespace
}  // namespace QelSS
