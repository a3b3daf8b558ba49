#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <limits>
#include <memory>
#include <new>
#include <string>

#include "qelss/values/INumber.h"
#include "qelss/values/IString.h"
#include "qelss/values/IValueInternal.h"
#include "qelss/values/NumberFactory.h"
#include "qelss/values/StringFactory.h"
#include "values/String.h"

// Counts every allocation of this program, so that a test can tell how many
// allocations one operation makes.
namespace {
std::atomic<long> gAllocations{0};
}  // namespace

// The replacements pair malloc with free; GCC cannot see that once it inlines
// a replaced operator new into a caller of the replaced delete.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(std::size_t size) {
  gAllocations.fetch_add(1, std::memory_order_relaxed);
  if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
  throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  gAllocations.fetch_add(1, std::memory_order_relaxed);
  return std::malloc(size == 0 ? 1 : size);
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
#pragma GCC diagnostic pop

namespace QelSS {
namespace {

template <typename F>
long AllocationsOf(F&& operation) {
  const long before = gAllocations.load();
  operation();
  return gAllocations.load() - before;
}

constexpr const char* kLongText = "a text well beyond any inline buffer of a string";

template <typename T>
long AllocationsToCreateNumber(T value) {
  std::shared_ptr<INumber> number;
  return AllocationsOf([&] { ASSERT_EQ(NumberFactory::Create(number, value), kSuccess); });
}

long AllocationsToCreateString(const char* text) {
  std::shared_ptr<IString> string;
  return AllocationsOf([&] { ASSERT_EQ(StringFactory::Create(string, text), kSuccess); });
}

TEST(Allocations, CloningAScalarSharesItsPayload) {
  std::shared_ptr<INumber> number;
  std::shared_ptr<IString> string;
  ASSERT_EQ(NumberFactory::Create(number, std::numeric_limits<long long>::max()), kSuccess);
  ASSERT_EQ(StringFactory::Create(string, kLongText), kSuccess);

  std::shared_ptr<IValue> clone;
  EXPECT_EQ(AllocationsOf([&] { (void)number->Clone(clone); }), 1);
  EXPECT_EQ(AllocationsOf([&] { (void)string->Clone(clone); }), 1);
}

// What a settings tree is mostly made of costs one allocation per value: the
// shared_ptr block holding it.
TEST(Allocations, SmallNumbersAndShortTextsLiveInTheValueItself) {
  EXPECT_EQ(AllocationsToCreateNumber(0LL), 1);
  EXPECT_EQ(AllocationsToCreateNumber(-123456789LL), 1);
  EXPECT_EQ(AllocationsToCreateNumber(4000000000ULL), 1);
  EXPECT_EQ(AllocationsToCreateNumber(1.25), 1);
  EXPECT_EQ(AllocationsToCreateNumber(true), 1);  // true and false are shared objects
  EXPECT_EQ(AllocationsToCreateString(""), 1);
  EXPECT_EQ(AllocationsToCreateString("key000042"), 1);
  EXPECT_EQ(AllocationsToCreateString(std::string(String::kInlineCapacity, 'x').c_str()), 1);
}

TEST(Allocations, LargeNumbersAndLongTextsAddTheirPlatformObject) {
  EXPECT_EQ(AllocationsToCreateNumber(std::numeric_limits<long long>::min()), 2);
  EXPECT_EQ(AllocationsToCreateNumber(std::numeric_limits<unsigned long long>::max()), 2);
  EXPECT_EQ(AllocationsToCreateNumber(0.1), 2);
  EXPECT_EQ(AllocationsToCreateString(kLongText), 2);
  EXPECT_EQ(AllocationsToCreateString(std::string(String::kInlineCapacity + 1, 'x').c_str()), 2);
}

TEST(Allocations, AShortTextMakesItsPlatformStringOnceWhenAskedForIt) {
  std::shared_ptr<IString> string;
  ASSERT_EQ(StringFactory::Create(string, "lazy"), kSuccess);
  auto internal = std::dynamic_pointer_cast<IValueInternal>(string);
  ASSERT_NE(internal, nullptr);

  // A copy for the caller is made afresh and not kept by the value.
  for (int round = 0; round < 2; ++round) {
    xpc_object_t copy = nullptr;
    EXPECT_EQ(AllocationsOf([&] { ASSERT_EQ(string->CopyXPCObject(&copy), kSuccess); }), 1);
    EXPECT_STREQ(xpc_string_get_string_ptr(copy), "lazy");
    xpc_release(copy);
  }

  xpc_object_t lent = nullptr;
  EXPECT_EQ(AllocationsOf([&] { lent = internal->GetXPCObject(); }), 1);
  EXPECT_STREQ(xpc_string_get_string_ptr(lent), "lazy");
  EXPECT_EQ(AllocationsOf([&] { EXPECT_EQ(internal->GetXPCObject(), lent); }), 0);
  // Once made, copies share it.
  xpc_object_t copy = nullptr;
  EXPECT_EQ(AllocationsOf([&] { ASSERT_EQ(string->CopyXPCObject(&copy), kSuccess); }), 0);
  EXPECT_EQ(copy, lent);
  xpc_release(copy);
}

}  // namespace
}  // namespace QelSS
