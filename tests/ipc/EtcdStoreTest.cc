#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <thread>

#include "domain/DomainTestSupport.h"
#include "ipc/ConvergenceSupport.h"
#include "ipc/EtcdTestSupport.h"
#include "ipc/RemoteTestSupport.h"
#include "ipc/ServiceTestSupport.h"

namespace QelSS {
namespace {

using namespace std::chrono_literals;
using testing::ChangeLog;
using testing::EtcdCluster;
using testing::GenerationOf;
using testing::Int;
using testing::ServiceClient;
using testing::ServiceProcess;

const std::error_code kOk = make_error_code(kSuccess);

// What every machine's service is given: one cluster key, one etcd.
class Machines {
 public:
  explicit Machines(int members) : cluster_(members) {}

  bool Start(std::vector<std::string> extra = {}) {
    int code = -1;
    (void)testing::Output({QELSS_SERVICE_BINARY, "--make-cluster-key", key_}, code);
    if (code != 0 || !cluster_.Start()) return false;
    for (int i = 0; i < 2; ++i) {
      services_.push_back(
          std::make_unique<ServiceProcess>(testing::EtcdServiceArguments(cluster_, key_, extra)));
      if (!services_.back()->Start()) return false;
    }
    return true;
  }

  // Stops both services; whether each ended cleanly (a sanitizer's report
  // makes the exit code non-zero).
  bool StoppedCleanly() {
    bool clean = true;
    for (auto& service : services_) {
      const int code = service->Stop();
      if (code == 0) continue;
      clean = false;
      std::ifstream log(service->LogPath());
      ADD_FAILURE() << "exit " << code << ":\n"
                    << std::string(std::istreambuf_iterator<char>(log), {});
    }
    return clean;
  }

  EtcdCluster& Cluster() { return cluster_; }
  ServiceProcess& A() { return *services_[0]; }
  ServiceProcess& B() { return *services_[1]; }
  const std::string& Key() const { return key_; }

  // One transaction through `service` by a client process; its exit code.
  static int Commit(ServiceProcess& service, std::vector<std::string> changes) {
    std::vector<std::string> args = {QELSS_REMOTE_CLIENT_BINARY, "commit", "prefs"};
    args.insert(args.end(), changes.begin(), changes.end());
    return testing::WaitForChild(testing::Spawn(args, service.RuntimeDir()), 30s);
  }

  // The root that `service` keeps of "prefs".
  static std::shared_ptr<IHash> Root(ServiceProcess& service) {
    SetServiceRuntimeDirectory(service.RuntimeDir());
    ServiceClient client;
    std::shared_ptr<IHash> root;
    EXPECT_EQ(client.Fetch("prefs", true, &root), kOk);
    return root;
  }

  // A copy of "prefs" kept by `service`, for this process.
  static std::shared_ptr<IDomainSetting> Open(ServiceProcess& service) {
    SetServiceRuntimeDirectory(service.RuntimeDir());
    std::shared_ptr<IDomainSetting> domain;
    EXPECT_EQ(testing::OpenRemote("prefs", domain), kOk);
    return domain;
  }

 private:
  EtcdCluster cluster_;
  testing::ScopedTempDir keys_;
  const std::string key_ = keys_ / "cluster.key";
  std::vector<std::unique_ptr<ServiceProcess>> services_;
};

bool Eventually(const std::function<bool()>& condition, std::chrono::seconds limit = 20s) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(20ms);
  }
  return true;
}

TEST(EtcdStoreTest, ACommitOnOneMachineReachesTheOthersObserversSealed) {
  Machines machines(1);
  ASSERT_TRUE(machines.Start());
  auto onB = Machines::Open(machines.B());
  ASSERT_NE(onB, nullptr);
  ChangeLog hears(*onB);

  ASSERT_EQ(Machines::Commit(machines.A(),
                             {"set", "plainly-named-key", "7", "set", "x/y", "2", "delete", "x/y"}),
            0);
  const auto heard = hears.WaitFor(1);
  ASSERT_EQ(heard.size(), 1u);
  const IObserver::ChangeList expected = {{"plainly-named-key", IObserver::Modified, Int(7)},
                                          {"x/y", IObserver::Modified, Int(2)},
                                          {"x/y", IObserver::Deleted, nullptr}};
  EXPECT_EQ(testing::ChangeListDifference(heard[0], expected), "");
  EXPECT_EQ(GenerationOf(*onB), GenerationOf(Machines::Root(machines.A())));
  EXPECT_EQ(GenerationOf(Machines::Root(machines.B())), GenerationOf(Machines::Root(machines.A())));

  // A later service finds the domain in etcd as the first ones left it.
  ServiceProcess late(testing::EtcdServiceArguments(machines.Cluster(), machines.Key()));
  ASSERT_TRUE(late.Start());
  const auto lateRoot = Machines::Root(late);
  EXPECT_EQ(GenerationOf(lateRoot), GenerationOf(*onB));

  // Keys and values in etcd show nothing of a setting.
  int code = -1;
  const std::string stored = machines.Cluster().Etcdctl({"get", "--prefix", "/qelvarin/"}, code);
  ASSERT_EQ(code, 0);
  EXPECT_NE(stored.find("/qelvarin/domains/prefs/generation"), std::string::npos) << stored;
  EXPECT_EQ(stored.find("plainly-named-key"), std::string::npos);
  EXPECT_EQ(stored.find("<Hash>"), std::string::npos);
  EXPECT_TRUE(machines.StoppedCleanly());
}

TEST(EtcdStoreTest, AServiceStartsOnlyWithAClusterThatAnswers) {
  Machines machines(1);
  ASSERT_TRUE(machines.Start());
  const std::string nowhere = "http://127.0.0.1:" + std::to_string(testing::FreePort());
  ServiceProcess lost({"--store", "etcd", "--etcd-endpoints", nowhere, "--etcd-cluster-key",
                       machines.Key(), "--etcd-dial-timeout", "0.5", "--predefines", "none"});
  EXPECT_FALSE(lost.Start());
  std::ifstream log(lost.LogPath());
  const std::string said((std::istreambuf_iterator<char>(log)), {});
  EXPECT_NE(said.find("no etcd member answered"), std::string::npos) << said;

  ServiceProcess keyless({"--store", "etcd", "--etcd-endpoints", machines.Cluster().Endpoints(),
                          "--predefines", "none"});
  EXPECT_FALSE(keyless.Start());
}

class EtcdConvergenceTest : public testing::ConvergenceTest {};

TEST_F(EtcdConvergenceTest, ClientsOfTwoMachinesEndAtOneTreeAndCount) {
  Machines machines(1);
  ASSERT_TRUE(machines.Start({"--snapshot-after", "1"}));
  const auto outcomes = Run({&machines.A(), &machines.B()}, kLoad);
  const long accepted = AcceptedAtOneGeneration(outcomes);
  EXPECT_GT(accepted, kCommitters);
  EXPECT_EQ(accepted, outcomes[0].generation);
  EXPECT_TRUE(machines.StoppedCleanly());
}

TEST_F(EtcdConvergenceTest, AKilledServiceCatchesUpFromTheClusterAndLosesNothing) {
  Machines machines(1);
  ASSERT_TRUE(machines.Start());
  const auto outcomes = Run({&machines.A(), &machines.B()}, kLoad + kLoad / 2, 2, [&](int) {
    machines.A().Kill();
    EXPECT_TRUE(machines.A().Start());
  });
  const long accepted = AcceptedAtOneGeneration(outcomes);
  EXPECT_GT(accepted, kCommitters);
  EXPECT_LE(accepted, outcomes[0].generation);
  EXPECT_TRUE(machines.StoppedCleanly());
}

TEST_F(EtcdConvergenceTest, LosingOneMemberChangesNothingAndLosingTheQuorumOnlyStopsCommits) {
  Machines machines(3);
  ASSERT_TRUE(machines.Start({"--etcd-request-timeout", "1"}));
  const auto outcomes =
      Run({&machines.A(), &machines.B()}, kLoad, 1, [&](int) { machines.Cluster().KillMember(2); });
  const long accepted = AcceptedAtOneGeneration(outcomes);
  EXPECT_GT(accepted, kCommitters);
  EXPECT_EQ(accepted, outcomes[0].generation);

  auto onB = Machines::Open(machines.B());
  ASSERT_NE(onB, nullptr);
  const int64_t before = GenerationOf(*onB);
  machines.Cluster().KillMember(1);
  auto transaction = testing::NewTransaction(*onB);
  ASSERT_EQ(transaction->Set("during", Int(1)), kOk);
  EXPECT_EQ(testing::CommitAndWait(*onB, transaction), make_error_code(kTimeout));
  // Reads go on: from the copy, and from each service's copy for a new client.
  EXPECT_EQ(GenerationOf(*onB), before);
  EXPECT_EQ(GenerationOf(Machines::Root(machines.A())), before);

  ASSERT_TRUE(machines.Cluster().StartMember(1));
  ASSERT_TRUE(machines.Cluster().StartMember(2));
  ASSERT_TRUE(machines.Cluster().WaitUntilHealthy());
  ChangeLog hears(*onB);
  EXPECT_TRUE(Eventually([&] {
    return Machines::Commit(machines.A(), {"set", "after", "2"}) == 0;
  }));
  EXPECT_TRUE(Eventually([&] { return testing::IntAt(*onB, "after") == 2; }));
  EXPECT_GE(hears.WaitFor(1).size(), 1u);
  EXPECT_EQ(GenerationOf(Machines::Root(machines.B())), GenerationOf(Machines::Root(machines.A())));
}

}  // namespace
}  // namespace QelSS
