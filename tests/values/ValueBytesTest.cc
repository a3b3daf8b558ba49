#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "qelss/values/Exceptions.h"
#include "qelss/values/INumber.h"
#include "qelss/values/IString.h"
#include "qelss/values/NumberFactory.h"
#include "qelss/values/StringFactory.h"
#include "values/ByteFormCodec.h"

namespace QelSS {
namespace {

// A small text codec standing in for the persistence layer's: "I<digits>" is
// an int64 number, "S<text>" a string; anything else reads as success without a
// value. The test switches the failure mode.
enum class CodecMode { kWorks, kFails, kThrowsRuntime, kThrowsDataType };
CodecMode gMode = CodecMode::kWorks;
const IValue* gLastWritten = nullptr;

std::error_code Fail() {
  switch (gMode) {
    case CodecMode::kFails:
      return kSerializationError;
    case CodecMode::kThrowsRuntime:
      throw std::runtime_error("codec broke");
    case CodecMode::kThrowsDataType:
      throw DataTypeException(kInvalidData, "codec refused");
    case CodecMode::kWorks:
      break;
  }
  return kSuccess;
}

std::error_code TestSerialize(const std::shared_ptr<IValue>& value, std::vector<uint8_t>& bytes) {
  if (std::error_code failure = Fail(); !Succeeded(failure)) return failure;
  gLastWritten = value.get();
  std::string text;
  if (auto string = std::dynamic_pointer_cast<IString>(value)) {
    text = std::string("S") + string->GetCString();
  } else {
    int64_t integer = 0;
    auto number = std::dynamic_pointer_cast<INumber>(value);
    if (!number || !Succeeded(number->GetInt64(integer))) return kInvalidType;
    text = "I" + std::to_string(integer);
  }
  bytes.assign(text.begin(), text.end());
  return kSuccess;
}

std::error_code TestDeserialize(const std::vector<uint8_t>& bytes, std::shared_ptr<IValue>& value) {
  if (std::error_code failure = Fail(); !Succeeded(failure)) return failure;
  if (bytes.empty()) return kInvalidArgument;
  const std::string rest(bytes.begin() + 1, bytes.end());
  std::error_code result = kFailure;
  if (bytes[0] == 'S') {
    std::shared_ptr<IString> string;
    result = StringFactory::Create(string, rest);
    value = string;
  } else if (bytes[0] == 'I') {
    std::shared_ptr<INumber> number;
    result = NumberFactory::Create(number, std::stoll(rest));
    value = number;
  } else {
    result = kSuccess;
  }
  return result;
}

const ByteFormCodec kTestCodec{TestSerialize, TestDeserialize};

std::vector<uint8_t> Bytes(const std::string& text) { return {text.begin(), text.end()}; }

class ByteForm : public ::testing::Test {
 protected:
  void SetUp() override {
    gMode = CodecMode::kWorks;
    gLastWritten = nullptr;
    InstallByteFormCodec(&kTestCodec);
  }
  void TearDown() override { InstallByteFormCodec(nullptr); }

  static std::shared_ptr<INumber> Number(long long value) {
    std::shared_ptr<INumber> number;
    EXPECT_EQ(NumberFactory::Create(number, value), make_error_code(kSuccess));
    return number;
  }
};

TEST_F(ByteForm, WithoutACodecNothingIsImplemented) {
  InstallByteFormCodec(nullptr);
  std::vector<uint8_t> bytes = Bytes("old");
  EXPECT_EQ(Number(1)->Serialize(bytes), make_error_code(kNotImplemented));
  EXPECT_EQ(bytes, Bytes("old"));
  auto before = Number(2);
  auto number = before;
  EXPECT_EQ(NumberFactory::CreateFromBytes(number, Bytes("I3")), make_error_code(kNotImplemented));
  EXPECT_EQ(number, before);
}

TEST_F(ByteForm, SerializeWritesAClone) {
  auto number = Number(-12);
  std::vector<uint8_t> bytes = Bytes("previous contents that are longer");
  ASSERT_EQ(number->Serialize(bytes), make_error_code(kSuccess));
  EXPECT_EQ(bytes, Bytes("I-12"));
  EXPECT_NE(gLastWritten, nullptr);
  EXPECT_NE(gLastWritten, number.get());

  std::shared_ptr<IString> string;
  ASSERT_EQ(StringFactory::Create(string, "hello"), make_error_code(kSuccess));
  ASSERT_EQ(string->Serialize(bytes), make_error_code(kSuccess));
  EXPECT_EQ(bytes, Bytes("Shello"));
}

TEST_F(ByteForm, SerializeFailuresLeaveTheBytesAlone) {
  auto number = Number(5);
  std::vector<uint8_t> bytes = Bytes("old");

  gMode = CodecMode::kFails;
  EXPECT_EQ(number->Serialize(bytes), make_error_code(kSerializationError));
  gMode = CodecMode::kThrowsDataType;
  EXPECT_EQ(number->Serialize(bytes), make_error_code(kInvalidData));
  gMode = CodecMode::kThrowsRuntime;  // reported, then the generic failure
  EXPECT_EQ(number->Serialize(bytes), make_error_code(kFailure));
  EXPECT_EQ(bytes, Bytes("old"));

  gMode = CodecMode::kWorks;
  std::shared_ptr<INumber> notAnInteger;
  ASSERT_EQ(NumberFactory::Create(notAnInteger, 1.5), make_error_code(kSuccess));
  EXPECT_EQ(notAnInteger->Serialize(bytes), make_error_code(kInvalidType));
  EXPECT_EQ(bytes, Bytes("old"));
}

TEST_F(ByteForm, CreateFromBytesRoundTrips) {
  auto original = Number(77);
  std::vector<uint8_t> bytes;
  ASSERT_EQ(original->Serialize(bytes), make_error_code(kSuccess));
  std::shared_ptr<INumber> number;
  ASSERT_EQ(NumberFactory::CreateFromBytes(number, bytes), make_error_code(kSuccess));
  EXPECT_TRUE(*number == *original);

  std::shared_ptr<IString> string;
  ASSERT_EQ(StringFactory::CreateFromBytes(string, Bytes("Stext")), make_error_code(kSuccess));
  EXPECT_STREQ(string->GetCString(), "text");
}

TEST_F(ByteForm, CreateFromBytesOfAnotherKindEmptiesTheOutput) {
  auto number = Number(1);
  EXPECT_EQ(NumberFactory::CreateFromBytes(number, Bytes("Sstring")),
            make_error_code(kInvalidData));
  EXPECT_EQ(number, nullptr);

  std::shared_ptr<IString> string;
  ASSERT_EQ(StringFactory::Create(string, "kept?"), make_error_code(kSuccess));
  EXPECT_EQ(StringFactory::CreateFromBytes(string, Bytes("I9")), make_error_code(kInvalidData));
  EXPECT_EQ(string, nullptr);

  // A read that succeeds without producing a value is no number either.
  number = Number(2);
  EXPECT_EQ(NumberFactory::CreateFromBytes(number, Bytes("?")), make_error_code(kInvalidData));
  EXPECT_EQ(number, nullptr);
}

TEST_F(ByteForm, CreateFromBytesReadFailuresLeaveTheOutputAlone) {
  auto before = Number(3);
  auto number = before;
  EXPECT_EQ(NumberFactory::CreateFromBytes(number, {}), make_error_code(kInvalidArgument));
  gMode = CodecMode::kFails;
  EXPECT_EQ(NumberFactory::CreateFromBytes(number, Bytes("I4")),
            make_error_code(kSerializationError));
  gMode = CodecMode::kThrowsDataType;
  EXPECT_EQ(NumberFactory::CreateFromBytes(number, Bytes("I4")), make_error_code(kInvalidData));
  gMode = CodecMode::kThrowsRuntime;
  EXPECT_EQ(NumberFactory::CreateFromBytes(number, Bytes("I4")), make_error_code(kFailure));
  EXPECT_EQ(number, before);
}

}  // namespace
}  // namespace QelSS
