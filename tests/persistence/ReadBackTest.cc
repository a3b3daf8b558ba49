// A tree whose byte form the reader would refuse is never written: the file
// would cost the whole domain at its next reading.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "PersistenceTestSupport.h"
#include "StorageTestSupport.h"
#include "persistence/ReadBackCheck.h"
#include "platform/report/CaptureSink.h"
#include "qelss/values/ArrayFactory.h"
#include "qelss/values/DataFactory.h"
#include "qelss/values/NumberFactory.h"
#include "qelss/values/StringFactory.h"

namespace QelSS {
namespace {

using testing::MakeTree;
using testing::SameTree;

[[maybe_unused]] ::testing::Environment* const kKeyHome =
    ::testing::AddGlobalTestEnvironment(new testing::KeyHome);

std::shared_ptr<IValue> Text(const std::string& text) {
  std::shared_ptr<IString> value;
  EXPECT_EQ(StringFactory::Create(value, text), make_error_code(kSuccess));
  return value;
}

std::shared_ptr<IValue> Real(double number) {
  std::shared_ptr<INumber> value;
  EXPECT_EQ(NumberFactory::Create(value, number), make_error_code(kSuccess));
  return value;
}

// `levels` hashes inside one another, with a string at the bottom.
std::shared_ptr<IValue> Nested(int levels, const std::shared_ptr<IValue>& bottom) {
  std::shared_ptr<IValue> value = bottom;
  for (int i = 0; i < levels; ++i) {
    std::shared_ptr<IHash> hash;
    EXPECT_EQ(HashFactory::Create(hash), make_error_code(kSuccess));
    EXPECT_EQ(hash->Set("level", value), make_error_code(kSuccess));
    value = hash;
  }
  return value;
}

std::shared_ptr<IHash> TreeWith(const char* key, const std::shared_ptr<IValue>& value) {
  auto tree = MakeTree(9, 20);
  EXPECT_EQ(tree->Set(key, value), make_error_code(kSuccess));
  return tree;
}

bool Readable(const std::vector<uint8_t>& bytes) {
  std::shared_ptr<IHash> back;
  return HashFactory::CreateFromBytes(back, bytes) == kSuccess;
}

class ReadBackTest : public ::testing::Test {
 protected:
  std::string path() const { return dir_ / "settings"; }

  testing::ScopedTempDir dir_;
  Storage storage_;
};

TEST_F(ReadBackTest, UnreadableTreesAreRefusedAndTheOldFileStays) {
  const auto old = MakeTree(1, 50);
  ASSERT_EQ(testing::Write(storage_, path(), old), make_error_code(kSuccess));
  struct Case {
    const char* name;
    std::shared_ptr<IHash> tree;
  };
  const Case cases[] = {
      {"control character", TreeWith("k", Text(std::string("a\x01z")))},
      {"not UTF-8", TreeWith("k", Text("a\xff z"))},
      {"U+FFFF", TreeWith("k", Text("a\xef\xbf\xbfz"))},
      {"control character in a key", TreeWith("k\x02", Text("plain"))},
      {"nested past the parser's limit", TreeWith("k", Nested(300, Text("deep")))},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    platform::ScopedCaptureSink capture;
    EXPECT_EQ(testing::Write(storage_, path(), c.tree), make_error_code(kSerializationError));
    const auto report = capture->FindFailureReport("QSST", "WriteSettings");
    ASSERT_TRUE(report);
    EXPECT_EQ(report->Message(), "Error serializing IHash to objectBytes");
    const auto read = testing::Read(storage_, path());
    ASSERT_EQ(read.code, make_error_code(kSuccess));
    EXPECT_TRUE(SameTree(read.tree, old));
  }
}

TEST_F(ReadBackTest, UnusualButReadableTreesAreStillWritten) {
  const std::shared_ptr<IHash> trees[] = {
      TreeWith("deep", Nested(150, Text("still readable"))),
      TreeWith("huge", Real(std::numeric_limits<double>::max())),
      TreeWith("infinite", Real(std::numeric_limits<double>::infinity())),
      TreeWith("text", Text("tab\tline\r\nquote\" amp& lt< gt> \xe2\x82\xac \xf0\x9f\x99\x82")),
      TreeWith("", Text("")),
  };
  for (const auto& tree : trees) {
    ASSERT_EQ(testing::Write(storage_, path(), tree), make_error_code(kSuccess));
    const auto read = testing::Read(storage_, path());
    ASSERT_EQ(read.code, make_error_code(kSuccess));
    EXPECT_TRUE(SameTree(read.tree, tree));
  }
}

// The shortcut that skips reading back must never pass bytes the reader refuses.
TEST(PlainByteForm, WhatPassesAsPlainAlwaysReadsBack) {
  std::vector<std::shared_ptr<IHash>> trees = {
      MakeTree(3, 300),
      TreeWith("deep", Nested(kPlainDepth - 3, Text("x"))),
      TreeWith("too deep", Nested(kPlainDepth + 1, Text("x"))),
      TreeWith("nan", Real(std::nan(""))),
      TreeWith("k", Text(std::string("a\x7f\xc2\x80\xc2\x9f z"))),
      TreeWith("k", Text("\xed\xa0\x80")),  // a surrogate, which UTF-8 cannot carry
      TreeWith("k", Text("\xc0\xaf")),      // an overlong "/"
      TreeWith("k", Text(std::string("\0", 1))),
  };
  std::shared_ptr<IArray> array;
  ASSERT_EQ(ArrayFactory::Create(array), make_error_code(kSuccess));
  for (int i = 0; i < 40; ++i) ASSERT_EQ(array->Append(Nested(i % 7, Real(i))), kSuccess);
  trees.push_back(TreeWith("array", array));

  int plain = 0;
  for (const auto& tree : trees) {
    std::vector<uint8_t> bytes;
    ASSERT_EQ(tree->Serialize(bytes), make_error_code(kSuccess));
    const bool readable = Readable(bytes);
    if (IsPlainByteForm(bytes)) {
      ++plain;
      EXPECT_TRUE(readable) << std::string(bytes.begin(), bytes.end()).substr(0, 200);
    }
    EXPECT_EQ(CheckReadBack(bytes) == kSuccess, readable);
  }
  EXPECT_GE(plain, 4) << "ordinary trees take the shortcut";
}

}  // namespace
}  // namespace QelSS
