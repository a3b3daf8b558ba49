#include <gtest/gtest.h>
#include <poll.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <set>

#include "domain/DomainRoot.h"
#include "domain/DomainTestSupport.h"
#include "ipc/ServiceTestSupport.h"
#include "platform/ChildProcess.h"
#include "platform/ipc/Frame.h"
#include "qelss/values/DataFactory.h"
#include "qelss/values/XPCObject.h"

namespace QelSS {
namespace {

using testing::Int;
using testing::MakeRecord;
using testing::ServiceClient;
using testing::ServiceProcess;

int64_t GenerationOf(const std::shared_ptr<IHash>& root) {
  int64_t count = -1;
  if (root != nullptr) (void)DomainRoot::GetGenerationCount(root, count);
  return count;
}

std::optional<long long> IntIn(const std::shared_ptr<IHash>& root, const std::string& key) {
  std::shared_ptr<IHash> settings;
  std::shared_ptr<IValue> value;
  int64_t read = 0;
  if (root == nullptr || DomainRoot::GetInternalSettings(root, settings) != kSuccess ||
      settings->Get(key.c_str(), value) != kSuccess) {
    return std::nullopt;
  }
  auto number = std::dynamic_pointer_cast<INumber>(value);
  if (number == nullptr || number->GetInt64(read) != kSuccess) return std::nullopt;
  return read;
}

// A raw socket to the service, for what a well-behaved client never sends.
class RawPeer {
 public:
  explicit RawPeer(const std::string& path) : fd_(::socket(AF_UNIX, SOCK_STREAM, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  }
  ~RawPeer() { ::close(fd_); }
  bool Connected() const { return connected_; }
  void Send(const std::vector<uint8_t>& bytes) {
    (void)!::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  }
  // Reads until the peer closes (true) or nothing came for `quiet` (false).
  bool ClosedWithin(std::chrono::milliseconds quiet) {
    char buffer[65536];
    for (;;) {
      pollfd p{fd_, POLLIN, 0};
      if (::poll(&p, 1, static_cast<int>(quiet.count())) <= 0) return false;
      const ssize_t n = ::recv(fd_, buffer, sizeof buffer, 0);
      if (n <= 0) return true;
    }
  }
  int fd() const { return fd_; }

 private:
  int fd_;
  bool connected_ = false;
};

std::vector<uint8_t> FrameOf(uint64_t request, xpc_object_t object) {
  std::vector<uint8_t> frame;
  EXPECT_EQ(platform::ipc::EncodeFrame(request, object, frame), kSuccess);
  return frame;
}

std::vector<uint8_t> Header(uint32_t length, uint64_t request) {
  std::vector<uint8_t> bytes;
  for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<uint8_t>(length >> (8 * i)));
  for (int i = 0; i < 8; ++i) bytes.push_back(static_cast<uint8_t>(request >> (8 * i)));
  return bytes;
}

class ServiceTest : public ::testing::Test {
 protected:
  void Start(std::vector<std::string> extra = {}) {
    service_ = std::make_unique<ServiceProcess>(std::move(extra));
    ASSERT_TRUE(service_->Start()) << "service did not start";
  }
  void Restart() { ASSERT_TRUE(service_->Start()) << "service did not restart"; }
  std::unique_ptr<ServiceProcess> service_;
};

TEST_F(ServiceTest, FetchCreatesCommitsAdvanceAndStaleCommitsMergeOrConflict) {
  Start({"--sync", "none"});
  ServiceClient client;
  ASSERT_EQ(client.InitResult().value(), 0);
  std::shared_ptr<IHash> root;
  EXPECT_EQ(client.Fetch("absent", false, &root), kDomainNotOpen);
  ASSERT_EQ(client.Fetch("Prefs", true, &root), kSuccess);
  EXPECT_EQ(GenerationOf(root), 0);

  EXPECT_EQ(client.CommitRecord("prefs", MakeRecord("prefs", 0, "a", Int(1))), kSuccess);
  EXPECT_EQ(client.CommitRecord("prefs", MakeRecord("prefs", 1, "b", Int(2))), kSuccess);
  // Made from generation 0: "c" merges, "a" collides with generation 1.
  EXPECT_EQ(client.CommitRecord("prefs", MakeRecord("prefs", 0, "c", Int(3))), kSuccess);
  EXPECT_EQ(client.CommitRecord("prefs", MakeRecord("prefs", 0, "a", Int(9))),
            kTransactionConflict);

  ASSERT_EQ(client.Fetch("PREFS", false, &root), kSuccess);
  EXPECT_EQ(GenerationOf(root), 3);
  EXPECT_EQ(IntIn(root, "a"), 1);
  EXPECT_EQ(IntIn(root, "b"), 2);
  EXPECT_EQ(IntIn(root, "c"), 3);
}

TEST_F(ServiceTest, MessagesOutsideTheVocabularyGetAnErrorReply) {
  Start({"--sync", "none"});
  ServiceClient client;
  ASSERT_EQ(client.Fetch("known", true, nullptr), kSuccess);
  struct Case {
    const char* what;
    std::string domain;
    int64_t command;
    std::shared_ptr<IHash> record;
    ErrorCode expected;
  };
  const Case cases[] = {
      {"unknown command", "known", 7, nullptr, kInvalidCommand},
      {"commit without a record", "known", 1, nullptr, kInvalidCommand},
      {"record of another domain", "known", 1, MakeRecord("other", 0, "x", Int(1)), kInvalidData},
      {"name with a slash", "a/b", 0, nullptr, kInvalidArgument},
      {"name with dots", "..", 0, nullptr, kInvalidArgument},
      {"name with a control character", "a\tb", 0, nullptr, kInvalidArgument},
      {"empty name", "", 0, nullptr, kInvalidArgument},
      {"name too long", std::string(201, 'n'), 0, nullptr, kInvalidArgument},
  };
  for (const Case& c : cases) {
    std::shared_ptr<IHash> command, response;
    ASSERT_EQ(DomainUtil::CreateCommand(c.domain, "client", c.command, true, command), kSuccess);
    if (c.record) {
      ASSERT_EQ(command->Set("DomainSettingTransaction", c.record), kSuccess);
    }
    ASSERT_EQ(client.Call(command, &response), kSuccess) << c.what;
    EXPECT_EQ(DomainUtil::GetResponseStatus(response), c.expected) << c.what;
  }
  // A message without the command entry at all.
  XPCObject bare(xpc_dictionary_create(nullptr, nullptr, 0), false);
  xpc_dictionary_set_int64(bare.Get(), "Something", 1);
  RawPeer raw(service_->SocketPath());
  raw.Send(FrameOf(5, bare.Get()));
  platform::ipc::FrameReader reader;
  platform::ipc::Frame frame;
  char buffer[4096];
  while (reader.Next(frame) != platform::ipc::FrameReader::Status::kFrame) {
    const ssize_t n = ::recv(raw.fd(), buffer, sizeof buffer, 0);
    ASSERT_GT(n, 0);
    reader.Feed({reinterpret_cast<uint8_t*>(buffer), static_cast<size_t>(n)});
  }
  EXPECT_EQ(frame.request, 5u);
  // And the service still serves.
  EXPECT_EQ(client.Fetch("known", false, nullptr), kSuccess);
}

TEST_F(ServiceTest, HostileFramesCloseOnlyTheirOwnConnection) {
  Start({"--sync", "none"});
  ServiceClient bystander;
  ASSERT_EQ(bystander.Fetch("shared", true, nullptr), kSuccess);

  std::vector<uint8_t> deep;
  for (int i = 0; i < 300; ++i) deep.insert(deep.end(), {0x0A, 1, 0, 0, 0});
  deep.push_back(0x00);
  std::vector<uint8_t> deepFrame = Header(static_cast<uint32_t>(deep.size()), 1);
  deepFrame.insert(deepFrame.end(), deep.begin(), deep.end());
  std::vector<uint8_t> junk = Header(8, 1);
  junk.insert(junk.end(), {0xFF, 0xEE, 0xDD, 0xCC, 0xBB, 0xAA, 0x99, 0x88});
  // An array that claims four billion elements and holds none.
  std::vector<uint8_t> hugeCount = Header(5, 1);
  hugeCount.insert(hugeCount.end(), {0x0A, 0xFF, 0xFF, 0xFF, 0xFF});
  std::vector<uint8_t> trailing = Header(2, 1);
  trailing.insert(trailing.end(), {0x00, 0x00});

  const std::pair<const char*, std::vector<uint8_t>> cases[] = {
      {"oversize length", Header(0xFFFFFFFF, 1)},
      {"nesting too deep", deepFrame},
      {"junk body", junk},
      {"element count beyond the bytes", hugeCount},
      {"bytes after the object", trailing},
  };
  for (const auto& [what, bytes] : cases) {
    RawPeer raw(service_->SocketPath());
    ASSERT_TRUE(raw.Connected()) << what;
    raw.Send(bytes);
    EXPECT_TRUE(raw.ClosedWithin(std::chrono::seconds(5))) << what;
  }
  {
    // Half a frame, then the peer leaves.
    RawPeer raw(service_->SocketPath());
    raw.Send(Header(1000, 1));
  }
  EXPECT_EQ(bystander.CommitRecord("shared", MakeRecord("shared", 0, "still", Int(1))), kSuccess);
}

TEST_F(ServiceTest, PushesReachEveryOtherFollowerInCommitOrderAndNeverTheCommitter) {
  Start({"--sync", "none"});
  ServiceClient committer("committer"), first("first"), second("second"), bystander("bystander");
  ASSERT_EQ(committer.Fetch("feed", true, nullptr), kSuccess);
  ASSERT_EQ(first.Fetch("feed", false, nullptr), kSuccess);
  ASSERT_EQ(second.Fetch("feed", false, nullptr), kSuccess);
  ASSERT_EQ(bystander.Fetch("elsewhere", true, nullptr), kSuccess);
  constexpr int kCommits = 20;
  for (int i = 0; i < kCommits; ++i) {
    ASSERT_EQ(committer.CommitRecord("feed", MakeRecord("feed", i, "k", Int(i))), kSuccess);
  }
  for (ServiceClient* follower : {&first, &second}) {
    auto pushes = follower->WaitForPushes(kCommits);
    ASSERT_EQ(pushes.size(), static_cast<size_t>(kCommits));
    for (int i = 0; i < kCommits; ++i) {
      std::string name, client;
      bool create = false;
      std::shared_ptr<IHash> record;
      ASSERT_EQ(DomainUtil::GetCommandInfo(pushes[i], name, client, create), kSuccess);
      ASSERT_EQ(DomainUtil::GetTransactionInfo(pushes[i], record), kSuccess);
      EXPECT_EQ(name, "feed");
      EXPECT_EQ(client, "committer");
      EXPECT_EQ(GenerationOf(record), i) << "push " << i << " out of order";
    }
  }
  // A last round trip orders everything the service sent before it.
  ASSERT_EQ(committer.Fetch("feed", false, nullptr), kSuccess);
  ASSERT_EQ(bystander.Fetch("elsewhere", false, nullptr), kSuccess);
  EXPECT_TRUE(committer.WaitForPushes(0).empty());
  EXPECT_TRUE(bystander.WaitForPushes(0).empty());
}

TEST_F(ServiceTest, AcknowledgedCommitsSurviveAKillAndATornJournalTail) {
  Start({"--sync", "full"});
  {
    ServiceClient client;
    ASSERT_EQ(client.Fetch("durable", true, nullptr), kSuccess);
    for (int i = 0; i < 20; ++i) {
      ASSERT_EQ(
          client.CommitRecord("durable", MakeRecord("durable", i, "k" + std::to_string(i), Int(i))),
          kSuccess);
    }
  }
  service_->Kill();
  // A record the crash cut short.
  const std::string journal = service_->StateDir() + "/journals/durable";
  ASSERT_GT(std::filesystem::file_size(journal), 0u);
  std::ofstream(journal, std::ios::app | std::ios::binary)
      << std::string("\x40\x00\x00\x00junk", 8);
  Restart();
  ServiceClient client;
  std::shared_ptr<IHash> root;
  ASSERT_EQ(client.Fetch("durable", false, &root), kSuccess);
  EXPECT_EQ(GenerationOf(root), 20);
  for (int i = 0; i < 20; ++i) EXPECT_EQ(IntIn(root, "k" + std::to_string(i)), i);
  EXPECT_EQ(client.CommitRecord("durable", MakeRecord("durable", 20, "after", Int(1))), kSuccess);

  // A clean stop leaves everything in the snapshot and the journal empty.
  EXPECT_EQ(service_->Stop(), 0);
  EXPECT_EQ(std::filesystem::file_size(journal), 0u);
  Restart();
  ServiceClient again;
  ASSERT_EQ(again.Fetch("durable", false, &root), kSuccess);
  EXPECT_EQ(GenerationOf(root), 21);
}

TEST_F(ServiceTest, QuietDomainsAreSnapshottedAndTheirJournalCutBack) {
  Start({"--sync", "none", "--snapshot-after", "1"});
  ServiceClient client;
  ASSERT_EQ(client.Fetch("quiet", true, nullptr), kSuccess);
  ASSERT_EQ(client.CommitRecord("quiet", MakeRecord("quiet", 0, "k", Int(1))), kSuccess);
  const std::string journal = service_->StateDir() + "/journals/quiet";
  EXPECT_GT(std::filesystem::file_size(journal), 0u);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::filesystem::file_size(journal) > 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  EXPECT_EQ(std::filesystem::file_size(journal), 0u);
  service_->Kill();
  Restart();
  std::shared_ptr<IHash> root;
  ASSERT_EQ(client.Fetch("quiet", false, &root), kConnectionError);  // the old connection died
  ServiceClient again;
  ASSERT_EQ(again.Fetch("quiet", false, &root), kSuccess);
  EXPECT_EQ(IntIn(root, "k"), 1);
}

TEST_F(ServiceTest, ServiceDeathGivesAwaitedRepliesAConnectionErrorAndInvalidates) {
  Start({"--sync", "none"});
  ServiceClient client;
  ASSERT_EQ(client.Fetch("d", true, nullptr), kSuccess);
  service_->Signal(SIGSTOP);
  std::error_code late = make_error_code(kFailure);
  std::thread caller([&] { late = client.Fetch("d", false, nullptr); });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  service_->Kill();
  caller.join();
  EXPECT_EQ(late, kConnectionError);
  EXPECT_TRUE(client.WaitForInvalidation());
  // Nothing is sent on a connection that ended.
  EXPECT_EQ(client.Fetch("d", false, nullptr), kConnectionError);
}

TEST_F(ServiceTest, ConcurrentClientProcessesHaveEveryCommitAppliedOnce) {
  Start({"--sync", "full"});
  ServiceClient watcher("watcher");
  ASSERT_EQ(watcher.Fetch("busy", true, nullptr), kSuccess);
  constexpr int kClients = 4, kEach = 25;
  std::vector<pid_t> children;
  const testing::ScopedTempDir outputs;
  for (int c = 0; c < kClients; ++c) {
    const std::string name = "c" + std::to_string(c);
    const std::string output = outputs / name;
    const pid_t pid = ::fork();
    if (pid == 0) {
      ::setenv("QELSS_RUNTIME_DIR", service_->RuntimeDir().c_str(), 1);
      ::execl(QELSS_COMMITTER_BINARY, QELSS_COMMITTER_BINARY, "busy", name.c_str(),
              std::to_string(kEach).c_str(), output.c_str(), "60", nullptr);
      ::_exit(127);
    }
    children.push_back(pid);
  }
  for (pid_t pid : children) EXPECT_EQ(testing::WaitForChild(pid, std::chrono::seconds(90)), 0);
  std::shared_ptr<IHash> root;
  ASSERT_EQ(watcher.Fetch("busy", false, &root), kSuccess);
  EXPECT_EQ(GenerationOf(root), kClients * kEach);
  for (int c = 0; c < kClients; ++c) {
    for (int i = 0; i < kEach; ++i) {
      EXPECT_EQ(IntIn(root, "c" + std::to_string(c) + "-" + std::to_string(i)), i);
    }
  }
  // The watcher heard every commit once, each client's in its own order.
  auto pushes = watcher.WaitForPushes(kClients * kEach);
  EXPECT_EQ(pushes.size(), static_cast<size_t>(kClients * kEach));
  std::map<std::string, int> nextOf;
  for (const auto& push : pushes) {
    std::string name, client;
    bool create = false;
    ASSERT_EQ(DomainUtil::GetCommandInfo(push, name, client, create), kSuccess);
    EXPECT_NE(client, "watcher");
    ++nextOf[client];
  }
  for (int c = 0; c < kClients; ++c) EXPECT_EQ(nextOf["c" + std::to_string(c)], kEach);
}

TEST_F(ServiceTest, AClientThatStopsReadingIsCutOffAndOthersKeepGoing) {
  Start({"--sync", "none"});
  ServiceClient writer("writer");
  ASSERT_EQ(writer.Fetch("big", true, nullptr), kSuccess);
  RawPeer stalled(service_->SocketPath());
  std::shared_ptr<IHash> fetch;
  ASSERT_EQ(DomainUtil::CreateCommand("big", "stalled", 0, false, fetch), kSuccess);
  xpc_object_t body = nullptr;
  ASSERT_EQ(fetch->CopyXPCObject(&body), kSuccess);
  XPCObject envelope(xpc_dictionary_create(nullptr, nullptr, 0), false);
  xpc_dictionary_set_value(envelope.Get(), "IPCCommand", body);
  xpc_release(body);
  stalled.Send(FrameOf(1, envelope.Get()));

  const std::vector<uint8_t> payload(512 * 1024, 0x5A);
  std::shared_ptr<IData> data;
  ASSERT_EQ(DataFactory::Create(data, payload.data(), payload.size()), kSuccess);
  auto slowest = std::chrono::nanoseconds::zero();
  for (int i = 0; i < 60; ++i) {
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(writer.CommitRecord("big", MakeRecord("big", i, "blob", data)), kSuccess);
    slowest = std::max(slowest, std::chrono::steady_clock::now() - start);
  }
  EXPECT_TRUE(stalled.ClosedWithin(std::chrono::seconds(5)));
  EXPECT_LT(slowest, std::chrono::seconds(2));
}

TEST_F(ServiceTest, OnlyRootAndTheSocketGroupMayConnect) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to act as another user";
  Start({"--sync", "none"});
  const std::string socket = service_->SocketPath();
  // Let others walk down to the runtime folder, which keeps them out itself.
  for (auto folder = std::filesystem::path(service_->RuntimeDir()).parent_path();
       folder != "/" && folder != folder.parent_path(); folder = folder.parent_path()) {
    if (folder == std::filesystem::temp_directory_path()) break;
    std::filesystem::permissions(folder, std::filesystem::perms::others_exec,
                                 std::filesystem::perm_options::add);
  }
  const auto result = testing::RunInChild(
      [&] {
        if (!testing::BecomeUnprivileged()) return 2;
        return testing::CanConnect(socket) ? 1 : 0;
      },
      testing::ChildExit::kImmediate);
  EXPECT_TRUE(result.exited);
  EXPECT_EQ(result.exitCode, 0) << "nobody could connect";
  EXPECT_TRUE(testing::CanConnect(socket));
}

TEST_F(ServiceTest, StartsOnASocketHandedOverBySocketActivation) {
  if (::access("/usr/bin/systemd-socket-activate", X_OK) != 0) GTEST_SKIP();
  service_ = std::make_unique<ServiceProcess>();
  const testing::ScopedTempDir state;
  std::filesystem::create_directories(service_->RuntimeDir());
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::setenv("XDG_DATA_HOME", (state / "data").c_str(), 1);
    ::execl("/usr/bin/systemd-socket-activate", "systemd-socket-activate", "-l",
            service_->SocketPath().c_str(), QELSS_SERVICE_BINARY, "--state-dir",
            (state / "state").c_str(), "--socket", "/nonexistent/never-bound", nullptr);
    ::_exit(127);
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!testing::CanConnect(service_->SocketPath()) &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  {
    ServiceClient client;
    EXPECT_EQ(client.Fetch("activated", true, nullptr), kSuccess);
  }
  ::kill(pid, SIGTERM);
  EXPECT_EQ(testing::WaitForChild(pid, std::chrono::seconds(20)), 0);
  EXPECT_TRUE(std::filesystem::exists(state / "state/domains/activated"));
}

}  // namespace
}  // namespace QelSS

namespace QelSS {
namespace {

// Lines "<i> <generation>" of a committer's output; a last line the kill cut
// short is left out.
std::vector<std::pair<long, long long>> AcknowledgedOf(const std::string& path) {
  std::ifstream in(path);
  std::vector<std::pair<long, long long>> lines;
  std::string line;
  while (std::getline(in, line)) {
    if (in.eof()) break;  // no newline: cut short
    long i = 0;
    long long generation = 0;
    if (std::sscanf(line.c_str(), "%ld %lld", &i, &generation) == 2)
      lines.emplace_back(i, generation);
  }
  return lines;
}

// The service is killed at random moments while clients commit; after each
// restart every acknowledged commit must be there and no client may see a
// count go back. QELSS_SOAK_KILLS sets the number of kills (the soak script
// runs hundreds).
TEST(ServiceKillTest, AcknowledgedCommitsSurviveKillsUnderLoad) {
  const char* fromEnvironment = std::getenv("QELSS_SOAK_KILLS");
  const int kills = fromEnvironment != nullptr ? std::atoi(fromEnvironment) : 5;
  testing::ServiceProcess service({"--sync", "full"});
  ASSERT_TRUE(service.Start());
  const testing::ScopedTempDir outputs;
  constexpr int kClients = 3;
  std::vector<pid_t> committers;
  for (int c = 0; c < kClients; ++c) {
    const std::string name = "k" + std::to_string(c), output = outputs / name;
    const pid_t pid = ::fork();
    if (pid == 0) {
      ::setenv("QELSS_RUNTIME_DIR", service.RuntimeDir().c_str(), 1);
      ::execl(QELSS_COMMITTER_BINARY, QELSS_COMMITTER_BINARY, "soak", name.c_str(), "100000000",
              output.c_str(), "3600", nullptr);
      ::_exit(127);
    }
    committers.push_back(pid);
  }
  std::srand(static_cast<unsigned>(::getpid()));
  for (int k = 0; k < kills; ++k) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20 + std::rand() % 130));
    service.Kill();
    ASSERT_TRUE(service.Start()) << "restart " << k;
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  for (pid_t pid : committers) {
    ::kill(pid, SIGKILL);
    (void)testing::WaitForChild(pid, std::chrono::seconds(10));
  }
  testing::ServiceClient reader;
  std::shared_ptr<IHash> root;
  ASSERT_EQ(reader.Fetch("soak", false, &root), kSuccess);
  size_t acknowledged = 0;
  for (int c = 0; c < kClients; ++c) {
    const std::string name = "k" + std::to_string(c);
    const auto lines = AcknowledgedOf(outputs / name);
    EXPECT_FALSE(lines.empty()) << name << " got nothing done";
    long long previous = -1;
    for (const auto& [i, generation] : lines) {
      EXPECT_EQ(IntIn(root, name + "-" + std::to_string(i)), i) << "lost: " << name << " " << i;
      EXPECT_GT(generation, previous) << name << " saw the count go back at " << i;
      previous = generation;
    }
    acknowledged += lines.size();
  }
  EXPECT_GE(GenerationOf(root), static_cast<int64_t>(acknowledged));
}

}  // namespace
}  // namespace QelSS

namespace QelSS {
namespace {

// The units as installed, with the service pointing at the binary just built:
// the service manager must accept them without a single complaint.
TEST(ServiceUnits, PassTheServiceManagersVerification) {
  if (::access("/usr/bin/systemd-analyze", X_OK) != 0) GTEST_SKIP();
  const testing::ScopedTempDir folder;
  std::ifstream service(std::string(QELSS_UNIT_DIR) + "/qelsharedsettingsd.service");
  std::ofstream copy(folder / "qelsharedsettingsd.service");
  for (std::string line; std::getline(service, line);) {
    if (line.rfind("ExecStart=", 0) == 0) {
      line = "ExecStart=" QELSS_SERVICE_BINARY + line.substr(line.find(' '));
    }
    copy << line << "\n";
  }
  copy.close();
  std::filesystem::copy_file(std::string(QELSS_UNIT_DIR) + "/qelsharedsettingsd.socket",
                             folder / "qelsharedsettingsd.socket");
  const std::string output = folder / "verify.txt";
  const std::string command = "systemd-analyze verify --man=no " +
                              (folder / "qelsharedsettingsd.socket") + " " +
                              (folder / "qelsharedsettingsd.service") + " >" + output + " 2>&1";
  EXPECT_EQ(std::system(command.c_str()), 0);
  std::ifstream complaints(output);
  const std::string text((std::istreambuf_iterator<char>(complaints)), {});
  EXPECT_EQ(text, "");
}

}  // namespace
}  // namespace QelSS
