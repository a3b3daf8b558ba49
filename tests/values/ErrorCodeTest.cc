#include <gtest/gtest.h>

#include <future>
#include <system_error>

#include "qelss/platform/ErrorCode.h"
#include "qelss/values/Exceptions.h"

namespace QelSS {
namespace {

TEST(ErrorCategory, NameAndMessageAreFixed) {
  EXPECT_STREQ(make_error_code(kSuccess).category().name(), "QelSharedSettingError");
  EXPECT_EQ(make_error_code(kSuccess).message(), "QelSharedSetting Message");
  EXPECT_EQ(make_error_code(kFailure).message(), "QelSharedSetting Message");
  EXPECT_EQ(make_error_code(kNotFound).value(), 203);
}

TEST(ErrorCategory, EqualityNeedsTheSameCategory) {
  std::error_code ours = kNotFound;  // implicit conversion
  EXPECT_EQ(ours, make_error_code(kNotFound));
  EXPECT_NE(ours, std::error_code(203, std::generic_category()));
  EXPECT_NE(ours, make_error_code(kInvalidArgument));
  EXPECT_TRUE(Succeeded(kSuccess));
  EXPECT_FALSE(Succeeded(std::error_code(100, std::system_category())));
}

TEST(ErrorCategory, EnumerationNamesForTools) {
  EXPECT_EQ(ErrorCodeName(203), "kNotFound");
  EXPECT_EQ(ErrorCodeName(375), "kVerificationError");
  EXPECT_EQ(ErrorCodeName(42), "unknown");
  EXPECT_EQ(DescribeErrorCode(kNotFound), "kNotFound (203)");
  EXPECT_EQ(DescribeErrorCode(std::error_code(2, std::generic_category())), "generic (2)");
}

TEST(Exceptions, CarryCodeAndOwnMessage) {
  try {
    throw DataTypeException(make_error_code(kInvalidType), "Null: Invalid type");
  } catch (const QelException::StdErrException& e) {
    EXPECT_EQ(e.code(), make_error_code(kInvalidType));
    EXPECT_STREQ(e.what(), "Null: Invalid type");
  }
}

TEST(Exceptions, CopyThisKeepsTheMostDerivedType) {
  QelException::StdErrException* copy =
      TransactionException(make_error_code(kTransactionConflict), "conflict").copyThis();
  EXPECT_THROW(copy->deleteAndRethrow(), TransactionException);
}

}  // namespace
}  // namespace QelSS
