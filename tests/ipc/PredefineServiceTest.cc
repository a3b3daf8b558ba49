// The service's drop folder: files there at start and files dropped while it
// runs are imported, and its clients hear them; a file still being written
// waits until it is whole.

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include <gtest/gtest.h>

#include "domain/DomainTestSupport.h"
#include "ipc/RemoteTestSupport.h"
#include "ipc/ServiceTestSupport.h"

namespace QelSS {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

const std::error_code kOk = make_error_code(kSuccess);
constexpr const char* kFile =
    "<Hash><String>a</String><Number type=\"int\">2</Number>"
    "<String>b</String><Hash><String>c</String><String>x</String></Hash></Hash>";

class PredefineServiceTest : public ::testing::Test {
 protected:
  std::string Folder(const std::string& sub) const {
    return service_.DataDir() + "/qelvarin/DomainSettings/Predefines/" + sub;
  }

  // Written beside the drop folder, then moved in whole, as an administrator's
  // `install` would.
  void DropWhole(const std::string& name) const {
    const std::string staged = Folder(name);
    std::ofstream(staged) << kFile;
    fs::permissions(staged, fs::perms::owner_read | fs::perms::owner_write);
    fs::rename(staged, Folder("Domains/" + name));
  }

  // Waits at most 10 s until `name` has been moved to SuccessfulImports.
  bool ImportedWithin(const std::string& name) const {
    for (auto deadline = std::chrono::steady_clock::now() + 10s;
         std::chrono::steady_clock::now() < deadline; std::this_thread::sleep_for(10ms)) {
      // The service makes the folder once it is up; until then it is absent.
      std::error_code absent;
      for (const auto& entry : fs::directory_iterator(Folder("SuccessfulImports"), absent)) {
        if (entry.path().filename().string().rfind(name + ".", 0) == 0) return true;
      }
    }
    return false;
  }

  std::shared_ptr<IDomainSetting> Open(const std::string& name) {
    std::shared_ptr<IDomainSetting> domain;
    EXPECT_EQ(testing::OpenRemote(name, domain), kOk);
    return domain;
  }

  testing::ServiceProcess service_{{"--sync", "none"}};
};

TEST_F(PredefineServiceTest, FilesThereAtStartAndDroppedLaterReachTheClients) {
  fs::create_directories(Folder("Domains"));
  DropWhole("com.example.early");
  ASSERT_TRUE(service_.Start());
  ASSERT_TRUE(ImportedWithin("com.example.early"));
  EXPECT_EQ(testing::IntAt(*Open("com.example.early"), "a"), 2);

  auto live = Open("com.example.live");
  testing::ChangeLog heard(*live);
  DropWhole("com.example.live.xml");
  const auto lists = heard.WaitFor(1);
  ASSERT_EQ(lists.size(), 1u);
  const IObserver::ChangeList& list = lists[0];
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(std::get<0>(list[0]), "/a");
  EXPECT_EQ(std::get<1>(list[0]), IObserver::Modified);
  EXPECT_EQ(testing::IntAt(*live, "a"), 2);
  EXPECT_EQ(std::get<0>(list[1]), "/b/c");
  EXPECT_EQ(testing::GenerationOf(*live), 1);
  // The file moves once the commit is durable, which may be after the push.
  EXPECT_TRUE(ImportedWithin("com.example.live.xml"));
  EXPECT_TRUE(fs::is_empty(Folder("Domains")));
}

TEST_F(PredefineServiceTest, AFileWrittenSlowlyIsImportedOnlyOnceWhole) {
  ASSERT_TRUE(service_.Start());
  auto domain = Open("com.example.slow");
  testing::ChangeLog heard(*domain);
  const std::string text = kFile;
  const int fd =
      ::open(Folder("Domains/com.example.slow").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_GE(fd, 0);
  for (size_t at = 0; at < text.size(); at += 40) {
    const size_t part = std::min<size_t>(40, text.size() - at);
    ASSERT_EQ(::write(fd, text.data() + at, part), static_cast<ssize_t>(part));
    std::this_thread::sleep_for(100ms);
    EXPECT_TRUE(fs::exists(Folder("Domains/com.example.slow")));
  }
  EXPECT_TRUE(fs::is_empty(Folder("FailedImports")));
  ::close(fd);
  ASSERT_TRUE(ImportedWithin("com.example.slow"));
  EXPECT_EQ(heard.WaitFor(1).size(), 1u);
  EXPECT_EQ(testing::IntAt(*domain, "a"), 2);
  EXPECT_TRUE(fs::is_empty(Folder("FailedImports")));
}

}  // namespace
}  // namespace QelSS
