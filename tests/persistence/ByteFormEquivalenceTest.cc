// The byte form is written in one pass and read in one walk; the reference
// writer and reader do it element by element with libxml2, as the format was
// defined. These tests hold the two to the same bytes, trees, codes and
// reports over many random inputs.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ValueTreeSupport.h"
#include "persistence/ByteForm.h"
#include "persistence/ByteFormReference.h"
#include "platform/report/CaptureSink.h"

namespace QelSS {
namespace {

using testing::Bytes;
using testing::Dump;
using testing::ToBytes;
using testing::ValuePtr;

struct Reading {
  std::error_code code;
  std::string tree;
  std::vector<std::string> reports;
};

// Inputs run to megabytes; a failure shows their start and length.
std::string Abbreviated(const std::string& text) {
  constexpr size_t kShown = 400;
  if (text.size() <= kShown) return text;
  return text.substr(0, kShown) + "... (" + std::to_string(text.size()) + " bytes)";
}

template <typename Reader>
Reading Read(const Bytes& bytes, Reader&& reader) {
  platform::ScopedCaptureSink capture;
  ValuePtr value;
  Reading reading;
  reading.code = reader(bytes, value);
  reading.tree = Dump(value);
  reading.reports = capture->Descriptions();
  return reading;
}

void ExpectSameReading(const Bytes& bytes) {
  const Reading fast = Read(bytes, [](const Bytes& b, ValuePtr& v) { return ReadByteForm(b, v); });
  const Reading reference = Read(
      bytes, [](const Bytes& b, ValuePtr& v) { return byteform::ReadByteFormReference(b, v); });
  const std::string input = Abbreviated(std::string(bytes.begin(), bytes.end()));
  EXPECT_EQ(fast.code, reference.code) << input;
  EXPECT_EQ(Abbreviated(fast.tree), Abbreviated(reference.tree)) << input;
  EXPECT_TRUE(fast.tree == reference.tree) << input;
  EXPECT_EQ(fast.reports, reference.reports) << input;
}

TEST(ByteFormEquivalence, WritersProduceTheSameBytes) {
  testing::TreeGenerator generator(1);
  for (int i = 0; i < 3000; ++i) {
    ValuePtr tree = generator.Tree(4);
    Bytes fast = ToBytes("untouched");
    Bytes reference = fast;
    ASSERT_EQ(WriteByteForm(tree, fast), byteform::WriteValueReference(tree, reference));
    ASSERT_EQ(fast, reference) << Dump(tree);
  }
}

TEST(ByteFormEquivalence, ReadersAgreeOnWrittenTrees) {
  testing::TreeGenerator generator(2);
  int readable = 0;
  for (int i = 0; i < 1500; ++i) {
    ValuePtr tree = generator.Tree(4);
    Bytes bytes;
    ASSERT_EQ(WriteByteForm(tree, bytes), make_error_code(kSuccess));
    ExpectSameReading(bytes);
    ValuePtr back;
    if (Succeeded(ReadByteForm(bytes, back))) ++readable;
  }
  // Most trees avoid the characters that XML cannot carry.
  EXPECT_GT(readable, 1000);
}

TEST(ByteFormEquivalence, ReadersAgreeOnOddDocuments) {
  testing::XmlGenerator generator(3);
  int read = 0;
  for (int i = 0; i < 3000; ++i) {
    const Bytes bytes = ToBytes(generator.Document());
    ExpectSameReading(bytes);
    ValuePtr value;
    if (Succeeded(ReadByteForm(bytes, value))) ++read;
  }
  // Enough of them read to the end for the comparison to mean something.
  EXPECT_GT(read, 1000);
}

TEST(ByteFormEquivalence, ReadersAgreeOnDamagedByteForms) {
  testing::TreeGenerator generator(4);
  for (int i = 0; i < 1500; ++i) {
    Bytes bytes;
    ASSERT_EQ(WriteByteForm(generator.Tree(3), bytes), make_error_code(kSuccess));
    // Cut, flip or duplicate a stretch, as a damaged file would.
    const size_t at = static_cast<size_t>(generator.Pick(bytes.size()));
    switch (generator.Pick(3)) {
      case 0:
        bytes.resize(at);
        break;
      case 1:
        bytes[at] = static_cast<uint8_t>(generator.random()());
        break;
      default:
        bytes.insert(bytes.begin() + static_cast<long>(at), bytes.begin(),
                     bytes.begin() + static_cast<long>(at));
    }
    ExpectSameReading(bytes);
  }
}

// Rewrites of 10 MB or more are where libxml2's limits come in, and with them
// the position of long texts in the rewritten document; the walk has to parse
// those rewrites to know.
TEST(ByteFormEquivalence, ReadersAgreeOnValuesNearTheSizeLimits) {
  const std::string quotes(1700000, '"');  // six times longer once written again
  const std::string longText(1000, 'y');
  for (const std::string& body : {
           // One text in two nodes, whose rewrite is a single node too long for libxml2.
           "<String>" + std::string(5000000, 'x') + "<![CDATA[" + std::string(5000000, 'y') +
               "]]></String>",
           // A rewrite past 10 MB whose long text comes after that mark is refused...
           "<Array><String>" + quotes + "</String><String>" + longText + "</String></Array>",
           // ... and one whose long text comes first is taken, two levels down (where
           // the date before 1970 then fails).
           "<Array><Array><String>" + longText + "</String><String>" + quotes +
               "</String></Array><Date>-1</Date></Array>",
       }) {
    ExpectSameReading(ToBytes("<Hash><String>k</String>" + body + "</Hash>"));
  }
}

}  // namespace
}  // namespace QelSS
