#include "qelss/api/Settings.h"

#include <cstdio>
#include <memory>
#include <string>

#include "api/FacadeReport.h"
#include "configurations/ConfigurationsReport.h"
#include "platform/report/Failure.h"
#include "qelss/api/QSSDomain.h"
#include "qelss/configurations/ConfigurationsDomain.h"
#include "qelss/platform/ErrorCode.h"

namespace QelSS::Settings {
namespace {

constexpr uint32_t kSettingsTag = QelErrTag("STNG");
constexpr const char* kSettingsErrorDomain = "settings";

// The configurations domain is local, in its fixed folder.
constexpr bool kLocalConfigurations = true;

std::error_code CurrentConfiguration(unsigned int& configuration) {
  std::shared_ptr<ConfigurationsDomain> configurations;
  std::error_code rc = ConfigurationsDomain::Create(configurations, kLocalConfigurations,
                                                    kFrameworkBundleIdentifier);
  if (!Succeeded(rc)) {
    return ReportFailure({kSettingsTag, "ConfigurationsDomain::Create", kSettingsErrorDomain,
                          "Failed to create configurations domain"},
                         rc);
  }
  rc = configurations->getCurrentConfigurationID(configuration);
  if (!Succeeded(rc)) {
    return ReportFailure({kSettingsTag, "getCurrentConfigurationID", kSettingsErrorDomain,
                          "Failed to get the current configuration ID"},
                         rc);
  }
  return rc;
}

}  // namespace

std::error_code DomainIdForDomain(std::string& id, const std::string& name,
                                  unsigned int configuration) {
  if (name.empty()) return make_error_code(kFailure);
  id += name;
  if (configuration == 0) return make_error_code(kSuccess);
  if (configuration == kCurrentConfiguration) {
    const std::error_code rc = CurrentConfiguration(configuration);
    if (!Succeeded(rc)) return rc;
  }
  char suffix[16];
  std::snprintf(suffix, sizeof suffix, ".set%u", configuration);
  id += suffix;
  return make_error_code(kSuccess);
}

}  // namespace QelSS::Settings

namespace QelSS {

// Opening by configuration number needs the configurations domain, so it lives
// with the configurations rather than with the rest of the facade.
std::error_code QSSDomain::Create(std::shared_ptr<QSSDomain>& domain, const char* name,
                                  const char* identity, const char* folder,
                                  unsigned int configuration, bool useFolder) {
  std::string id;
  std::error_code rc;
  try {
    rc = Settings::DomainIdForDomain(id, name ? name : "", configuration);
  } catch (...) {
    rc = ReportFacadeException("DomainIdForDomain");
  }
  if (!Succeeded(rc)) {
    return ReportFailure(
        {QelErrTag("SDOM"), "DomainIdForDomain", kQSSDomainErrorDomain, "Failed to get domain id"},
        rc);
  }
  return Create(domain, id.c_str(), identity, folder, useFolder);
}

}  // namespace QelSS
