#include "qelss/api/QSSDomain.h"

#include "api/FacadeReport.h"
#include "domain/IDomainSettingInternal.h"
#include "domain/LocalDomainSetting.h"
#include "qelss/ipc/DomainUtil.h"
#include "qelss/values/ErrorCode.h"

namespace QelSS {

std::error_code QSSDomain::CopySettings(std::shared_ptr<IHash>& settings) const {
  try {
    if (!domain_) return make_error_code(kDomainNotOpen);
    auto* internal = dynamic_cast<IDomainSettingInternal*>(domain_.get());
    if (!internal) return make_error_code(kNotImplemented);
    std::shared_ptr<IHash> root;
    std::error_code rc = internal->CopySettings(root);
    if (!Succeeded(rc)) return rc;
    // The copy is the stored root; only its settings tree is the domain's.
    std::shared_ptr<IHash> tree;
    rc = DomainUtil::GetInternalSettings(root, tree);
    if (Succeeded(rc)) settings = std::move(tree);
    return rc;
  } catch (...) {
    return ReportFacadeException("CopySettings");
  }
}

std::error_code QSSDomain::Save(unsigned waitSeconds) const {
  try {
    if (!domain_) return make_error_code(kDomainNotOpen);
    auto* local = dynamic_cast<LocalDomainSetting*>(domain_.get());
    if (!local) return make_error_code(kSuccess);
    return local->SaveSettings(waitSeconds);
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
    auto* local = dynamic_cast<LocalDomainSetting*>(domain_.get());
    if (!local) {
      path.clear();
      return make_error_code(kSuccess);
    }
    return local->DamagedFileKept(path);
  } catch (...) {
    return ReportFacadeException("DamagedFileKept");
  }
}

}  // namespace QelSS
