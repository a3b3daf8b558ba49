// Built twice: against the static internal library and against the shared
// library. It uses nothing but the value model's public calls, so it checks
// that every program that serialises values gets the byte form without asking
// for it, however it is linked.

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "qelss/platform/ErrorCode.h"
#include "qelss/values/HashFactory.h"
#include "qelss/values/NumberFactory.h"

namespace QelSS {
namespace {

TEST(ByteFormCodec, IsInPlaceWithoutAnySetUp) {
  std::shared_ptr<INumber> number;
  ASSERT_EQ(NumberFactory::Create(number, 42LL), make_error_code(kSuccess));
  std::vector<uint8_t> bytes;
  ASSERT_EQ(number->Serialize(bytes), make_error_code(kSuccess));
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "<Number type=\"int\">42</Number>");

  std::shared_ptr<IHash> hash;
  ASSERT_EQ(HashFactory::CreateFromBytes(
                hash, {'<', 'H', 'a', 's', 'h', '>', '<', '/', 'H', 'a', 's', 'h', '>'}),
            make_error_code(kSuccess));
  EXPECT_EQ(hash->GetCount(), 0u);
}

// libxml2 and the element-name tables are set up on first use; several
// threads may be the first at the same time.
TEST(ByteFormCodec, FirstUseMayComeFromManyThreadsAtOnce) {
  std::vector<std::thread> threads;
  std::vector<int> failures(4, 0);
  for (int& failed : failures) {
    threads.emplace_back([&failed] {
      for (int i = 0; i < 50; ++i) {
        std::shared_ptr<IHash> hash;
        std::shared_ptr<INumber> number;
        std::vector<uint8_t> bytes;
        failed += !Succeeded(HashFactory::Create(hash)) ||
                  !Succeeded(NumberFactory::Create(number, static_cast<long long>(i))) ||
                  !Succeeded(hash->Set("n", number)) || !Succeeded(hash->Serialize(bytes)) ||
                  !Succeeded(HashFactory::CreateFromBytes(hash, bytes)) || hash->GetCount() != 1;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures, std::vector<int>(4, 0));
}

}  // namespace
}  // namespace QelSS
