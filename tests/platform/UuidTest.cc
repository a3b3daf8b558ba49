#include <gtest/gtest.h>

#include <cctype>
#include <string>

#include "platform/support/Uuid.h"

namespace QelSS::platform {
namespace {

TEST(Uuid, RandomUuidsAreVersionFourWithUpperCaseCanonicalText) {
  const UuidBytes a = NewRandomUuid();
  EXPECT_NE(a, NewRandomUuid());
  EXPECT_EQ(a[6] >> 4, 4);
  EXPECT_EQ(a[8] & 0xC0, 0x80);
  const std::string text = UuidToString(a);
  ASSERT_EQ(text.size(), 36u);
  for (size_t i = 0; i < text.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    EXPECT_TRUE(dash ? text[i] == '-' : std::isdigit(text[i]) || (text[i] >= 'A' && text[i] <= 'F'))
        << text;
  }

  UuidBytes bytes;
  for (int i = 0; i < 16; ++i) bytes[i] = static_cast<uint8_t>(i * 17 + 10);
  EXPECT_EQ(UuidToString(bytes), "0A1B2C3D-4E5F-7081-92A3-B4C5D6E7F809");
}

TEST(Uuid, ParseAcceptsEitherCaseAndRejectsAnythingElse) {
  const UuidBytes original = NewRandomUuid();
  UuidBytes parsed{};
  ASSERT_TRUE(ParseUuid(UuidToString(original), parsed));
  EXPECT_EQ(parsed, original);
  ASSERT_TRUE(ParseUuid("0a1b2c3d-4e5f-7081-92a3-b4c5d6e7f809", parsed));
  EXPECT_EQ(UuidToString(parsed), "0A1B2C3D-4E5F-7081-92A3-B4C5D6E7F809");

  const std::string bad[] = {"",
                             "0A1B2C3D-4E5F-7081-92A3-B4C5D6E7F80",
                             "0A1B2C3D-4E5F-7081-92A3-B4C5D6E7F8090",
                             "0A1B2C3D-4E5F-7081-92A3-B4C5D6E7F80G",
                             "0A1B2C3D4-E5F-7081-92A3-B4C5D6E7F809",
                             std::string("0A1B2C3D-4E5F-7081-92A3-B4C5D6E7F80\0", 36)};
  for (const std::string& text : bad) {
    UuidBytes untouched{0x5A};
    EXPECT_FALSE(ParseUuid(text, untouched)) << text;
    EXPECT_EQ(untouched[0], 0x5A);
  }
}

}  // namespace
}  // namespace QelSS::platform
