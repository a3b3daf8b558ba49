#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "platform/support/Base64.h"

namespace {

using Bytes = std::vector<uint8_t>;

std::string Encode(const Bytes& bytes) {
  std::string text;
  EXPECT_EQ(QelBase64Encode(bytes.data(), bytes.size(), text), 0);
  return text;
}

int Decode(const std::string& text, Bytes& out) {
  return QelBase64Decode(text.data(), text.size(), out);
}

Bytes RandomBytes(size_t n) {
  std::mt19937 random(static_cast<unsigned>(n));
  Bytes bytes(n);
  for (uint8_t& b : bytes) b = static_cast<uint8_t>(random());
  return bytes;
}

TEST(Base64, StandardVectorsBothWays) {
  const std::pair<std::string, std::string> vectors[] = {{"", ""},
                                                         {"f", "Zg=="},
                                                         {"fo", "Zm8="},
                                                         {"foo", "Zm9v"},
                                                         {"foob", "Zm9vYg=="},
                                                         {"fooba", "Zm9vYmE="},
                                                         {"foobar", "Zm9vYmFy"},
                                                         {"\xfb\xff", "+/8="}};
  for (const auto& [plain, encoded] : vectors) {
    EXPECT_EQ(Encode(Bytes(plain.begin(), plain.end())), encoded);
    Bytes decoded{9, 9};
    EXPECT_EQ(Decode(encoded, decoded), 0) << encoded;
    EXPECT_EQ(decoded, Bytes(plain.begin(), plain.end())) << encoded;
  }
}

TEST(Base64, RoundTripsEveryLengthAndByteValue) {
  Bytes all(256);
  for (int i = 0; i < 256; ++i) all[i] = static_cast<uint8_t>(i);
  std::vector<Bytes> inputs{all};
  for (size_t n = 0; n < 70; ++n) inputs.push_back(RandomBytes(n));
  for (const Bytes& input : inputs) {
    const std::string text = Encode(input);
    EXPECT_EQ(text.size(), 4 * ((input.size() + 2) / 3));
    EXPECT_EQ(text.find_first_of("\r\n"), std::string::npos);
    Bytes decoded;
    ASSERT_EQ(Decode(text, decoded), 0);
    EXPECT_EQ(decoded, input);
  }
}

TEST(Base64, LargeInputsCrossInternalSlices) {
  const size_t head = 3 * (1 << 20);
  const Bytes input = RandomBytes(head + 7);
  const std::string text = Encode(input);
  // The encoding of a whole is the encodings of its 3-byte-aligned pieces joined.
  EXPECT_EQ(text, Encode(Bytes(input.begin(), input.begin() + head)) +
                      Encode(Bytes(input.begin() + head, input.end())));
  Bytes decoded;
  ASSERT_EQ(Decode(text, decoded), 0);
  EXPECT_EQ(decoded, input);
}

TEST(Base64, WhiteSpaceIsSkipped) {
  const Bytes input = RandomBytes(300);
  const std::string text = Encode(input);
  std::string broken;  // libxml2's writer style: a line break after 72 characters
  for (size_t i = 0; i < text.size(); i += 72) broken += text.substr(i, 72) + "\n";
  Bytes decoded;
  ASSERT_EQ(Decode(broken, decoded), 0);
  EXPECT_EQ(decoded, input);

  ASSERT_EQ(Decode(" \tZm9v\r\nYm\vE\f=\n", decoded), 0);
  EXPECT_EQ(decoded, (Bytes{'f', 'o', 'o', 'b', 'a'}));
  ASSERT_EQ(Decode(" \n\t ", decoded), 0);
  EXPECT_TRUE(decoded.empty());
}

TEST(Base64, RejectsBadInputAndLeavesTheOutput) {
  const std::string bad[] = {"Zm9v!A==",
                             "Zm9-",
                             "Zm9_",
                             std::string("Zm\0v", 4),
                             "Zm9vYmF\xC3\xA9",  // characters
                             "Zm9",
                             "Zm9vY",
                             "Zm9vYmFyZ",  // lengths
                             "Zg=",
                             "Z===",
                             "====",
                             "Zg==Zm9v",
                             "Zm=v",
                             "=Zm9",
                             "Zg==\nZg=="};  // padding
  for (const std::string& text : bad) {
    Bytes out{1, 2, 3};
    EXPECT_EQ(Decode(text, out), 22) << text;
    EXPECT_EQ(out, (Bytes{1, 2, 3})) << text;
  }
  Bytes out{1};
  EXPECT_EQ(QelBase64Decode(nullptr, 4, out), 22);
  EXPECT_EQ(out, Bytes{1});
  EXPECT_EQ(QelBase64Decode(nullptr, 0, out), 0);
  EXPECT_TRUE(out.empty());

  std::string text = "kept";
  EXPECT_EQ(QelBase64Encode(nullptr, 3, text), 22);
  EXPECT_EQ(text, "kept");
}

}  // namespace
