#include "qelss/api/QSSDomain.h"

#include "api/FacadeReport.h"
#include "domain/IDomainSettingInternal.h"
#include "domain/LocalDomainSetting.h"
#include "qelss/values/ErrorCode.h"

namespace QelSS {
namespace {

// Every domain the factory makes answers the internal interface too; a
// facade without a domain, or with one made elsewhere, gets null.
IDomainSettingInternal* Internal(const std::shared_ptr<IDomainSetting>& domain) {
  return dynamic_cast<IDomainSettingInternal*>(domain.get());
}

}  // namespace

std::error_code QSSDomain::CopySettings(std::shared_ptr<IHash>& settings) const {
  try {
    if (!domain_) return make_error_code(kDomainNotOpen);
    IDomainSettingInternal* internal = Internal(domain_);
    if (!internal) return make_error_code(kNotImplemented);
    std::shared_ptr<IHash> tree;
    const std::error_code rc = internal->CopySettingsTree(tree);
    if (Succeeded(rc)) settings = std::move(tree);
    return rc;
  } catch (...) {
    return ReportFacadeException("CopySettings");
  }
}

std::error_code QSSDomain::Save(unsigned waitSeconds) const {
  try {
    if (!domain_) return make_error_code(kDomainNotOpen);
    IDomainSettingInternal* internal = Internal(domain_);
    return internal ? internal->SaveSettings(waitSeconds) : make_error_code(kSuccess);
  } catch (...) {
    return ReportFacadeException("Save");
  }
}

std::error_code QSSDomain::LocalDomainExists(const char* name, const char* folder, bool& exists) {
  try {
    if (name == nullptr || *name == '\0' || folder == nullptr || *folder == '\0') {
      return make_error_code(kInvalidArgument);
    }
    return LocalDomainSetting::Exists(folder, name, exists);
  } catch (...) {
    return ReportFacadeException("LocalDomainExists");
  }
}

std::error_code QSSDomain::DamagedFileKept(std::string& path) const {
  try {
    if (!domain_) return make_error_code(kDomainNotOpen);
    IDomainSettingInternal* internal = Internal(domain_);
    if (!internal) {
      path.clear();
      return make_error_code(kSuccess);
    }
    return internal->DamagedFileKept(path);
  } catch (...) {
    return ReportFacadeException("DamagedFileKept");
  }
}

}  // namespace QelSS
