#include <memory>
#include <string>

#include "api/CompletionLatch.h"
#include "api/FacadeLimits.h"
#include "api/FacadeReport.h"
#include "api/FolderLevels.h"
#include "api/QSSDomainAccess.h"
#include "qelss/api/QSSDomain.h"
#include "qelss/api/Settings.h"
#include "qelss/domain/DomainFactory.h"
#include "qelss/values/ErrorCode.h"
#include "values/FailureReport.h"

namespace QelSS {
namespace {

// A missing domain starts empty rather than failing to open.
constexpr bool kCreateMissingDomain = true;

std::error_code WhereItLives(const char* folder, bool useFolder, Configuration& configuration) {
  configuration.local = useFolder;
  if (!useFolder) return make_error_code(kSuccess);
  if (!folder) return make_error_code(kInvalidArgument);
  configuration.folder = folder;
  return MakeFolderLevels(configuration.folder);
}

// The factory loads the domain asynchronously. It may call `done` twice (a bad
// name is reported at once and the opening still goes on): the latch keeps the
// first outcome, so a bad name fails here however the opening ends.
std::error_code OpenAndWait(IDomainFactory& factory, const Configuration& configuration,
                            const char* name, const char* identity,
                            std::shared_ptr<IDomainSetting>& domain) {
  auto latch = std::make_shared<CompletionLatch>();
  factory.OpenDomain(
      configuration, name, identity ? identity : "",
      [latch](std::shared_ptr<IDomainSetting>& opened, std::error_code rc) {
        latch->Complete(rc, Succeeded(rc) ? opened : nullptr);
      },
      kCreateMissingDomain);
  std::shared_ptr<IDomainSetting> loaded;
  std::error_code rc = latch->Wait(OpenWaitLimit(), &loaded);
  if (Succeeded(rc) && !loaded) rc = make_error_code(kFailure);
  if (Succeeded(rc)) domain = std::move(loaded);
  return rc;
}

std::error_code Open(QSSDomain& facade, const char* name, const char* identity, const char* folder,
                     bool useFolder) {
  try {
    std::shared_ptr<IDomainFactory> factory = GetDomainFactory(nullptr);
    if (!factory) return make_error_code(kAllocationFailed);
    Configuration configuration;
    std::error_code rc = WhereItLives(folder, useFolder, configuration);
    if (!Succeeded(rc)) return rc;
    if (!name) return make_error_code(kInvalidArgument);
    std::shared_ptr<IDomainSetting> domain;
    rc = OpenAndWait(*factory, configuration, name, identity, domain);
    if (Succeeded(rc)) QSSDomainAccess::Adopt(facade, std::move(domain));
    return rc;
  } catch (...) {
    return ReportFacadeException("constructor");
  }
}

}  // namespace

std::error_code QSSDomain::Create(std::shared_ptr<QSSDomain>& domain, const char* name,
                                  const char* identity, const char* folder, bool useFolder) {
  std::shared_ptr<QSSDomain> facade;
  try {
    facade = std::make_shared<QSSDomain>(ConstructionKey{});
  } catch (...) {
    return ReportFacadeException("constructor");
  }
  const std::error_code rc = Open(*facade, name, identity, folder, useFolder);
  domain = std::move(facade);
  return rc;
}

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
