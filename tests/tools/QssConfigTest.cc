#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "QssFixture.h"

namespace qss_test {
namespace {

// The configurations domain has one file for the whole machine. The test sets
// a file that is already there aside and puts it back afterwards.
class QssConfigTest : public QssFixture {
 protected:
  static constexpr const char* kFile = "/tmp/EmbeddedDomain/CF/com.qelvarin.configurations";
  static constexpr const char* kSaved = "/tmp/EmbeddedDomain/CF/com.qelvarin.configurations.saved";

  void SetUp() override {
    QssFixture::SetUp();
    std::error_code error;
    std::filesystem::rename(kFile, kSaved, error);
    hadFile_ = !error;
    ASSERT_TRUE(hadFile_ || error == std::errc::no_such_file_or_directory) << error.message();
    setAside_ = true;
  }

  void TearDown() override {
    // When setting aside failed, the machine's file was never touched.
    std::error_code error;
    if (setAside_ && hadFile_) {
      std::filesystem::rename(kSaved, kFile, error);
    } else if (setAside_) {
      std::filesystem::remove(kFile, error);
    }
    QssFixture::TearDown();
  }

  Outcome Config(const std::vector<std::string>& arguments) const {
    std::vector<std::string> all = {"--bundles", QSS_BUNDLES, "config"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return QssPlain(all);
  }

  bool hadFile_ = false;
  bool setAside_ = false;
};

TEST_F(QssConfigTest, CurrentStartsAtThreeAndFollowsSet) {
  EXPECT_EQ(Config({"current"}).out, "3\n");
  EXPECT_EQ(Config({"set", "7"}).status, 0);
  EXPECT_EQ(Config({"current"}).out, "7\n");
  const Outcome list = Config({"list"});
  EXPECT_EQ(list.status, 0) << list.err;
  EXPECT_EQ(list.out, "3\tDefault\n");

  // "current" picks the configuration's copy of a domain.
  EXPECT_EQ(QssPlain({"--bundles", QSS_BUNDLES, "--configuration", "current", "write", "prefs",
                      "/k", "int", "7"})
                .status,
            0);
  EXPECT_EQ(QssPlain({"--configuration", "7", "read", "prefs", "/k"}).out, "7\n");
}

TEST_F(QssConfigTest, BadNumbersAndMissingBundlesAreReported) {
  ExpectFailure(Config({"set", "seven"}), 1, {"not a configuration number", "(204)"});
  ExpectFailure(Config({"set", "4294967295"}), 1, {"not a configuration number"});
  if (!Exists("/usr/share/qelvarin/bundles") && !Exists("/usr/local/share/qelvarin/bundles")) {
    ExpectFailure(QssPlain({"--bundles", InRoot("nothing"), "config", "current"}), 3,
                  {"is not installed", "kNotFound (203)", "--bundles"});
  }
  ExpectFailure(Config({}), 1, {});
}

}  // namespace
}  // namespace qss_test
