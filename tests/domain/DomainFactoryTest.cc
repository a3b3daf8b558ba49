#include "domain/DomainFactory.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <thread>
#include <vector>

#include "domain/LocalDomainTestSupport.h"
#include "platform/report/CaptureSink.h"

namespace QelSS {
namespace {

const std::error_code kOk = make_error_code(kSuccess);

// Every call of an open's completion, in order.
struct Outcome {
  std::shared_ptr<IDomainSetting> domain;
  std::error_code code;
};

class DomainFactoryTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { testing::UsePrivateKeyFolder(); }

  // Through `factory`, or the library's own when null.
  std::vector<Outcome> OpenDomain(const std::string& name, bool local = true, bool create = true,
                                  std::shared_ptr<IDomainFactory> factory = nullptr) {
    std::vector<Outcome> outcomes;
    if (!factory) factory = GetDomainFactory(nullptr);
    EXPECT_TRUE(factory);
    if (!factory) return outcomes;
    factory->OpenDomain(
        Configuration{folder_.path(), local}, name, "factory-test",
        [&](std::shared_ptr<IDomainSetting>& domain, std::error_code code) {
          outcomes.push_back({domain, code});
        },
        create);
    return outcomes;
  }

  testing::ScopedTempDir folder_;
  platform::ScopedCaptureSink capture_;
};

TEST_F(DomainFactoryTest, OpensALocalDomainReadyForUse) {
  auto outcomes = OpenDomain("Alerts");
  ASSERT_EQ(outcomes.size(), 1u);
  ASSERT_EQ(outcomes[0].code, kOk);
  ASSERT_TRUE(outcomes[0].domain);
  std::string name;
  ASSERT_EQ(outcomes[0].domain->GetName(name), kOk);
  EXPECT_EQ(name, "alerts");
  ASSERT_EQ(testing::SetNumber(*outcomes[0].domain, "n", 4), kOk);
  outcomes.clear();  // the last reference: the domain is written

  auto reopened = OpenDomain("ALERTS", true, false);
  ASSERT_EQ(reopened.size(), 1u);
  ASSERT_EQ(reopened[0].code, kOk);
  EXPECT_EQ(testing::IntAt(*reopened[0].domain, "n"), 4);
}

TEST_F(DomainFactoryTest, MissingDomainWithoutCreateIsNotOpened) {
  auto outcomes = OpenDomain("absent", true, false);
  ASSERT_EQ(outcomes.size(), 1u);
  EXPECT_EQ(outcomes[0].code, make_error_code(kDomainNotOpen));
  EXPECT_FALSE(outcomes[0].domain);
}

TEST_F(DomainFactoryTest, NameLengthIsCheckedButTheOpeningGoesOn) {
  auto longest = OpenDomain(std::string(kMaxDomainNameLength, 'a'));
  ASSERT_EQ(longest.size(), 1u);
  EXPECT_EQ(longest[0].code, kOk);

  auto tooLong = OpenDomain(std::string(kMaxDomainNameLength + 1, 'b'));
  ASSERT_EQ(tooLong.size(), 2u);
  EXPECT_EQ(tooLong[0].code, make_error_code(kInvalidArgument));
  EXPECT_FALSE(tooLong[0].domain);
  EXPECT_EQ(tooLong[1].code, kOk);
  EXPECT_TRUE(tooLong[1].domain);

  // Past what a file name can hold the domain itself refuses too.
  auto unnameable = OpenDomain(std::string(240, 'c'));
  ASSERT_EQ(unnameable.size(), 2u);
  EXPECT_EQ(unnameable[1].code, make_error_code(kInvalidArgument));
  EXPECT_FALSE(unnameable[1].domain);
}

TEST_F(DomainFactoryTest, NamesThatAreNoFileNameAreRefused) {
  for (const std::string& name : {std::string("../escape"), std::string("nul\0byte", 8)}) {
    auto outcomes = OpenDomain(name);
    ASSERT_EQ(outcomes.size(), 1u) << name;
    EXPECT_EQ(outcomes[0].code, make_error_code(kInvalidArgument));
    EXPECT_FALSE(outcomes[0].domain);
  }
  EXPECT_TRUE(std::filesystem::is_empty(folder_.path()));
}

TEST_F(DomainFactoryTest, AFactoryWithoutRemoteDomainsReportsTheMissingService) {
  const auto engineOnly = std::make_shared<DomainFactory>();
  auto outcomes = OpenDomain("Alerts", false, true, engineOnly);
  ASSERT_EQ(outcomes.size(), 1u);
  EXPECT_EQ(outcomes[0].code, make_error_code(kConnectionError));
  EXPECT_FALSE(outcomes[0].domain);
  auto report = capture_->FindFailureReport("SSAR", "OpenDomain");
  ASSERT_TRUE(report);
  EXPECT_EQ(report->Code(), kConnectionError);
  EXPECT_EQ(report->Data("DomainName"), "Alerts");
  EXPECT_TRUE(std::filesystem::is_empty(folder_.path()));

  auto empty = OpenDomain("", false, true, engineOnly);
  ASSERT_EQ(empty.size(), 2u);
  EXPECT_EQ(empty[0].code, make_error_code(kInvalidArgument));
  EXPECT_EQ(empty[1].code, make_error_code(kConnectionError));
}

std::atomic<int> gChecksRun{0};

int FailingCheck() noexcept {
  ++gChecksRun;
  return 3;
}

int PassingCheck() noexcept {
  ++gChecksRun;
  return 0;
}

TEST_F(DomainFactoryTest, FailedIntegrityCheckRefusesEveryLaterCallWithoutRerunning) {
  gChecksRun = 0;
  IntegrityGate gate(&FailingCheck);
  EXPECT_FALSE(FactoryBehind(gate));
  EXPECT_FALSE(FactoryBehind(gate));
  EXPECT_EQ(gChecksRun, 1);
  EXPECT_EQ(capture_->CountFailureReports("SSAR", "ValidateExternalCaller"), 2u);
  auto report = capture_->FindFailureReport("SSAR", "ValidateExternalCaller");
  ASSERT_TRUE(report);
  EXPECT_EQ(report->Code(), 3);
  EXPECT_EQ(report->ErrorDomain(), kQelErrDomainQelvarinTrustedComponents);
  EXPECT_TRUE(capture_->HasTrace("ValidateExternalCaller failed (3)"));
}

TEST_F(DomainFactoryTest, IntegrityCheckRunsOnceAcrossThreads) {
  gChecksRun = 0;
  IntegrityGate gate(&PassingCheck);
  std::atomic<int> made{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&] {
      if (FactoryBehind(gate)) ++made;
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(made, 8);
  EXPECT_EQ(gChecksRun, 1);
  // The process's own check passes on a sound build.
  EXPECT_TRUE(GetDomainFactory(nullptr));
  EXPECT_EQ(capture_->CountFailureReports("SSAR", "ValidateExternalCaller"), 0u);
}

}  // namespace
}  // namespace QelSS
