#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>

#include "qelss/values/INumber.h"
#include "qelss/values/IString.h"
#include "qelss/values/NumberFactory.h"
#include "qelss/values/StringFactory.h"

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

TEST(Allocations, CloningAScalarSharesItsPayload) {
  std::shared_ptr<INumber> number;
  std::shared_ptr<IString> string;
  ASSERT_EQ(NumberFactory::Create(number, 123456789LL), make_error_code(kSuccess));
  ASSERT_EQ(StringFactory::Create(string, "a text well beyond any small-string buffer"),
            make_error_code(kSuccess));

  std::shared_ptr<IValue> clone;
  EXPECT_EQ(AllocationsOf([&] { (void)number->Clone(clone); }), 1);
  EXPECT_EQ(AllocationsOf([&] { (void)string->Clone(clone); }), 1);
}

TEST(Allocations, CreatingAScalarAllocatesObjectAndPayloadOnce) {
  std::shared_ptr<INumber> number;
  std::shared_ptr<IString> string;
  // The platform object (with its text inline) and the shared_ptr block with the value.
  EXPECT_EQ(AllocationsOf([&] { (void)NumberFactory::Create(number, 1.25); }), 2);
  EXPECT_EQ(AllocationsOf([&] {
              (void)StringFactory::Create(string, "a text well beyond any small-string buffer");
            }),
            2);
  // true and false are shared platform objects.
  EXPECT_EQ(AllocationsOf([&] { (void)NumberFactory::Create(number, true); }), 1);
}

}  // namespace
}  // namespace QelSS
