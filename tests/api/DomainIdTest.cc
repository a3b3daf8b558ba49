// Domain identifiers per configuration, including "the current configuration"
// resolved through the configurations domain.

#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "api/FacadeTestSupport.h"
#include "configurations/ConfigurationsFolder.h"
#include "platform/report/CaptureSink.h"
#include "qelss/api/Settings.h"
#include "qelss/configurations/Bundles.h"
#include "qelss/configurations/ConfigurationsDomain.h"

namespace QelSS {
namespace {

using testing::Code;

[[maybe_unused]] ::testing::Environment* const kKeyHome =
    ::testing::AddGlobalTestEnvironment(new testing::KeyHome);

TEST(DomainIdForDomain, AppendsTheNameAndTheConfigurationSuffix) {
  std::string id;
  EXPECT_EQ(Settings::DomainIdForDomain(id, "alerts", 0), Code(kSuccess));
  EXPECT_EQ(id, "alerts");

  id.clear();
  EXPECT_EQ(Settings::DomainIdForDomain(id, "alerts", 7), Code(kSuccess));
  EXPECT_EQ(id, "alerts.set7");

  id = "prefix:";
  EXPECT_EQ(Settings::DomainIdForDomain(id, "alerts", 0xFFFFFFFEu), Code(kSuccess));
  EXPECT_EQ(id, "prefix:alerts.set4294967294");

  id = "untouched";
  EXPECT_EQ(Settings::DomainIdForDomain(id, "", 7), Code(kFailure));
  EXPECT_EQ(id, "untouched");
}

// The current configuration lives in a private configurations folder, and the
// framework's bundle is taken from the source tree.
class CurrentConfigurationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    AddBundleSearchDirectory(QELSS_FRAMEWORK_DATADIR);
    previous_ = SetConfigurationsFolderForTesting(temp_ / "CF");
  }
  void TearDown() override { SetConfigurationsFolderForTesting(previous_); }

  testing::ScopedTempDir temp_;
  std::string previous_;
};

TEST_F(CurrentConfigurationTest, AllOnesMeansTheCurrentConfiguration) {
  std::string id;
  ASSERT_EQ(Settings::DomainIdForDomain(id, "alerts", Settings::kCurrentConfiguration),
            Code(kSuccess));
  EXPECT_EQ(id, "alerts.set3") << "a fresh configurations domain has configuration 3 current";

  {
    std::shared_ptr<ConfigurationsDomain> configurations;
    ASSERT_EQ(ConfigurationsDomain::Create(configurations, true, "com.qelvarin.QelSharedSettings2"),
              Code(kSuccess));
    ASSERT_EQ(configurations->setCurrentConfigurationID(9), Code(kSuccess));
  }
  id.clear();
  ASSERT_EQ(Settings::DomainIdForDomain(id, "alerts", Settings::kCurrentConfiguration),
            Code(kSuccess));
  EXPECT_EQ(id, "alerts.set9");

  std::shared_ptr<QSSDomain> current;
  ASSERT_EQ(QSSDomain::Create(current, "alerts", "id-test", temp_.path().c_str(),
                              Settings::kCurrentConfiguration, true),
            Code(kSuccess));
  ASSERT_EQ(current->SetCommit("/k", 1LL), Code(kSuccess));
  current.reset();
  std::shared_ptr<QSSDomain> nine;
  ASSERT_EQ(QSSDomain::Create(nine, "alerts", "id-test", temp_.path().c_str(), 9, true),
            Code(kSuccess));
  long long value = 0;
  EXPECT_EQ(nine->Get("/k", value), Code(kSuccess));
}

TEST_F(CurrentConfigurationTest, ConfigurationsDomainThatCannotOpenIsReported) {
  std::ofstream(temp_ / "file") << "not a folder";
  SetConfigurationsFolderForTesting(temp_ / "file/CF");
  platform::ScopedCaptureSink capture;

  std::string id;
  EXPECT_EQ(Settings::DomainIdForDomain(id, "alerts", Settings::kCurrentConfiguration),
            Code(kDirectoryError));
  EXPECT_EQ(id, "alerts");
  auto report = capture->FindFailureReport("STNG", "ConfigurationsDomain::Create");
  ASSERT_TRUE(report);
  EXPECT_EQ(report->ErrorDomain(), "settings");
  EXPECT_EQ(report->Message(), "Failed to create configurations domain");
  EXPECT_EQ(report->Code(), 201);
  EXPECT_TRUE(capture->HasTrace("ConfigurationsDomain::Create failed (201)"));

  std::shared_ptr<QSSDomain> facade;
  EXPECT_EQ(QSSDomain::Create(facade, "alerts", "id-test", temp_.path().c_str(),
                              Settings::kCurrentConfiguration, true),
            Code(kDirectoryError));
  EXPECT_FALSE(facade);
  EXPECT_TRUE(capture->FindFailureReport("SDOM", "DomainIdForDomain"));
}

}  // namespace
}  // namespace QelSS
