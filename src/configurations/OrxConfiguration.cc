#include "qelss/configurations/OrxConfiguration.h"

#include <string>

#include "configurations/Bundle.h"
#include "configurations/ConfigurationsReport.h"
#include "qelss/platform/ErrorCode.h"
#include "qelss/values/Exceptions.h"
#include "qelss/values/HashFactory.h"
#include "qelss/values/HashHelper.h"

namespace QelSS {
namespace {

constexpr const char* kConfigIDKey = "ID";
constexpr const char* kConfigNameKey = "Name";
constexpr const char* kBundleIDKey = "BundleIDKey";
constexpr const char* kLocalizationTable = "Configurations";
constexpr const char* kConstructor = "OrxConfiguration::OrxConfiguration";

[[noreturn]] void FailConstruction(const char* message, std::error_code rc) {
  ReportRecordFailure(kConstructor, message, kConstructor, rc);
  throw QelSharedSettingsException(rc, "Construction of OrxConfiguration object failed");
}

std::shared_ptr<IHash> MakeHash() {
  std::shared_ptr<IHash> hash;
  const std::error_code rc = HashFactory::Create(hash);
  if (!Succeeded(rc)) FailConstruction("Failed to allocate QSS Hash Object", rc);
  return hash;
}

std::error_code ReportAs(const char* operation, const char* message, std::error_code rc) {
  return ReportRecordFailure(operation, message, operation, rc);
}

}  // namespace

OrxConfiguration::OrxConfiguration() : hash_(MakeHash()) {}

OrxConfiguration::OrxConfiguration(unsigned int id, const std::string& name,
                                   const std::string& bundleIdentifier)
    : hash_(MakeHash()) {
  std::error_code rc = HashHelper::Set(hash_, kConfigIDKey, static_cast<long long>(id));
  if (!Succeeded(rc)) FailConstruction("Failed to set config ID", rc);
  rc = HashHelper::Set(hash_, kConfigNameKey, name);
  if (!Succeeded(rc)) FailConstruction("Failed to set config name", rc);
  rc = HashHelper::Set(hash_, kBundleIDKey, bundleIdentifier);
  if (!Succeeded(rc)) FailConstruction("Failed to set bundle ID name", rc);
}

OrxConfiguration::~OrxConfiguration() = default;

std::error_code OrxConfiguration::getID(unsigned int& id) const {
  long long value = 0;
  const std::error_code rc = HashHelper::Get(hash_, kConfigIDKey, value);
  if (!Succeeded(rc)) {
    return ReportAs("OrxConfiguration::getID", "Failed to get value for kConfigIDKey", rc);
  }
  id = static_cast<unsigned int>(value);
  return rc;
}

std::error_code OrxConfiguration::getName(std::string& name) const {
  std::error_code rc = HashHelper::Get(hash_, kConfigNameKey, name);
  if (rc != make_error_code(kNotFound)) return rc;

  // A configuration without a name of its own (a predefined one) is named by
  // its bundle's localisation table, under its decimal number.
  unsigned int id = 0;
  rc = getID(id);
  if (!Succeeded(rc)) return rc;
  const std::string number = std::to_string(id);
  std::string bundleIdentifier;
  rc = HashHelper::Get(hash_, kBundleIDKey, bundleIdentifier);
  if (!Succeeded(rc)) return ReportAs("Get", "Failed to get bundle ID", rc);

  std::shared_ptr<const Bundle> bundle;
  rc = Bundle::Find(bundleIdentifier, bundle);
  std::string localized;
  if (Succeeded(rc)) rc = bundle->CopyLocalizedString(number, kLocalizationTable, localized);
  if (!Succeeded(rc)) {
    return ReportAs("CFBundleCopyLocalizedString",
                    "Failed to get localized string for predefined configurations", rc);
  }
  name = std::move(localized);
  return rc;
}

std::error_code OrxConfiguration::TakeConfiguration(const std::shared_ptr<IValue>& value,
                                                    const std::string& bundleIdentifier) {
  std::shared_ptr<IHash> found;
  std::error_code rc = ValueHelper::Get(value, found);
  if (!Succeeded(rc)) return ReportAs("Get", "Failed to get value as hash", rc);

  std::shared_ptr<IValue> copy;
  rc = found->Clone(copy);
  std::shared_ptr<IHash> taken;
  if (Succeeded(rc)) rc = ValueHelper::Move(copy, taken);
  if (!Succeeded(rc)) return ReportAs("Copy", "Failed to copy config from hash", rc);

  rc = HashHelper::Set(taken, kBundleIDKey, bundleIdentifier);
  if (!Succeeded(rc)) return ReportAs("Set bundle ID", "Failed to set bundle ID into hash", rc);
  std::string stamped;
  rc = HashHelper::Get(taken, kBundleIDKey, stamped);
  if (!Succeeded(rc)) {
    return ReportAs("Get bundle ID name", "Failed to get bundle ID from hash", rc);
  }
  hash_ = std::move(taken);
  return rc;
}

}  // namespace QelSS
