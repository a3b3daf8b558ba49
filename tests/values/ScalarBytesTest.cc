#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <vector>

#include "platform/report/CaptureSink.h"
#include "qelss/values/DataFactory.h"
#include "qelss/values/DateFactory.h"
#include "qelss/values/UUIDFactory.h"
#include "values/ByteFormCodec.h"

namespace QelSS {
namespace {

// Stands in for the persistence layer's codec: writes the value's type tag as
// one byte and reads back whatever value the test put in gNextRead, or throws.
bool gThrows = false;
std::shared_ptr<IValue> gNextRead;

std::error_code TestSerialize(const std::shared_ptr<IValue>& value, std::vector<uint8_t>& bytes) {
  if (gThrows) throw std::runtime_error("codec broke");
  bytes.assign(1, static_cast<uint8_t>(value->GetType()));
  return kSuccess;
}

std::error_code TestDeserialize(const std::vector<uint8_t>&, std::shared_ptr<IValue>& value) {
  if (gThrows) throw std::runtime_error("codec broke");
  value = gNextRead;
  return kSuccess;
}

const ByteFormCodec kTestCodec{TestSerialize, TestDeserialize};

class ScalarByteForm : public ::testing::Test {
 protected:
  void SetUp() override {
    gThrows = false;
    InstallByteFormCodec(&kTestCodec);
    const unsigned char bytes[] = {1, 2};
    ASSERT_EQ(DataFactory::Create(data_, bytes, sizeof bytes), make_error_code(kSuccess));
    ASSERT_EQ(DateFactory::Create(date_, 1700000000L), make_error_code(kSuccess));
    ASSERT_EQ(UUIDFactory::Create(uuid_), make_error_code(kSuccess));
  }
  void TearDown() override {
    InstallByteFormCodec(nullptr);
    gNextRead.reset();
  }

  std::shared_ptr<IData> data_;
  std::shared_ptr<IDate> date_;
  std::shared_ptr<IUUID> uuid_;
  const std::vector<uint8_t> anyBytes_{0};
};

TEST_F(ScalarByteForm, SerializeWritesEachKind) {
  std::vector<uint8_t> bytes{9, 9, 9};
  ASSERT_EQ(data_->Serialize(bytes), make_error_code(kSuccess));
  EXPECT_EQ(bytes, std::vector<uint8_t>{kValueTypeData});
  ASSERT_EQ(date_->Serialize(bytes), make_error_code(kSuccess));
  EXPECT_EQ(bytes, std::vector<uint8_t>{kValueTypeDate});
  ASSERT_EQ(uuid_->Serialize(bytes), make_error_code(kSuccess));
  EXPECT_EQ(bytes, std::vector<uint8_t>{kValueTypeUUID});
}

TEST_F(ScalarByteForm, CreateFromBytesKeepsOnlyItsOwnKind) {
  std::shared_ptr<IData> data;
  gNextRead = data_;
  ASSERT_EQ(DataFactory::CreateFromBytes(data, anyBytes_), make_error_code(kSuccess));
  EXPECT_EQ(data, data_);
  EXPECT_EQ(DateFactory::CreateFromBytes(date_, anyBytes_), make_error_code(kInvalidData));
  EXPECT_EQ(date_, nullptr);  // overwritten even though the cast failed

  std::shared_ptr<IUUID> uuid;
  gNextRead = uuid_;
  ASSERT_EQ(UUIDFactory::CreateFromBytes(uuid, anyBytes_), make_error_code(kSuccess));
  EXPECT_EQ(uuid, uuid_);
  EXPECT_EQ(DataFactory::CreateFromBytes(data, anyBytes_), make_error_code(kInvalidData));
  EXPECT_EQ(data, nullptr);

  std::shared_ptr<IDate> date;
  ASSERT_EQ(DateFactory::Create(date, 0L), make_error_code(kSuccess));
  gNextRead = date;
  EXPECT_EQ(UUIDFactory::CreateFromBytes(uuid, anyBytes_), make_error_code(kInvalidData));
  EXPECT_EQ(uuid, nullptr);
}

TEST_F(ScalarByteForm, CodecExceptionsAreReportedUnderTheKindsTag) {
  platform::ScopedCaptureSink capture;
  gThrows = true;
  auto date = date_;
  EXPECT_EQ(DateFactory::CreateFromBytes(date, anyBytes_), make_error_code(kFailure));
  EXPECT_EQ(date, date_);
  std::vector<uint8_t> bytes{7};
  EXPECT_EQ(data_->Serialize(bytes), make_error_code(kFailure));
  EXPECT_EQ(uuid_->Serialize(bytes), make_error_code(kFailure));
  EXPECT_EQ(bytes, std::vector<uint8_t>{7});
  EXPECT_TRUE(capture->FindExceptionReport("SDAC", "CreateFromBytes"));
  EXPECT_TRUE(capture->FindExceptionReport("SSDC", "Serialize"));
  EXPECT_TRUE(capture->FindExceptionReport("SSUC", "Serialize"));
}

}  // namespace
}  // namespace QelSS
