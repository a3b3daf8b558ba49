#include "domain/DomainFactory.h"

#include <system_error>
#include <utility>

#include "domain/LocalDomainSetting.h"
#include "platform/crypto/SelfTest.h"
#include "platform/report/Failure.h"
#include "platform/report/Report.h"

namespace QelSS {
namespace {

constexpr uint32_t kReportTag = QelErrTag("SSAR");

int RunLibrarySelfTest() noexcept { return static_cast<int>(platform::crypto::RunSelfTest()); }

void Refuse(const IDomainFactory::OpenDone& done, std::error_code code) {
  std::shared_ptr<IDomainSetting> none;
  done(none, code);
}

std::error_code MakeDomain(const Configuration& configuration, const std::string& name,
                           const std::string& client, bool create,
                           DomainFactory::RemoteMaker remote,
                           std::shared_ptr<DomainSetting>& domain) {
  try {
    if (configuration.local) {
      domain = std::make_shared<LocalDomainSetting>(name, create, configuration);
    } else {
      domain = remote(name, create, client);
    }
    return domain ? make_error_code(kSuccess) : make_error_code(kFailure);
  } catch (const std::system_error& error) {
    ReportCaughtException(1, kReportTag, "OpenDomain");
    return error.code();
  } catch (...) {
    ReportCaughtException(1, kReportTag, "OpenDomain");
    return kFailure;
  }
}

void ReportIntegrityFailure(int code) {
  ReportCodeOnly(kReportTag, "ValidateExternalCaller", kQelErrDomainQelvarinTrustedComponents,
                 code);
}

}  // namespace

IDomainFactory::~IDomainFactory() = default;

int IntegrityGate::Result() {
  std::call_once(once_, [this] { result_ = check_(); });
  return result_;
}

std::shared_ptr<IDomainFactory> FactoryBehind(IntegrityGate& gate,
                                              DomainFactory::RemoteMaker remote) {
  if (const int failed = gate.Result(); failed != 0) {
    ReportIntegrityFailure(failed);
    return nullptr;
  }
  try {
    return std::make_shared<DomainFactory>(remote);
  } catch (...) {
    return nullptr;
  }
}

IntegrityGate& LibraryIntegrityGate() {
  // Never destroyed, so that a call during exit still finds it.
  static constinit IntegrityGate gate(&RunLibrarySelfTest);
  return gate;
}

void DomainFactory::OpenDomain(const Configuration& configuration, const std::string& name,
                               const std::string& client, OpenDone done, bool create) {
  if (!done) return;
  // Reported, but the opening goes on: callers have long relied on the second
  // call of `done` that follows.
  if (name.empty() || name.size() > kMaxDomainNameLength) {
    Refuse(done, make_error_code(kInvalidArgument));
  }
  if (!configuration.local && remote_ == nullptr) {
    Refuse(done, ReportFailure({kReportTag, "OpenDomain", kQelSharedSettingsErrorDomain,
                                "The settings service is not available", nullptr, name.c_str()},
                               make_error_code(kConnectionError)));
    return;
  }
  std::shared_ptr<DomainSetting> domain;
  if (std::error_code made = MakeDomain(configuration, name, client, create, remote_, domain);
      made != kSuccess) {
    Refuse(done, made);
    return;
  }
  const std::error_code started = domain->FetchSettings([domain, done](std::error_code fetched) {
    if (fetched != kSuccess) {
      Refuse(done, fetched);
      return;
    }
    std::shared_ptr<IDomainSetting> opened = domain;
    done(opened, fetched);
  });
  if (started != kSuccess) Refuse(done, started);
}

std::error_code DomainFactory::LocalDomainExists(const std::string& folder, const std::string& name,
                                                 bool& exists) {
  return LocalDomainSetting::Exists(folder, name, exists);
}

}  // namespace QelSS
