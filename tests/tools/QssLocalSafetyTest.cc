// Local domains met by several processes, a damaged file or a lost key: each
// case once lost data or left the user stuck, and is named after that fault.

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "QssFixture.h"

namespace qss_test {
namespace {

constexpr int kFailure = 3;

class QssLocalSafetyTest : public QssFixture {
 protected:
  std::string KeyFile() const {
    return root_ + "/data/qelvarin/DomainSettings/com.qelvarin.QSS";
  }
};

unsigned ModeOf(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 ? (info.st_mode & 07777) : 0;
}

// Regression: `qss read` beside `qss write` loops made writes fail although
// they had landed ("cannot be written ... (2)"), and reads say there was no
// domain, because the reader promoted the writer's temporary file.
TEST_F(QssLocalSafetyTest, ReadsBesideWritesNeitherFailFalselyNorLoseKeys) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  constexpr int kWrites = 12;  // a sanitized qss process starts several times slower
#else
  constexpr int kWrites = 40;
#endif
  Succeed({"write", "c", "/init", "int", "0"});
  std::vector<Outcome> writes(kWrites), reads(2 * kWrites);
  std::thread writer([&] {
    for (int i = 0; i < kWrites; ++i) {
      writes[i] = Qss({"write", "c", "/a" + std::to_string(i), "int", std::to_string(i)});
    }
  });
  std::thread reader([&] {
    for (Outcome& read : reads) read = Qss({"read", "c", "/init"});
  });
  writer.join();
  reader.join();
  for (const Outcome& write : writes) EXPECT_EQ(write.status, 0) << write.err;
  for (const Outcome& read : reads) EXPECT_EQ(read.status, 0) << read.err;
  for (int i = 0; i < kWrites; ++i) {
    EXPECT_EQ(Succeed({"read", "c", "/a" + std::to_string(i)}), std::to_string(i) + "\n");
  }
}

// Regression: with a backup copy present, one flipped byte made `qss read`
// print the backup's older settings without a word, and the damaged file,
// mostly recoverable, was then overwritten.
TEST_F(QssLocalSafetyTest, ADamagedFileRestoredFromItsBackupIsKeptAndTold) {
  Succeed({"write", "prefs", "/old", "int", "1"});
  std::filesystem::create_directories(folder_ + "/SuccessfulImports");
  std::filesystem::copy_file(DomainFile("prefs"),
                             folder_ + "/SuccessfulImports/com.qelvarin.prefs");
  Succeed({"write", "prefs", "/new", "int", "2"});
  std::string damaged = ReadFile(DomainFile("prefs"));
  damaged[damaged.size() / 2] ^= 0x01;
  WriteFile(DomainFile("prefs"), damaged);
  const unsigned mode = ModeOf(DomainFile("prefs"));

  const Outcome read = Qss({"read", "prefs", "/old"});
  EXPECT_EQ(read.status, 0);
  EXPECT_EQ(read.out, "1\n");
  const std::string kept = DomainFile("prefs") + ".damaged-";
  EXPECT_NE(read.err.find("was damaged; the domain was restored from its backup"),
            std::string::npos)
      << read.err;
  const size_t at = read.err.find("kept as " + kept);
  ASSERT_NE(at, std::string::npos) << read.err;
  const std::string keptPath = read.err.substr(at + 8, read.err.find('\n', at) - at - 8);
  EXPECT_EQ(ReadFile(keptPath), damaged);
  EXPECT_EQ(ModeOf(keptPath), mode);

  // The restored domain is the backup's, written back in place.
  ExpectFailure(Qss({"read", "prefs", "/new"}), 2, {"no key /new"});
  EXPECT_EQ(Succeed({"read", "prefs", "/old"}), "1\n");
}

// Regression: a lost key file was silently replaced by a new key, which left
// every existing domain unreadable; and a key file that could not be read was
// blamed on the domain file.
TEST_F(QssLocalSafetyTest, AMissingOrUnreadableHostKeyIsNamedAndNotReplaced) {
  Succeed({"write", "prefs", "/a", "int", "1"});
  const std::string key = ReadFile(KeyFile());
  const std::string domain = ReadFile(DomainFile("prefs"));

  std::filesystem::remove(KeyFile());
  for (const auto& command : std::vector<std::vector<std::string>>{
           {"read", "prefs"}, {"write", "other", "/b", "int", "2"}}) {
    ExpectFailure(Qss(command), kFailure,
                  {"the host key file " + KeyFile() + " is missing", "--new-key"});
  }
  EXPECT_FALSE(Exists(KeyFile()));
  EXPECT_EQ(ReadFile(DomainFile("prefs")), domain);

  std::filesystem::create_directory(KeyFile());
  ExpectFailure(Qss({"read", "prefs"}), kFailure,
                {"the host key file " + KeyFile() + " cannot be read", "not a file"});
  std::filesystem::remove(KeyFile());

  // Starting afresh is the user's choice: the old domain stays as it was.
  const Outcome fresh = Qss({"--new-key", "write", "other", "/b", "int", "2"});
  EXPECT_EQ(fresh.status, 0) << fresh.err;
  EXPECT_NE(ReadFile(KeyFile()), key);
  EXPECT_EQ(ReadFile(DomainFile("prefs")), domain);
}

// Regression: a normal user's folders and key were given to the user's
// primary group (0770, 0640), and another account in that group read the key,
// decrypted the domains and replaced a domain file.
TEST_F(QssLocalSafetyTest, ANormalUsersFoldersAndFilesAreItsOwnAlone) {
  if (::geteuid() != 0 || !Exists("/usr/bin/setpriv")) GTEST_SKIP() << "needs root and setpriv";
  const std::string home = root_ + "/home";
  ASSERT_EQ(::chmod(root_.c_str(), 0711), 0);
  std::filesystem::create_directory(home);
  ASSERT_EQ(::chown(home.c_str(), 65534, 65534), 0);
  ASSERT_EQ(::chmod(home.c_str(), 0751), 0);
  const Outcome run =
      RunProgram("/usr/bin/setpriv",
                 {"--reuid=65534", "--regid=65534", "--clear-groups", QSS_BINARY, "write", "prefs",
                  "/a", "int", "1"},
                 {{"HOME", home}, {"XDG_DATA_HOME", ""}, {"QELSS_RUNTIME_DIR", root_ + "/run"}});
  ASSERT_EQ(run.status, 0) << run.err;
  const std::string data = home + "/.local/share/qelvarin";
  for (const std::string& folder : {home + "/.local", home + "/.local/share", data,
                                    data + "/DomainSettings", data + "/domains"}) {
    EXPECT_EQ(ModeOf(folder), 0700u) << folder;
  }
  for (const std::string& file : {data + "/DomainSettings/com.qelvarin.QSS",
                                  data + "/domains/com.qelvarin.prefs",
                                  data + "/domains/com.qelvarin.prefs.LOCK"}) {
    EXPECT_EQ(ModeOf(file), 0600u) << file;
  }
  EXPECT_EQ(ModeOf(home), 0751u) << "a folder qss did not make keeps its mode";
}

}  // namespace
}  // namespace qss_test
