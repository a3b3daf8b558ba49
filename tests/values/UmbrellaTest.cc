// Built against the shared library with nothing but the umbrella header, as an
// application is: a declaration missing from the header or a symbol the library
// fails to export breaks this build.
#include "qelss/QelSharedSettings.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace {

TEST(Umbrella, OneIncludeReachesValuesFactoriesHelpersAndCodes) {
  std::shared_ptr<QelSS::IHash> settings;
  ASSERT_TRUE(QelSS::Succeeded(QelSS::HashFactory::Create(settings)));
  ASSERT_TRUE(QelSS::Succeeded(QelSS::HashHelper::Set(settings, "volume", 11LL)));
  ASSERT_TRUE(QelSS::Succeeded(QelSS::HashHelper::Set(settings, "name", "studio")));

  std::shared_ptr<QelSS::IArray> recent;
  ASSERT_TRUE(QelSS::Succeeded(QelSS::ArrayFactory::Create(recent)));
  ASSERT_TRUE(QelSS::Succeeded(QelSS::ArrayHelper::AppendObject(recent, std::string("a"))));
  ASSERT_TRUE(QelSS::Succeeded(QelSS::HashHelper::Set(settings, "recent", recent)));

  long long volume = 0;
  EXPECT_TRUE(QelSS::Succeeded(QelSS::HashHelper::Get(settings, "volume", volume)));
  EXPECT_EQ(volume, 11);
  std::string name;
  EXPECT_TRUE(QelSS::Succeeded(QelSS::HashHelper::Get(settings, "name", name)));
  EXPECT_EQ(name, "studio");

  std::error_code missing = QelSS::HashHelper::Get(settings, "absent", name);
  EXPECT_EQ(missing, QelSS::make_error_code(QelSS::kNotFound));
  EXPECT_EQ(QelSS::ErrorCodeName(missing.value()), "kNotFound");
  EXPECT_EQ(missing.category().name(), std::string("QelSharedSettingError"));

  std::shared_ptr<QelSS::IValue> copy;
  ASSERT_TRUE(QelSS::Succeeded(settings->Clone(copy)));
  EXPECT_TRUE(*copy == *settings);

  try {
    throw QelSS::DataTypeException(QelSS::make_error_code(QelSS::kInvalidType), "probe");
  } catch (const QelException::StdErrException& caught) {
    EXPECT_EQ(caught.code(), QelSS::make_error_code(QelSS::kInvalidType));
  }
}

}  // namespace
