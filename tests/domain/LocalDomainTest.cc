#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <optional>
#include <thread>

#include "domain/LocalDomainTestSupport.h"
#include "platform/report/CaptureSink.h"
#include "platform/support/KeepAlive.h"
#include "qelss/domain/SettingsObserver.h"
#include "qelss/values/Exceptions.h"

namespace QelSS {
namespace {

using namespace std::chrono_literals;
using platform::DispatchClock;
using platform::KeepAlive;
using testing::Commit;
using testing::IntAt;
using testing::NewTransaction;
using testing::SetNumber;

const std::error_code kOk = make_error_code(kSuccess);

// A domain "Alerts" in a fresh folder, on a disk that counts its writes. The
// test clock stands in for the ten-second waits.
class LocalDomainTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { testing::UsePrivateKeyFolder(); }

  std::shared_ptr<LocalDomainSetting> Open(bool create = true) {
    std::error_code fetched;
    auto domain = testing::OpenLocal(folder_.path(), std::make_shared<Storage>(disk_), fetched,
                                     "Alerts", create);
    EXPECT_EQ(fetched, kOk);
    return domain;
  }

  // What the domain file holds, read as another process would: a fresh domain
  // on the plain files. nullopt when it cannot be opened or lacks the path.
  std::optional<long long> OnDisk(const std::string& path, const std::string& name = "Alerts") {
    std::error_code fetched;
    auto other = testing::OpenLocal(folder_.path(), nullptr, fetched, name, false);
    return other ? IntAt(*other, path) : std::nullopt;
  }

  // Lets a tick that the clock made due run out: a read queues behind it.
  static void Settle(IDomainSetting& domain) {
    std::shared_ptr<IValue> ignored;
    (void)domain.Get("settle", ignored);
    std::this_thread::sleep_for(50ms);
    (void)domain.Get("settle", ignored);
  }

  std::string DomainFile() const { return folder_ / "com.qelvarin.alerts"; }
  std::string BackupFile() const { return folder_ / "SuccessfulImports/com.qelvarin.alerts"; }

  testing::ScopedTempDir folder_;
  std::shared_ptr<testing::DiskProbe> disk_ = std::make_shared<testing::DiskProbe>();
  platform::ScopedCaptureSink capture_;
};

TEST_F(LocalDomainTest, CommitsWithinTenSecondsCostOneWrite) {
  const unsigned long keepAlivesBefore = KeepAlive::Count();
  auto domain = Open();  // new: it is written out like a commit
  EXPECT_EQ(KeepAlive::Count(), keepAlivesBefore + 1);
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(SetNumber(*domain, "n", i), kOk);
  Settle(*domain);
  EXPECT_EQ(disk_->Writes(), 0);

  DispatchClock::AdvanceForTesting(LocalDomainSetting::kQuietPeriod);
  ASSERT_TRUE(disk_->WaitForWrites(1));
  Settle(*domain);
  EXPECT_EQ(disk_->Writes(), 1);
  EXPECT_EQ(OnDisk("n"), 999);
  EXPECT_EQ(KeepAlive::Count(), keepAlivesBefore);
}

TEST_F(LocalDomainTest, WriteWaitsForTenQuietSecondsAfterTheLastCommit) {
  auto domain = Open();
  ASSERT_EQ(domain->SaveSettings(5), kOk);
  ASSERT_EQ(disk_->Writes(), 1);

  ASSERT_EQ(SetNumber(*domain, "n", 1), kOk);
  DispatchClock::AdvanceForTesting(5s);
  Settle(*domain);
  const auto secondCommit = DispatchClock::SystemNow();
  ASSERT_EQ(SetNumber(*domain, "n", 2), kOk);
  for (int second = 0; second < 25 && disk_->Writes() < 2; ++second) {
    DispatchClock::AdvanceForTesting(1s);
    Settle(*domain);
  }
  ASSERT_EQ(disk_->Writes(), 2);
  const auto delay = disk_->WriteTimes()[1] - secondCommit;
  EXPECT_GE(delay, 10s);
  EXPECT_LE(delay, 21s);
  EXPECT_EQ(OnDisk("n"), 2);
}

TEST_F(LocalDomainTest, CommitWithoutChangesLeavesTheDomainClean) {
  auto domain = Open();
  ASSERT_EQ(domain->SaveSettings(5), kOk);
  const unsigned long keepAlives = KeepAlive::Count();

  EXPECT_EQ(Commit(*domain, NewTransaction(*domain)), kOk);
  EXPECT_EQ(KeepAlive::Count(), keepAlives);
  DispatchClock::AdvanceForTesting(LocalDomainSetting::kQuietPeriod);
  Settle(*domain);
  EXPECT_EQ(disk_->Writes(), 1);

  EXPECT_EQ(Commit(*domain, nullptr), make_error_code(kInvalidArgument));
  EXPECT_EQ(domain->CommitTransaction(NewTransaction(*domain), nullptr),
            make_error_code(kInvalidArgument));
  EXPECT_EQ(KeepAlive::Count(), keepAlives);
}

TEST_F(LocalDomainTest, SavedTreeReadsBackWithTheCountStartingAgain) {
  auto domain = Open();
  auto transaction = NewTransaction(*domain);
  ASSERT_EQ(transaction->Set("a/b/c", testing::Int(3)), kOk);
  ASSERT_EQ(transaction->Set("title", testing::Text("Hello")), kOk);
  ASSERT_EQ(transaction->Set("gone", testing::Int(0)), kOk);
  ASSERT_EQ(Commit(*domain, transaction), kOk);
  transaction = NewTransaction(*domain);
  ASSERT_EQ(transaction->Delete("gone"), kOk);
  ASSERT_EQ(Commit(*domain, transaction), kOk);
  ASSERT_EQ(domain->SaveSettings(5), kOk);
  EXPECT_EQ(disk_->Writes(), 1);
  EXPECT_EQ(testing::FileMode(DomainFile()), 0640u);

  std::error_code fetched;
  auto reopened = testing::OpenLocal(folder_.path(), nullptr, fetched, "ALERTS", false);
  ASSERT_TRUE(reopened) << fetched.value();
  std::string name;
  ASSERT_EQ(reopened->GetName(name), kOk);
  EXPECT_EQ(name, "alerts");
  EXPECT_EQ(IntAt(*reopened, "a/b/c"), 3);
  std::shared_ptr<IValue> value, expected = testing::Text("Hello");
  ASSERT_EQ(reopened->Get("title", value), kOk);
  EXPECT_TRUE(*value == *expected);
  EXPECT_EQ(reopened->Get("gone", value), make_error_code(kNotFound));
  std::shared_ptr<IHash> root;
  int64_t generation = -1;
  ASSERT_EQ(reopened->CopySettings(root), kOk);
  ASSERT_EQ(DomainRoot::GetGenerationCount(root, generation), kOk);
  EXPECT_EQ(generation, 0);
}

TEST_F(LocalDomainTest, MissingFileIsCreatedOnlyWhenAsked) {
  std::error_code fetched;
  EXPECT_FALSE(testing::OpenLocal(folder_.path(), nullptr, fetched, "Alerts", false));
  EXPECT_EQ(fetched, make_error_code(kDomainNotOpen));
  EXPECT_FALSE(std::filesystem::exists(DomainFile()));

  auto created = Open(true);
  ASSERT_TRUE(created);
  EXPECT_EQ(created->SaveSettings(5), kOk);
  EXPECT_TRUE(std::filesystem::exists(DomainFile()));
}

// Every name the domain takes must leave room for its files' suffixes.
TEST_F(LocalDomainTest, TheLongestNameTakenIsSavedAndALongerOneRefused) {
  const std::string longest(255 - std::string("com.qelvarin.xyzzyx.new").size(), 'l');
  std::error_code fetched;
  auto domain = testing::OpenLocal(folder_.path(), nullptr, fetched, longest);
  ASSERT_TRUE(domain);
  ASSERT_EQ(SetNumber(*domain, "n", 5), kOk);
  EXPECT_EQ(domain->SaveSettings(5), kOk);
  EXPECT_EQ(OnDisk("n", longest), 5);

  EXPECT_THROW(testing::OpenLocal(folder_.path(), nullptr, fetched, longest + "l"),
               QelSharedSettingsException);
}

// Flips one byte in the middle of the file, or empties it.
std::string Contents(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void Damage(const std::string& path, bool empty) {
  if (empty) {
    ASSERT_EQ(::truncate(path.c_str(), 0), 0);
    return;
  }
  std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
  file.seekg(0, std::ios::end);
  const auto middle = file.tellg() / 2;
  file.seekg(middle);
  char byte = 0;
  file.get(byte);
  file.seekp(middle);
  file.put(static_cast<char>(byte ^ 0x5a));
}

TEST_F(LocalDomainTest, DamagedFileIsReplacedByTheBackup) {
  {
    auto domain = Open();
    ASSERT_EQ(SetNumber(*domain, "n", 1), kOk);
    ASSERT_EQ(domain->SaveSettings(5), kOk);
    std::filesystem::create_directory(folder_ / "SuccessfulImports");
    std::filesystem::copy_file(DomainFile(), BackupFile());
  }
  for (bool empty : {false, true}) {
    SCOPED_TRACE(empty ? "empty file" : "flipped byte");
    {
      auto domain = Open();
      ASSERT_EQ(SetNumber(*domain, "n", 2), kOk);
    }
    ASSERT_EQ(OnDisk("n"), 2);
    Damage(DomainFile(), empty);
    const std::string damaged = Contents(DomainFile());
    capture_->Clear();
    const int writes = disk_->Writes();

    auto restored = Open();
    ASSERT_TRUE(restored);
    EXPECT_EQ(IntAt(*restored, "n"), 1);
    // The damaged file may hold newer settings: it is kept, whole and as
    // private as the domain file, before the backup is written over it.
    std::string kept;
    ASSERT_EQ(restored->DamagedFileKept(kept), kOk);
    EXPECT_EQ(kept.rfind(DomainFile() + ".damaged-", 0), 0u) << kept;
    EXPECT_EQ(Contents(kept), damaged);
    EXPECT_EQ(std::filesystem::status(kept).permissions(),
              std::filesystem::status(DomainFile()).permissions());
    EXPECT_TRUE(capture_->HasTrace("Restored from backup; the damaged file is kept as " + kept));
    auto report = capture_->FindFailureReport("LDSE", "FetchSetting");
    ASSERT_TRUE(report);
    const int64_t code = report->Code().value_or(0);
    EXPECT_TRUE(code == kCryptError || code == kVerificationError) << code;
    if (empty) {
      EXPECT_EQ(code, kCryptError);
    }
    EXPECT_TRUE(capture_->HasTrace("Reading domain from backup"));

    DispatchClock::AdvanceForTesting(LocalDomainSetting::kQuietPeriod);
    ASSERT_TRUE(disk_->WaitForWrites(writes + 1));
    EXPECT_EQ(OnDisk("n"), 1);
    EXPECT_EQ(Contents(kept), damaged);
  }
}

TEST_F(LocalDomainTest, DamagedFileWithoutBackupDoesNotOpen) {
  {
    auto domain = Open();
    ASSERT_EQ(domain->SaveSettings(5), kOk);
  }
  Damage(DomainFile(), false);
  std::error_code fetched;
  EXPECT_FALSE(testing::OpenLocal(folder_.path(), nullptr, fetched, "Alerts", true));
  EXPECT_EQ(fetched, make_error_code(kDomainNotOpen));
  auto report = capture_->FindFailureReport("LDSE", "FetchDomain");
  ASSERT_TRUE(report);
  EXPECT_TRUE(capture_->HasTrace("Failed to read backup file"));
  EXPECT_TRUE(capture_->HasTrace("FetchDomain failed (254)"));
}

// The folder is at first a plain file, so every write fails as on a read-only
// disk; later it becomes a folder.
TEST_F(LocalDomainTest, FailedWritesAreRetriedUntilTheFolderIsWritable) {
  const std::string folder = folder_ / "later";
  std::ofstream(folder) << "not a folder";
  const unsigned long keepAlivesBefore = KeepAlive::Count();
  std::error_code fetched;
  auto domain = testing::OpenLocal(folder, nullptr, fetched, "Alerts", true);
  ASSERT_TRUE(domain) << fetched.value();
  ASSERT_EQ(SetNumber(*domain, "n", 7), kOk);

  EXPECT_NE(domain->SaveSettings(5), kOk);
  EXPECT_EQ(capture_->CountFailureReports("LDSE", "SaveSettings"), 1u);
  EXPECT_TRUE(capture_->HasTrace("Failed to write settings to disk"));
  EXPECT_EQ(KeepAlive::Count(), keepAlivesBefore + 1);

  DispatchClock::AdvanceForTesting(LocalDomainSetting::kQuietPeriod);
  auto retried = [&] { return capture_->CountFailureReports("LDSE", "SaveSettings") >= 2; };
  for (int i = 0; i < 1000 && !retried(); ++i) std::this_thread::sleep_for(5ms);
  ASSERT_TRUE(retried());
  ASSERT_EQ(SetNumber(*domain, "m", 8), kOk);

  std::filesystem::remove(folder);
  std::filesystem::create_directory(folder);
  const std::string file = folder + "/com.qelvarin.alerts";
  DispatchClock::AdvanceForTesting(LocalDomainSetting::kQuietPeriod);
  for (int i = 0; i < 1000 && KeepAlive::Count() != keepAlivesBefore; ++i) {
    std::this_thread::sleep_for(5ms);
  }
  EXPECT_EQ(KeepAlive::Count(), keepAlivesBefore);
  domain.reset();
  auto reopened = testing::OpenLocal(folder, nullptr, fetched, "Alerts", false);
  ASSERT_TRUE(reopened) << fetched.value();
  EXPECT_EQ(IntAt(*reopened, "n"), 7);
  EXPECT_EQ(IntAt(*reopened, "m"), 8);
}

TEST_F(LocalDomainTest, ReleasingADirtyDomainWritesIt) {
  auto domain = Open();
  ASSERT_EQ(domain->SaveSettings(5), kOk);
  const unsigned long keepAlives = KeepAlive::Count();
  ASSERT_EQ(SetNumber(*domain, "n", 5), kOk);
  domain.reset();
  EXPECT_EQ(disk_->Writes(), 2);
  EXPECT_EQ(OnDisk("n"), 5);
  EXPECT_EQ(KeepAlive::Count(), keepAlives);

  // A write that fails on the way out is reported, and the release still ends.
  domain = Open();
  ASSERT_EQ(SetNumber(*domain, "n", 6), kOk);
  disk_->RefuseWrites(true);
  domain.reset();
  EXPECT_GE(disk_->Refused(), 1);
  EXPECT_EQ(capture_->CountFailureReports("LDSE", "SaveSettings"), 1u);
  EXPECT_EQ(KeepAlive::Count(), keepAlives);
  EXPECT_EQ(OnDisk("n"), 5);
}

TEST_F(LocalDomainTest, SaveThatOutlastsItsWaitIsReportedAndStillLands) {
  auto domain = Open();
  ASSERT_EQ(SetNumber(*domain, "n", 9), kOk);
  disk_->DelayWrites(1500ms);
  EXPECT_EQ(domain->SaveSettings(1), make_error_code(kTimeout));
  EXPECT_TRUE(capture_->HasTrace("Wait time expired"));
  EXPECT_TRUE(capture_->FindFailureReport("LDSE", "SaveSettings"));
  ASSERT_TRUE(disk_->WaitForWrites(1));
  disk_->DelayWrites(0ms);
  EXPECT_EQ(OnDisk("n"), 9);
}

// Writers, readers, observer registrations, forced saves and timer ticks all
// at once; run under the thread sanitizer too.
TEST_F(LocalDomainTest, CommitsReadsObserversAndSavesRunTogether) {
  auto domain = Open();
  constexpr int kWriters = 4;
  constexpr int kCommitsEach = 150;
  std::atomic<int> accepted{0}, unexpected{0}, delivered{0};
  std::atomic<bool> writing{true};
  std::vector<long long> lastAccepted(kWriters, -1);
  std::vector<std::thread> writers, others;
  for (int w = 0; w < kWriters; ++w) {
    writers.emplace_back([&, w] {
      const std::string key = "w" + std::to_string(w) + "/n";
      for (int i = 0; i < kCommitsEach; ++i) {
        const std::error_code result = SetNumber(*domain, key, i);
        if (result == kSuccess) {
          ++accepted;
          lastAccepted[w] = i;
        } else if (result != kTransactionConflict) {
          ++unexpected;
        }
      }
    });
  }
  others.emplace_back([&] {
    while (writing) {
      std::shared_ptr<IValue> value;
      const std::error_code read = domain->Get("w0/n", value);
      if (read != kSuccess && read != kNotFound) ++unexpected;
    }
  });
  others.emplace_back([&] {
    while (writing) {
      std::shared_ptr<SettingsObserver> observer;
      if (SettingsObserver::Create([&](const auto&, const auto&) { ++delivered; }, observer) !=
              kSuccess ||
          domain->AddObserver(nullptr, observer) != kSuccess ||
          domain->RemoveObserver(observer) != kSuccess) {
        ++unexpected;
      }
    }
  });
  others.emplace_back([&] {
    for (int round = 0; writing; ++round) {
      if (domain->SaveSettings(10) != kSuccess) ++unexpected;
      if (round % 4 == 0) DispatchClock::AdvanceForTesting(LocalDomainSetting::kQuietPeriod);
      std::this_thread::sleep_for(1ms);
    }
  });
  for (auto& writer : writers) writer.join();
  writing = false;
  for (auto& other : others) other.join();

  EXPECT_EQ(unexpected, 0);
  EXPECT_EQ(delivered, 0);  // a domain's own commits are not announced to it
  std::shared_ptr<IHash> root;
  int64_t generation = -1;
  ASSERT_EQ(domain->CopySettings(root), kOk);
  ASSERT_EQ(DomainRoot::GetGenerationCount(root, generation), kOk);
  EXPECT_EQ(generation, accepted);
  ASSERT_EQ(domain->SaveSettings(10), kOk);
  for (int w = 0; w < kWriters; ++w) {
    const std::string key = "w" + std::to_string(w) + "/n";
    auto expected = lastAccepted[w] < 0 ? std::nullopt : std::optional<long long>(lastAccepted[w]);
    EXPECT_EQ(IntAt(*domain, key), expected) << w;
    EXPECT_EQ(OnDisk(key), expected) << w;
  }
}

// The last reference may go while a tick is saving; whichever of the two ends
// last writes the domain, and neither touches it afterwards.
TEST_F(LocalDomainTest, DomainsReleasedWhileTheirTimerFires) {
  for (int i = 0; i < 20; ++i) {
    const std::string name = "released" + std::to_string(i);
    std::error_code fetched;
    auto domain =
        testing::OpenLocal(folder_.path(), std::make_shared<Storage>(disk_), fetched, name, true);
    ASSERT_TRUE(domain);
    ASSERT_EQ(SetNumber(*domain, "n", i), kOk);
    std::thread ticker([] { DispatchClock::AdvanceForTesting(LocalDomainSetting::kQuietPeriod); });
    if (i % 2) std::this_thread::sleep_for(std::chrono::microseconds(100 * i));
    std::weak_ptr<LocalDomainSetting> released = domain;
    domain.reset();
    ticker.join();
    // A tick under way may hold the domain a little longer and end it itself.
    for (int wait = 0; wait < 2000 && !released.expired(); ++wait) {
      std::this_thread::sleep_for(1ms);
    }
    ASSERT_TRUE(released.expired());
    EXPECT_EQ(OnDisk("n", name), i);
  }
}

// ---- Separate processes

struct Child {
  pid_t pid = -1;
  int output = -1;  // read end of the child's standard output
};

Child Start(std::vector<std::string> arguments) {
  int pipeFds[2];
  if (::pipe(pipeFds) != 0) return {};
  std::vector<char*> argv;
  arguments.insert(arguments.begin(), DOMAIN_CHILD_PATH);
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(pipeFds[1], STDOUT_FILENO);
    ::close(pipeFds[0]);
    ::close(pipeFds[1]);
    ::execv(argv[0], argv.data());
    ::_exit(127);
  }
  ::close(pipeFds[1]);
  return {pid, pipeFds[0]};
}

// The exit status, or -1 for a child ended by a signal.
int Finish(const Child& child) {
  int status = 0;
  ::close(child.output);
  if (::waitpid(child.pid, &status, 0) != child.pid) return -2;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int RunChild(std::vector<std::string> arguments) { return Finish(Start(std::move(arguments))); }

TEST_F(LocalDomainTest, ProcessThatExitsNormallyHasSavedItsCommits) {
  EXPECT_EQ(RunChild({"commit", folder_.path(), "Alerts", "n", "42"}), 0);
  EXPECT_EQ(OnDisk("n"), 42);

  auto domain = Open(false);
  ASSERT_TRUE(domain);
  ASSERT_EQ(SetNumber(*domain, "n", 43), kOk);
  ASSERT_EQ(domain->SaveSettings(5), kOk);
  EXPECT_EQ(RunChild({"expect", folder_.path(), "Alerts", "n", "43"}), 0);
  EXPECT_EQ(RunChild({"expect", folder_.path(), "Alerts", "n", "42"}), 5);
}

// The last reference goes on another thread, whose save exit must wait for.
TEST_F(LocalDomainTest, ProcessThatExitsDuringTheLastSaveOnAnotherThreadWaitsForIt) {
  EXPECT_EQ(RunChild({"handoff", folder_.path(), "Alerts", "n", "7"}), 0);
  EXPECT_EQ(RunChild({"expect", folder_.path(), "Alerts", "n", "7"}), 0);
}

TEST_F(LocalDomainTest, ProcessKilledWhileSavingLeavesAReadableFile) {
  Child child = Start({"churn", folder_.path(), "Alerts", "n"});
  ASSERT_GT(child.pid, 0);
  FILE* lines = ::fdopen(::dup(child.output), "r");
  ASSERT_NE(lines, nullptr);
  long long saved = -1;
  for (int i = 0; i < 30 && std::fscanf(lines, "%lld", &saved) == 1; ++i) {
  }
  ::kill(child.pid, SIGKILL);
  std::fclose(lines);
  EXPECT_EQ(Finish(child), -1);
  ASSERT_GE(saved, 0);

  auto domain = Open(false);
  ASSERT_TRUE(domain);
  auto onDisk = IntAt(*domain, "n");
  ASSERT_TRUE(onDisk);
  EXPECT_GE(*onDisk, saved);
}

}  // namespace
}  // namespace QelSS
