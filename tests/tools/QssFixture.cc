#include "QssFixture.h"

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace qss_test {

void QssFixture::SetUp() {
  std::string pattern = ::testing::TempDir() + "qss-test-XXXXXX";
  ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
  root_ = pattern;
  folder_ = root_ + "/domains";
  environment_ = {{"XDG_DATA_HOME", root_ + "/data"}, {"QELSS_RUNTIME_DIR", root_ + "/run"}};
}

void QssFixture::TearDown() {
  std::error_code ignored;
  if (!root_.empty()) std::filesystem::remove_all(root_, ignored);
}

Outcome QssFixture::Qss(const std::vector<std::string>& arguments, const std::string& input) const {
  std::vector<std::string> all = {"--folder", folder_};
  all.insert(all.end(), arguments.begin(), arguments.end());
  return RunQss(all, environment_, input);
}

Outcome QssFixture::QssPlain(const std::vector<std::string>& arguments,
                             const std::string& input) const {
  return RunQss(arguments, environment_, input);
}

std::string QssFixture::Succeed(const std::vector<std::string>& arguments,
                                const std::string& input) {
  const Outcome run = Qss(arguments, input);
  std::string command;
  for (const std::string& word : arguments) command += " " + word;
  EXPECT_EQ(run.status, 0) << "qss" << command << "\n" << run.err;
  EXPECT_EQ(run.err, "") << "qss" << command;
  return run.out;
}

std::string QssFixture::DomainFile(const std::string& domain) const {
  return folder_ + "/com.qelvarin." + domain;
}

void ExpectFailure(const Outcome& run, int status, const std::vector<std::string>& phrases) {
  EXPECT_EQ(run.status, status) << run.err;
  EXPECT_EQ(run.out, "");
  for (const std::string& phrase : phrases) {
    EXPECT_NE(run.err.find(phrase), std::string::npos) << "missing \"" << phrase << "\" in:\n"
                                                       << run.err;
  }
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
}

bool Exists(const std::string& path) { return std::filesystem::exists(path); }

}  // namespace qss_test
