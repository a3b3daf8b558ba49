// Values reach their byte form through the codec the persistence layer
// installs; this one writes the type tag and the description, and reads back
// whatever value the test put in gNextRead.
#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

#include "platform/report/CaptureSink.h"
#include "qelss/values/DataFactory.h"
#include "qelss/values/DateFactory.h"
#include "qelss/values/Exceptions.h"
#include "qelss/values/NumberFactory.h"
#include "qelss/values/UUIDFactory.h"
#include "values/ByteFormCodec.h"
#include "values/ValuesTestSupport.h"

namespace QelSS {
namespace {

using namespace QelSS::testing;
using Bytes = std::vector<uint8_t>;

enum class CodecMode { kWorks, kFails, kThrowsRuntime, kThrowsDataType };
CodecMode gMode = CodecMode::kWorks;
const IValue* gLastWritten = nullptr;
std::shared_ptr<IValue> gNextRead;

std::error_code Fail() {
  switch (gMode) {
    case CodecMode::kFails: return kSerializationError;
    case CodecMode::kThrowsRuntime: throw std::runtime_error("codec broke");
    case CodecMode::kThrowsDataType: throw DataTypeException(kInvalidData, "codec refused");
    case CodecMode::kWorks: break;
  }
  return kSuccess;
}

std::error_code TestSerialize(const std::shared_ptr<IValue>& value, Bytes& bytes) {
  if (std::error_code failure = Fail(); !Succeeded(failure)) return failure;
  gLastWritten = value.get();
  const std::string text = Describe(*value);
  bytes.assign(1, static_cast<uint8_t>(value->GetType()));
  bytes.insert(bytes.end(), text.begin(), text.end());
  return kSuccess;
}

std::error_code TestDeserialize(const Bytes&, std::shared_ptr<IValue>& value) {
  if (std::error_code failure = Fail(); !Succeeded(failure)) return failure;
  value = gNextRead;
  return kSuccess;
}

const ByteFormCodec kTestCodec{TestSerialize, TestDeserialize};

class ByteForm : public ::testing::Test {
 protected:
  void SetUp() override { InstallByteFormCodec(&kTestCodec); }
  void TearDown() override {
    InstallByteFormCodec(nullptr);
    gMode = CodecMode::kWorks;
    gNextRead.reset();
  }
  const Bytes anyBytes_{0};
};

TEST_F(ByteForm, SerializeWritesACloneOfEachKind) {
  const std::shared_ptr<IValue> values[] = {Int(-12), Text("hello"), V(Bytes{1, 2}), V(0L)};
  for (const auto& value : values) {
    Bytes bytes(40, 9);  // longer than what is written: replaced, not overwritten
    ASSERT_EQ(value->Serialize(bytes), kOk);
    const std::string text = Describe(*value);
    Bytes expected(1, static_cast<uint8_t>(value->GetType()));
    expected.insert(expected.end(), text.begin(), text.end());
    EXPECT_EQ(bytes, expected);
    EXPECT_TRUE(gLastWritten != nullptr && gLastWritten != value.get());
  }
}

TEST_F(ByteForm, FailuresLeaveTheBytesAndTheOutputAlone) {
  platform::ScopedCaptureSink capture;
  std::shared_ptr<IUUID> uuid;
  ASSERT_EQ(UUIDFactory::Create(uuid), kOk);
  std::shared_ptr<IDate> date, dateBefore;
  ASSERT_EQ(DateFactory::Create(date, 1700000000L), kOk);
  dateBefore = date;
  const std::pair<CodecMode, ErrorCode> failures[] = {
      {CodecMode::kFails, kSerializationError},
      {CodecMode::kThrowsDataType, kInvalidData},
      {CodecMode::kThrowsRuntime, kFailure},  // reported, then the generic failure
  };
  for (const auto& [mode, code] : failures) {
    gMode = mode;
    Bytes bytes{7};
    for (const std::shared_ptr<IValue>& value : {Int(5), V(Bytes{1}), std::shared_ptr<IValue>(uuid)}) {
      EXPECT_EQ(value->Serialize(bytes), make_error_code(code));
    }
    EXPECT_EQ(bytes, Bytes{7});
    EXPECT_EQ(DateFactory::CreateFromBytes(date, anyBytes_), make_error_code(code));
    EXPECT_EQ(date, dateBefore);
  }
  EXPECT_TRUE(capture->FindExceptionReport("SDAC", "CreateFromBytes"));
  EXPECT_TRUE(capture->FindExceptionReport("SSDC", "Serialize"));
  EXPECT_TRUE(capture->FindExceptionReport("SSUC", "Serialize"));

  InstallByteFormCodec(nullptr);
  gMode = CodecMode::kWorks;
  Bytes bytes{7};
  EXPECT_EQ(Int(1)->Serialize(bytes), make_error_code(kNotImplemented));
  EXPECT_EQ(DateFactory::CreateFromBytes(date, anyBytes_), make_error_code(kNotImplemented));
  EXPECT_TRUE(bytes == Bytes{7} && date == dateBefore);
}

// A read that yields a value of another kind, or none, empties the output.
TEST_F(ByteForm, CreateFromBytesKeepsOnlyItsOwnKind) {
  std::shared_ptr<INumber> number;
  std::shared_ptr<IString> string;
  std::shared_ptr<IData> data;
  std::shared_ptr<IDate> date;
  std::shared_ptr<IUUID> uuid;
  auto readAll = [&] {
    return std::vector<std::error_code>{NumberFactory::CreateFromBytes(number, anyBytes_),
                                        StringFactory::CreateFromBytes(string, anyBytes_),
                                        DataFactory::CreateFromBytes(data, anyBytes_),
                                        DateFactory::CreateFromBytes(date, anyBytes_),
                                        UUIDFactory::CreateFromBytes(uuid, anyBytes_)};
  };
  std::shared_ptr<IUUID> someUUID;
  ASSERT_EQ(UUIDFactory::Create(someUUID), kOk);
  const std::shared_ptr<IValue> reads[] = {Int(77), Text("text"), V(Bytes{3}), V(5L), someUUID};
  for (size_t kind = 0; kind < std::size(reads); ++kind) {
    gNextRead = reads[kind];
    const auto codes = readAll();
    const IValue* outputs[] = {number.get(), string.get(), data.get(), date.get(), uuid.get()};
    for (size_t i = 0; i < codes.size(); ++i) {
      EXPECT_EQ(codes[i], make_error_code(i == kind ? kSuccess : kInvalidData)) << kind << i;
      EXPECT_EQ(outputs[i], i == kind ? reads[kind].get() : nullptr) << kind << i;
    }
  }
  gNextRead.reset();
  for (const auto& code : readAll()) EXPECT_EQ(code, make_error_code(kInvalidData));
}

}  // namespace
}  // namespace QelSS
