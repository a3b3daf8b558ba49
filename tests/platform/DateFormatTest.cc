#include <gtest/gtest.h>

#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <optional>
#include <string>

#include "platform/support/DateFormat.h"

namespace QelSS::platform {
namespace {

class DateFormat : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const char* tz = std::getenv("TZ")) savedTz_ = tz;
    setenv("TZ", "UTC", 1);
    tzset();
  }
  void TearDown() override {
    std::setlocale(LC_TIME, "C");
    if (savedTz_) {
      setenv("TZ", savedTz_->c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }

  std::optional<std::string> savedTz_;
};

TEST_F(DateFormat, UsesTheLocalesDateAndTimeInLocalTime) {
  ASSERT_NE(std::setlocale(LC_TIME, "C"), nullptr);
  EXPECT_EQ(FormatLongDateTime(0), "Thu Jan  1 00:00:00 1970");
  EXPECT_EQ(FormatLongDateTime(1700000000), "Tue Nov 14 22:13:20 2023");
  EXPECT_EQ(FormatLongDateTime(-86400), "Wed Dec 31 00:00:00 1969");

  setenv("TZ", "XYZ-2", 1);  // two hours east of UTC, in POSIX notation
  tzset();
  EXPECT_EQ(FormatLongDateTime(0), "Thu Jan  1 02:00:00 1970");
}

TEST_F(DateFormat, UnrepresentableDatesFallBackToSeconds) {
  const int64_t far = std::numeric_limits<int64_t>::max();
  EXPECT_EQ(FormatLongDateTime(far), std::to_string(far));
}

}  // namespace
}  // namespace QelSS::platform
