#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "domain/DomainTestSupport.h"
#include "ipc/ConvergenceSupport.h"
#include "ipc/RemoteDomainSetting.h"
#include "ipc/RemoteTestSupport.h"
#include "ipc/ServiceTestSupport.h"
#include "qelss/api/QSSDomain.h"
#include "qelss/ipc/DomainUtil.h"

namespace QelSS {
namespace {

using testing::ChangeLog;
using testing::CommitAndWait;
using testing::ConvergenceTest;
using testing::GenerationOf;
using testing::Int;
using testing::NewTransaction;
using testing::ServiceClient;
using testing::ServiceProcess;
using testing::TreeOf;

const std::error_code kOk = make_error_code(kSuccess);

class RemoteDomainTest : public ::testing::Test {
 protected:
  void SetUp() override {
    service_ = std::make_unique<ServiceProcess>(std::vector<std::string>{"--sync", "none"});
    ASSERT_TRUE(service_->Start());
  }

  std::shared_ptr<IDomainSetting> Open(const std::string& name = "prefs") {
    std::shared_ptr<IDomainSetting> domain;
    EXPECT_EQ(testing::OpenRemote(name, domain), kOk);
    return domain;
  }

  // Opened without the factory, so that the test reaches its handlers.
  std::shared_ptr<RemoteDomainSetting> OpenDirect(const std::string& name = "prefs") {
    auto domain = std::make_shared<RemoteDomainSetting>(name, true, "com.example.direct");
    testing::Awaited<std::error_code> fetched;
    EXPECT_EQ(domain->FetchSettings([&](std::error_code code) { fetched.Set(code); }), kOk);
    EXPECT_EQ(fetched.Wait(make_error_code(kTimeout)), kOk);
    return domain;
  }

  // Commits through another process, as another application would.
  int CommitElsewhere(std::vector<std::string> changes, const std::string& name = "prefs") {
    std::vector<std::string> args = {QELSS_REMOTE_CLIENT_BINARY, "commit", name};
    args.insert(args.end(), changes.begin(), changes.end());
    return testing::WaitForChild(testing::Spawn(args, service_->RuntimeDir()),
                                 std::chrono::seconds(30));
  }

  std::shared_ptr<IHash> ServiceRoot(const std::string& name = "prefs") {
    ServiceClient client;
    std::shared_ptr<IHash> root;
    EXPECT_EQ(client.Fetch(name, true, &root), kOk);
    return root;
  }

  static std::shared_ptr<IHash> PushOf(const std::string& name,
                                       const std::shared_ptr<IHash>& record) {
    std::shared_ptr<IHash> push;
    EXPECT_EQ(DomainUtil::CreateCommand(name, "com.example.other", DomainUtil::kCommandCommit, true,
                                        push),
              kOk);
    EXPECT_EQ(push->Set("DomainSettingTransaction", record), kOk);
    return push;
  }

  std::unique_ptr<ServiceProcess> service_;
};

TEST_F(RemoteDomainTest, CommitsReachTheServiceAndEveryOtherCopyInOrder) {
  auto first = Open();
  auto second = Open();
  ChangeLog firstHears(*first);
  ChangeLog secondHears(*second);

  auto transaction = NewTransaction(*first);
  ASSERT_EQ(transaction->Set("/a", Int(1)), kOk);
  ASSERT_EQ(transaction->Set("b/c", Int(2)), kOk);
  ASSERT_EQ(transaction->Set("gone", Int(3)), kOk);
  ASSERT_EQ(transaction->Delete("gone"), kOk);
  ASSERT_EQ(CommitAndWait(*first, transaction), kOk);
  EXPECT_EQ(GenerationOf(*first), 1);
  EXPECT_EQ(testing::IntAt(*first, "b/c"), 2);

  auto lists = secondHears.WaitFor(1);
  ASSERT_EQ(lists.size(), 1u);
  ASSERT_EQ(lists[0].size(), 4u);
  EXPECT_EQ(std::get<0>(lists[0][0]), "/a");
  EXPECT_EQ(std::get<1>(lists[0][0]), IObserver::Modified);
  EXPECT_EQ(std::get<0>(lists[0][1]), "b/c");
  EXPECT_EQ(std::get<0>(lists[0][2]), "gone");
  EXPECT_EQ(std::get<0>(lists[0][3]), "gone");
  EXPECT_EQ(std::get<1>(lists[0][3]), IObserver::Deleted);
  EXPECT_EQ(std::get<2>(lists[0][3]), nullptr);

  auto removal = NewTransaction(*second);
  ASSERT_EQ(removal->Delete("a"), kOk);
  ASSERT_EQ(CommitAndWait(*second, removal), kOk);
  ASSERT_EQ(firstHears.WaitFor(1).size(), 1u);
  EXPECT_FALSE(testing::IntAt(*first, "a"));
  // Each copy heard only the other's commit, never its own.
  EXPECT_EQ(secondHears.Lists().size(), 1u);
  EXPECT_EQ(GenerationOf(*first), 2);
  EXPECT_EQ(GenerationOf(*second), 2);
  EXPECT_TRUE(*TreeOf(*first) == *TreeOf(*second));
  std::shared_ptr<IHash> serviceTree;
  ASSERT_EQ(DomainRoot::GetInternalSettings(ServiceRoot(), serviceTree), kOk);
  EXPECT_TRUE(*TreeOf(*first) == *serviceTree);
}

TEST_F(RemoteDomainTest, ObserversHearAnotherProcessCommit) {
  auto domain = Open();
  ChangeLog twice(*domain);
  ASSERT_EQ(domain->AddObserver(nullptr, twice.Observer()), kOk);
  ChangeLog once(*domain);
  auto expired = std::make_unique<ChangeLog>(*domain);
  std::weak_ptr<SettingsObserver> expiredObserver = expired->Observer();
  expired.reset();
  ASSERT_TRUE(expiredObserver.expired());
  ChangeLog removed(*domain);
  ASSERT_EQ(domain->RemoveObserver(removed.Observer()), kOk);

  ASSERT_EQ(CommitElsewhere({"set", "x", "1", "set", "y", "2", "delete", "y", "set", "z/w", "3"}),
            0);
  ASSERT_EQ(twice.WaitFor(2).size(), 2u);
  const auto heard = once.WaitFor(1);
  ASSERT_EQ(heard.size(), 1u);
  const IObserver::ChangeList expected = {{"x", IObserver::Modified, Int(1)},
                                          {"y", IObserver::Modified, Int(2)},
                                          {"y", IObserver::Deleted, nullptr},
                                          {"z/w", IObserver::Modified, Int(3)}};
  EXPECT_EQ(testing::ChangeListDifference(heard[0], expected), "");
  EXPECT_TRUE(removed.Lists().empty());
  EXPECT_EQ(testing::IntAt(*domain, "z/w"), 3);
}

TEST_F(RemoteDomainTest, CommitsThatSendNothingOrAreRefusedLeaveTheCopyAlone) {
  auto domain = OpenDirect();
  // No changes: answered before the call returns, nothing sent.
  bool answered = false;
  ASSERT_EQ(domain->CommitTransaction(NewTransaction(*domain),
                                      [&](std::error_code code) { answered = code == kOk; }),
            kOk);
  EXPECT_TRUE(answered);

  // A record this copy applies but the service is not at yet: the service
  // refuses the next commit made from it.
  domain->OnPushedMessage(PushOf("prefs", testing::MakeRecord("prefs", 0, "ghost", Int(1))));
  ASSERT_TRUE(domain->WaitUntilSettled(std::chrono::seconds(10)));
  ASSERT_EQ(GenerationOf(*domain), 1);
  auto ahead = NewTransaction(*domain);
  ASSERT_EQ(ahead->Set("k", Int(5)), kOk);
  EXPECT_EQ(CommitAndWait(*domain, ahead), make_error_code(kTransactionConflict));
  EXPECT_EQ(GenerationOf(*domain), 1);
  EXPECT_FALSE(testing::IntAt(*domain, "k"));
  EXPECT_EQ(testing::IntAt(*domain, "ghost"), 1);
  EXPECT_EQ(GenerationOf(ServiceRoot()), 0);
}

TEST_F(RemoteDomainTest, PushesBeforeTheFirstFetchAreDropped) {
  auto domain = std::make_shared<RemoteDomainSetting>("prefs", true, "com.example.direct");
  domain->OnPushedMessage(PushOf("prefs", testing::MakeRecord("prefs", 0, "early", Int(1))));
  ASSERT_TRUE(domain->WaitUntilSettled(std::chrono::seconds(10)));
  EXPECT_EQ(domain->CurrentState(), RemoteDomainSetting::kNew);
  EXPECT_EQ(GenerationOf(*domain), 0);
  EXPECT_FALSE(testing::IntAt(*domain, "early"));
}

TEST_F(RemoteDomainTest, APushThatDoesNotFitMakesTheCopyFetchAgain) {
  auto domain = OpenDirect();
  ChangeLog hears(*domain);
  // Made before anything changes: with the history of the next generation it
  // could merge; once a fetch has replaced the copy it cannot.
  auto older = NewTransaction(*domain);
  ASSERT_EQ(older->Set("unrelated", Int(1)), kOk);

  // This copy believes in a change the service never made...
  domain->OnPushedMessage(PushOf("prefs", testing::MakeRecord("prefs", 0, "ghost", Int(1))));
  ASSERT_EQ(hears.WaitFor(1).size(), 1u);
  // ...so another client's real change to the same key collides with it.
  ASSERT_EQ(CommitElsewhere({"set", "ghost", "2"}), 0);
  const auto lists = hears.WaitFor(2);
  ASSERT_TRUE(domain->WaitUntilSettled(std::chrono::seconds(10)));
  EXPECT_EQ(domain->CurrentState(), RemoteDomainSetting::kReady);
  // The fetch replaced the copy and told the observers the difference.
  ASSERT_EQ(lists.size(), 2u);
  ASSERT_EQ(lists[1].size(), 1u);
  EXPECT_EQ(std::get<0>(lists[1][0]), "ghost");
  EXPECT_TRUE(*std::get<2>(lists[1][0]) == *Int(2));
  EXPECT_EQ(GenerationOf(*domain), 1);
  std::shared_ptr<IHash> serviceTree;
  ASSERT_EQ(DomainRoot::GetInternalSettings(ServiceRoot(), serviceTree), kOk);
  EXPECT_TRUE(*TreeOf(*domain) == *serviceTree);
  EXPECT_EQ(CommitAndWait(*domain, older), make_error_code(kTransactionConflict));

  // Pushes apply again.
  ASSERT_EQ(CommitElsewhere({"set", "after", "3"}), 0);
  EXPECT_EQ(hears.WaitFor(3).size(), 3u);
  EXPECT_EQ(testing::IntAt(*domain, "after"), 3);
}

TEST_F(RemoteDomainTest, ADomainDestroyedWithAFetchUnderWayHearsOfItOnce) {
  service_->Signal(SIGSTOP);
  auto fetched = std::make_shared<testing::Awaited<std::error_code>>();
  {
    auto domain = std::make_shared<RemoteDomainSetting>("prefs", true, "com.example.direct");
    ASSERT_EQ(domain->FetchSettings([fetched](std::error_code code) { fetched->Set(code); }), kOk);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  service_->Signal(SIGCONT);
  EXPECT_EQ(fetched->Wait(make_error_code(kTimeout)), make_error_code(kConnectionError));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(fetched->Calls(), 1);
}

TEST_F(RemoteDomainTest, TheFacadeWorksOnADomainOfTheService) {
  std::shared_ptr<QSSDomain> facade;
  ASSERT_EQ(QSSDomain::Create(facade, "prefs", "com.example.facade", nullptr, false), kOk);
  ASSERT_EQ(facade->SetCommit("/volume", 7LL), kOk);
  long long volume = 0;
  ASSERT_EQ(facade->Get("/volume", volume), kOk);
  EXPECT_EQ(volume, 7);
  EXPECT_EQ(facade->Save(5), kOk);
  auto other = Open();
  EXPECT_EQ(testing::IntAt(*other, "volume"), 7);

  service_->Stop();
  std::shared_ptr<QSSDomain> refused;
  const auto started = std::chrono::steady_clock::now();
  EXPECT_EQ(QSSDomain::Create(refused, "prefs", "com.example.facade", nullptr, false),
            make_error_code(kConnectionError));
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
  EXPECT_EQ(facade->SetCommit("/volume", 8LL), make_error_code(kConnectionError));
}

TEST_F(RemoteDomainTest, ACopyReconnectsAfterTheServiceRestartsAndMissesNothing) {
  auto domain = Open();
  ChangeLog hears(*domain);
  ASSERT_EQ(CommitElsewhere({"set", "before", "1"}), 0);
  ASSERT_EQ(hears.WaitFor(1).size(), 1u);

  service_->Kill();
  ASSERT_TRUE(service_->Start());
  // Whether this arrives as a push or as the difference a new fetch finds,
  // the observer hears it.
  ASSERT_EQ(CommitElsewhere({"set", "during", "2", "delete", "before"}), 0);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (testing::IntAt(*domain, "during") != 2 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(testing::IntAt(*domain, "during"), 2);
  auto heard = hears.WaitFor(2);
  ASSERT_GE(heard.size(), 2u);
  auto replayed = TreeOf(*domain);
  replayed->RemoveAll();
  testing::Replay(replayed, heard);
  EXPECT_TRUE(*replayed == *TreeOf(*domain));

  auto transaction = NewTransaction(*domain);
  ASSERT_EQ(transaction->Set("after", Int(3)), kOk);
  EXPECT_EQ(CommitAndWait(*domain, transaction), kOk);
  EXPECT_EQ(GenerationOf(*domain), GenerationOf(ServiceRoot()));
}

TEST_F(RemoteDomainTest, ACopyTheServiceCannotServeForAWhileAsksAgainUntilItCan) {
  auto domain = Open();
  ChangeLog hears(*domain);
  ASSERT_EQ(CommitElsewhere({"set", "before", "1"}), 0);
  ASSERT_EQ(hears.WaitFor(1).size(), 1u);

  // The service stops with the domain in its snapshot; with the snapshot
  // damaged, the service that comes back refuses the domain to everyone.
  ASSERT_EQ(service_->Stop(), 0);
  const std::filesystem::path snapshot = service_->StateDir() + "/domains/prefs";
  const std::filesystem::path kept = snapshot.string() + ".kept";
  std::filesystem::rename(snapshot, kept);
  std::ofstream(snapshot) << "not a domain";
  ASSERT_TRUE(service_->Start());
  EXPECT_NE(ServiceClient().Fetch("prefs", true, nullptr), kOk);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // refused fetches
  std::filesystem::rename(kept, snapshot);

  ASSERT_EQ(CommitElsewhere({"set", "after", "2"}), 0);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (testing::IntAt(*domain, "after") != 2 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(testing::IntAt(*domain, "after"), 2);
  EXPECT_EQ(GenerationOf(*domain), GenerationOf(ServiceRoot()));
}

TEST_F(ConvergenceTest, EveryCopyEndsAsTheServiceWithEveryCommitAppliedOnce) {
  ServiceProcess service({"--sync", "none"});
  ASSERT_TRUE(service.Start());
  const auto outcomes = Run({&service}, kLoad);
  const long accepted = AcceptedAtOneGeneration(outcomes);
  EXPECT_GT(accepted, kCommitters);
  EXPECT_EQ(accepted, outcomes[0].generation);
}

TEST_F(ConvergenceTest, CopiesConvergeAndKeepEveryAcknowledgedCommitThroughServiceKills) {
  ServiceProcess service;
  ASSERT_TRUE(service.Start());
  const auto outcomes = Run({&service}, kLoad + kLoad / 2, 3, [&](int) {
    service.Kill();
    EXPECT_TRUE(service.Start());
  });
  const long accepted = AcceptedAtOneGeneration(outcomes);
  EXPECT_GT(accepted, kCommitters);
  // Commits the service made durable but could not acknowledge before dying
  // count as well.
  EXPECT_LE(accepted, outcomes[0].generation);
}

}  // namespace
}  // namespace QelSS
