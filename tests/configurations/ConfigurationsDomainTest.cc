// The configurations domain and configuration records, with a test bundle and
// the fixed folder redirected to a private one: tests never share the real
// folder, so parallel runs cannot disturb each other.

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>

#include <gtest/gtest.h>

#include "api/FacadeTestSupport.h"
#include "configurations/ConfigurationsFolder.h"
#include "platform/report/CaptureSink.h"
#include "qelss/configurations/Bundles.h"
#include "qelss/configurations/ConfigurationsDomain.h"
#include "qelss/configurations/OrxConfiguration.h"
#include "qelss/values/HashFactory.h"
#include "qelss/values/HashHelper.h"
#include "qelss/values/StringFactory.h"

namespace QelSS {
namespace {

using testing::Code;

[[maybe_unused]] ::testing::Environment* const kKeyHome =
    ::testing::AddGlobalTestEnvironment(new testing::KeyHome);

constexpr const char* kStudio = "com.example.studio";
constexpr const char* kFramework = "com.qelvarin.QelSharedSettings2";

constexpr const char* kStudioPlist = R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0">
<dict>
  <key>1</key> <dict><key>ID</key><integer>1</integer></dict>
  <key>2</key> <dict><key>ID</key><integer>2</integer><key>Name</key><string>Night</string></dict>
  <key>5</key> <dict><key>ID</key><integer>5</integer></dict>
</dict>
</plist>
)";

constexpr const char* kStudioStrings = R"(/* Configuration names */
"1" = "Daylight";
"5" = "Stage \"live\"";  // escaped quotes
)";

class ConfigurationsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    previousFolder_ = SetConfigurationsFolderForTesting(temp_ / "CF");
    AddBundleSearchDirectory(temp_ / "share");
    WriteBundle(kStudio, kStudioPlist, kStudioStrings);
  }
  void TearDown() override { SetConfigurationsFolderForTesting(previousFolder_); }

  void WriteBundle(const std::string& identifier, const char* plist, const char* strings) {
    const std::string bundle = temp_ / ("share/qelvarin/bundles/" + identifier);
    std::filesystem::create_directories(bundle + "/en.lproj");
    if (plist) std::ofstream(bundle + "/Configurations.plist") << plist;
    if (strings) std::ofstream(bundle + "/en.lproj/Configurations.strings") << strings;
  }

  std::shared_ptr<ConfigurationsDomain> Open() {
    std::shared_ptr<ConfigurationsDomain> domain;
    EXPECT_EQ(ConfigurationsDomain::Create(domain, true, kStudio), Code(kSuccess));
    return domain;
  }

  static std::string NameOf(const ConfigurationsDomain& domain, unsigned int id) {
    std::shared_ptr<OrxConfiguration> configuration;
    std::string name;
    EXPECT_EQ(domain.getConfigurationWithID(id, configuration), Code(kSuccess)) << id;
    if (configuration) {
      EXPECT_EQ(configuration->getName(name), Code(kSuccess)) << id;
    }
    return name;
  }

  static std::string BundleOf(const ConfigurationsDomain& domain, unsigned int id) {
    std::shared_ptr<OrxConfiguration> configuration;
    std::string bundle;
    EXPECT_EQ(domain.getConfigurationWithID(id, configuration), Code(kSuccess)) << id;
    if (configuration) {
      EXPECT_EQ(HashHelper::Get(configuration->GetHash(), "BundleIDKey", bundle), Code(kSuccess));
    }
    return bundle;
  }

  // User configurations 2 and 8; 2 is also predefined.
  static void AddUserConfigurations(ConfigurationsDomain& domain) {
    std::shared_ptr<IHash> user;
    ASSERT_EQ(HashFactory::Create(user), Code(kSuccess));
    ASSERT_EQ(HashHelper::Set(user, "2", OrxConfiguration(2, "Mine too", kFramework).GetHash()),
              Code(kSuccess));
    ASSERT_EQ(HashHelper::Set(user, "8", OrxConfiguration(8, "Studio B", kFramework).GetHash()),
              Code(kSuccess));
    ASSERT_EQ(domain.SetCommit("/Configurations", user), Code(kSuccess));
  }

  testing::ScopedTempDir temp_;
  std::string previousFolder_;
};

TEST_F(ConfigurationsTest, FreshDomainHasConfiguration3AndASetNumberPersists) {
  {
    auto domain = Open();
    ASSERT_TRUE(domain);
    unsigned int current = 0;
    ASSERT_EQ(domain->getCurrentConfigurationID(current), Code(kSuccess));
    EXPECT_EQ(current, 3u);
    ASSERT_EQ(domain->setCurrentConfigurationID(7), Code(kSuccess));
    ASSERT_EQ(domain->getCurrentConfigurationID(current), Code(kSuccess));
    EXPECT_EQ(current, 7u);
  }
  struct stat info {};
  EXPECT_EQ(::stat((temp_ / "CF").c_str(), &info), 0) << "the domain lives in the given folder";

  auto reopened = Open();
  ASSERT_TRUE(reopened);
  unsigned int current = 0;
  ASSERT_EQ(reopened->getCurrentConfigurationID(current), Code(kSuccess));
  EXPECT_EQ(current, 7u);

  std::shared_ptr<OrxConfiguration> five;
  ASSERT_EQ(reopened->getConfigurationWithID(5, five), Code(kSuccess));
  ASSERT_EQ(reopened->setCurrentConfiguration(five), Code(kSuccess));
  ASSERT_EQ(reopened->getCurrentConfigurationID(current), Code(kSuccess));
  EXPECT_EQ(current, 5u);
}

TEST_F(ConfigurationsTest, PredefinedConfigurationsWinOverUserOnes) {
  auto domain = Open();
  ASSERT_TRUE(domain);
  AddUserConfigurations(*domain);

  EXPECT_EQ(NameOf(*domain, 2), "Night");
  EXPECT_EQ(BundleOf(*domain, 2), kStudio);
  EXPECT_EQ(NameOf(*domain, 8), "Studio B");
  EXPECT_EQ(BundleOf(*domain, 8), kFramework);

  std::shared_ptr<OrxConfiguration> untouched = std::make_shared<OrxConfiguration>();
  auto before = untouched;
  EXPECT_EQ(domain->getConfigurationWithID(42, untouched), Code(kNotFound));
  EXPECT_EQ(untouched, before);

  std::shared_ptr<IHash> names;
  ASSERT_EQ(domain->getNamesOfPredefinedAndUserConfigs(names), Code(kSuccess));
  std::map<std::string, std::string> seen;
  ASSERT_EQ(names->Iterate([&seen](const std::shared_ptr<IString>& key,
                                   const std::shared_ptr<IValue>& value, bool&) {
    std::string text;
    EXPECT_EQ(ValueHelper::Get(value, text), Code(kSuccess));
    seen[key->GetCString()] = text;
  }),
            Code(kSuccess));
  EXPECT_EQ(seen,
            (std::map<std::string, std::string>{
                {"1", "Daylight"}, {"2", "Night"}, {"5", "Stage \"live\""}, {"8", "Studio B"}}));
}

TEST_F(ConfigurationsTest, PredefinedNamesComeFromTheBundlesTable) {
  auto domain = Open();
  ASSERT_TRUE(domain);
  EXPECT_EQ(NameOf(*domain, 1), "Daylight");
  EXPECT_EQ(NameOf(*domain, 5), "Stage \"live\"");

  domain.reset();

  // Configuration 6 has neither a name nor an entry in the table.
  WriteBundle("com.example.unnamed",
              "<plist><dict><key>6</key><dict><key>ID</key>"
              "<integer>6</integer></dict></dict></plist>",
              kStudioStrings);
  ASSERT_EQ(ConfigurationsDomain::Create(domain, true, "com.example.unnamed"), Code(kSuccess));
  platform::ScopedCaptureSink capture;
  std::shared_ptr<OrxConfiguration> six;
  ASSERT_EQ(domain->getConfigurationWithID(6, six), Code(kSuccess));
  std::string name = "kept";
  EXPECT_EQ(six->getName(name), Code(kNotFound));
  EXPECT_EQ(name, "kept");
  auto report = capture->FindFailureReport("scfg", "CFBundleCopyLocalizedString");
  ASSERT_TRUE(report);
  EXPECT_EQ(report->Message(), "Failed to get localized string for predefined configurations");
  EXPECT_EQ(report->ErrorDomain(), "OrxFrameworkErrorDomain");

  std::shared_ptr<IHash> names;
  EXPECT_EQ(domain->getNamesOfPredefinedAndUserConfigs(names), Code(kNotFound));
}

TEST_F(ConfigurationsTest, CreateFailsAndReportsWithoutAUsableBundle) {
  WriteBundle("com.example.noplist", nullptr, kStudioStrings);
  WriteBundle("com.example.broken", "<plist><dict><key>1</key></dict></plist>", nullptr);
  WriteBundle("com.example.array", "<plist><array/></plist>", nullptr);
  const std::pair<const char*, ErrorCode> cases[] = {
      {"com.example.absent", kNotFound}, {"com.example.noplist", kFailure},
      {"com.example.broken", kFailure},  {"com.example.array", kFailure},
      {"../share", kNotFound},
  };
  for (const auto& [identifier, expected] : cases) {
    platform::ScopedCaptureSink capture;
    std::shared_ptr<ConfigurationsDomain> domain;
    EXPECT_EQ(ConfigurationsDomain::Create(domain, true, identifier), Code(expected)) << identifier;
    EXPECT_FALSE(domain);
    auto report = capture->FindFailureReport("CONF", "constructor");
    ASSERT_TRUE(report) << identifier;
    EXPECT_EQ(report->ErrorDomain(), "kCngfFrameworkErrorDomain");
    EXPECT_EQ(report->Message(), "exception");
    EXPECT_TRUE(capture->HasTrace("constructor failed (" + std::to_string(expected) + ")"));
  }
}

TEST_F(ConfigurationsTest, ForwardersReportTheirFailures) {
  auto domain = Open();
  ASSERT_TRUE(domain);
  platform::ScopedCaptureSink capture;

  long long value = 0;
  EXPECT_EQ(domain->Get("/absent", value), Code(kNotFound));
  EXPECT_EQ(domain->Delete("/absent"), Code(kFailure));
  EXPECT_EQ(domain->CommitTransaction(), Code(kInvalidArgument));
  EXPECT_EQ(domain->AddObserver(nullptr, nullptr), Code(kInvalidArgument));
  for (const char* operation : {"Get", "Delete", "CommitTransaction", "AddObserver"}) {
    auto report = capture->FindFailureReport("CONF", operation);
    ASSERT_TRUE(report) << operation;
    EXPECT_EQ(report->ErrorDomain(), "kCngfFrameworkErrorDomain");
    EXPECT_EQ(report->Message(), "failed");
  }
  EXPECT_TRUE(capture->HasTrace("Get failed (203)"));
  EXPECT_TRUE(capture->HasTrace("CommitTransaction failed (204)"));

  ASSERT_EQ(domain->CreateTransaction(), Code(kSuccess));
  EXPECT_EQ(domain->DeleteAndCommit("/absent"), Code(kSuccess));
  EXPECT_EQ(capture->CountFailureReports("CONF", "DeleteAndCommit"), 0u);
}

TEST_F(ConfigurationsTest, CurrentNumberOfAnotherKindIsReported) {
  auto domain = Open();
  ASSERT_TRUE(domain);
  ASSERT_EQ(domain->SetCommit("/currentID", 4LL), Code(kSuccess));
  platform::ScopedCaptureSink capture;
  unsigned int current = 0;
  EXPECT_EQ(domain->getCurrentConfigurationID(current), Code(kInvalidType));
  auto report = capture->FindFailureReport("CONF", "QSSDomain::Get");
  ASSERT_TRUE(report);
  EXPECT_EQ(report->Message(), "Failed to get kCurrentConfigurationIDKey");
  EXPECT_TRUE(capture->HasTrace("QSSDomain::Get failed (205)"));
}

TEST(OrxConfiguration, RecordsKeepIdNameAndBundle) {
  OrxConfiguration record(4000000000u, "Wide", kStudio);
  unsigned int id = 0;
  std::string name;
  EXPECT_EQ(record.getID(id), Code(kSuccess));
  EXPECT_EQ(id, 4000000000u);
  EXPECT_EQ(record.getName(name), Code(kSuccess));
  EXPECT_EQ(name, "Wide");

  platform::ScopedCaptureSink capture;
  std::shared_ptr<IString> notAHash;
  ASSERT_EQ(StringFactory::Create(notAHash, "x"), Code(kSuccess));
  EXPECT_EQ(record.TakeConfiguration(notAHash, kStudio), Code(kInvalidData));
  auto report = capture->FindFailureReport("scfg", "Get");
  ASSERT_TRUE(report);
  EXPECT_EQ(report->Message(), "Failed to get value as hash");
  EXPECT_EQ(record.getName(name), Code(kSuccess)) << "a failed take-over changed the record";
  EXPECT_EQ(name, "Wide");

  OrxConfiguration empty;
  EXPECT_EQ(empty.getID(id), Code(kNotFound));
  EXPECT_TRUE(capture->FindFailureReport("scfg", "OrxConfiguration::getID"));
}

}  // namespace
}  // namespace QelSS
