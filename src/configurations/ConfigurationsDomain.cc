#include "qelss/configurations/ConfigurationsDomain.h"

#include <climits>
#include <cstdlib>
#include <string>
#include <vector>

#include "api/FacadeValueTypes.h"
#include "configurations/Bundle.h"
#include "configurations/ConfigurationsFolder.h"
#include "configurations/ConfigurationsReport.h"
#include "platform/report/Failure.h"
#include "platform/report/Report.h"
#include "qelss/platform/ErrorCode.h"
#include "qelss/values/Exceptions.h"
#include "qelss/values/HashFactory.h"
#include "qelss/values/StringFactory.h"

namespace QelSS {
namespace {

constexpr const char* kDomainName = "configurations";
constexpr const char* kDomainIdentity = "CF-QSSClient";
constexpr const char* kCurrentConfigurationIDKey = "/currentID";
constexpr const char* kConfigurationsKey = "/Configurations";
constexpr const char* kResourceName = "Configurations";
constexpr unsigned int kDefaultConfiguration = 3;
// The longest resource path the bundle lookup hands back, terminator included.
constexpr size_t kMaxResourcePath = 1024;

std::error_code Forwarded(const char* operation, std::error_code rc) {
  if (Succeeded(rc)) return rc;
  return ReportConfigurationsFailure(operation, "failed", rc);
}

std::error_code KeysOf(const std::shared_ptr<IHash>& hash, std::vector<std::string>& keys) {
  if (!hash) return make_error_code(kSuccess);
  return hash->Iterate([&keys](const std::shared_ptr<IString>& key, const std::shared_ptr<IValue>&,
                               bool&) { keys.emplace_back(key->GetCString()); });
}

}  // namespace

ConfigurationsDomain::ConfigurationsDomain(ConstructionKey, bool create,
                                           const std::string& bundleIdentifier)
    : bundleIdentifier_(bundleIdentifier) {
  const std::string folder = ConfigurationsFolder();
  std::error_code rc =
      QSSDomain::Create(domain_, kDomainName, kDomainIdentity, folder.c_str(), create);
  if (!Succeeded(rc)) throw QelSharedSettingsException(rc, "Failed to allocate QSSDomain Object");
  rc = loadPredefinedConfigurations();
  if (!Succeeded(rc)) {
    throw QelSharedSettingsException(rc, "Failed to load predefined configurations");
  }
}

ConfigurationsDomain::~ConfigurationsDomain() = default;

std::error_code ConfigurationsDomain::Create(std::shared_ptr<ConfigurationsDomain>& out,
                                             bool create, const std::string& bundleIdentifier) {
  std::error_code rc = make_error_code(kFailure);
  try {
    out = std::make_shared<ConfigurationsDomain>(ConstructionKey{}, create, bundleIdentifier);
    return make_error_code(kSuccess);
  } catch (const QelException::StdErrException& e) {
    rc = e.code();
  } catch (...) {
  }
  return ReportConfigurationsFailure("constructor", "exception", rc);
}

std::error_code ConfigurationsDomain::loadPredefinedConfigurations() {
  if (predefined_) return make_error_code(kSuccess);
  std::shared_ptr<const Bundle> bundle;
  if (!Succeeded(Bundle::Find(bundleIdentifier_, bundle))) return make_error_code(kNotFound);
  std::string path;
  if (!Succeeded(bundle->ResourcePath(kResourceName, "plist", path))) {
    return make_error_code(kFailure);
  }
  if (path.size() >= kMaxResourcePath) return make_error_code(kNotFound);
  xpc_object_t dictionary = nullptr;
  if (!Succeeded(bundle->CopyDictionaryResource(kResourceName, dictionary))) {
    return make_error_code(kFailure);
  }
  std::shared_ptr<IHash> predefined;
  const std::error_code rc = HashFactory::Create(predefined, static_cast<void*>(dictionary));
  xpc_release(dictionary);
  if (Succeeded(rc)) predefined_ = std::move(predefined);
  return rc;
}

std::error_code ConfigurationsDomain::getCurrentConfigurationID(unsigned int& id) const {
  unsigned long long current = 0;
  const std::error_code rc = domain_->Get(kCurrentConfigurationIDKey, current);
  if (rc == make_error_code(kNotFound)) {
    id = kDefaultConfiguration;
    return make_error_code(kSuccess);
  }
  if (!Succeeded(rc)) {
    return ReportConfigurationsFailure("QSSDomain::Get", "Failed to get kCurrentConfigurationIDKey",
                                       rc);
  }
  id = static_cast<unsigned int>(current);
  return rc;
}

std::error_code ConfigurationsDomain::setCurrentConfigurationID(unsigned int id) {
  return SetCommit(kCurrentConfigurationIDKey, static_cast<unsigned long long>(id));
}

std::error_code ConfigurationsDomain::setCurrentConfiguration(
    const std::shared_ptr<OrxConfiguration>& configuration) {
  if (!configuration) return make_error_code(kInvalidArgument);
  unsigned int id = 0;
  const std::error_code rc = configuration->getID(id);
  if (!Succeeded(rc)) return rc;
  return setCurrentConfigurationID(id);
}

std::error_code ConfigurationsDomain::FindPredefined(const std::string& key,
                                                     std::shared_ptr<IValue>& found) const {
  if (!predefined_) return make_error_code(kNotFound);
  return predefined_->Get(key.c_str(), found);
}

std::error_code ConfigurationsDomain::FindUserConfiguration(const std::string& key,
                                                            std::shared_ptr<IValue>& found) const {
  std::shared_ptr<IHash> user;
  const std::error_code rc = Get(kConfigurationsKey, user);
  if (!Succeeded(rc)) return rc;
  return user->Get(key.c_str(), found);
}

std::error_code ConfigurationsDomain::getConfigurationWithID(
    unsigned int id, std::shared_ptr<OrxConfiguration>& out) const {
  try {
    const std::string key = std::to_string(id);
    std::shared_ptr<IValue> found;
    std::string bundleIdentifier = bundleIdentifier_;
    std::error_code rc = FindPredefined(key, found);
    if (!Succeeded(rc)) {
      bundleIdentifier = kFrameworkBundleIdentifier;
      rc = FindUserConfiguration(key, found);
    }
    if (!Succeeded(rc)) return rc;
    auto configuration = std::make_shared<OrxConfiguration>();
    rc = configuration->TakeConfiguration(found, bundleIdentifier);
    if (Succeeded(rc)) out = std::move(configuration);
    return rc;
  } catch (...) {
    ReportCaughtException(1, QelErrTag("CONF"), "getConfigurationWithID");
    return make_error_code(kFailure);
  }
}

std::error_code ConfigurationsDomain::getNamesOfPredefinedAndUserConfigs(
    std::shared_ptr<IHash>& names) {
  std::error_code rc = names ? make_error_code(kSuccess) : HashFactory::Create(names);
  if (!Succeeded(rc)) return rc;

  std::vector<std::string> keys;
  rc = KeysOf(predefined_, keys);
  if (!Succeeded(rc)) return rc;
  // No user configuration yet is not a failure.
  std::shared_ptr<IValue> user;
  if (Succeeded(domain_->Get(kConfigurationsKey, user))) {
    std::shared_ptr<IHash> userHash;
    rc = ValueHelper::Get(user, userHash);
    if (Succeeded(rc)) rc = KeysOf(userHash, keys);
    if (!Succeeded(rc)) return rc;
  }

  for (const std::string& key : keys) {
    std::shared_ptr<OrxConfiguration> configuration;
    std::string name;
    rc = getConfigurationWithID(static_cast<unsigned int>(std::atoi(key.c_str())), configuration);
    if (Succeeded(rc)) rc = configuration->getName(name);
    std::shared_ptr<IString> text;
    if (Succeeded(rc)) rc = StringFactory::Create(text, name);
    if (Succeeded(rc)) rc = names->Set(key.c_str(), text);
    if (!Succeeded(rc)) return rc;
  }
  return make_error_code(kSuccess);
}

template <FacadeValue T>
std::error_code ConfigurationsDomain::Get(const char* key, T& value) const {
  return Forwarded("Get", domain_->Get(key, value));
}

template <FacadeValue T>
std::error_code ConfigurationsDomain::SetCommit(const char* key, const T& value) {
  return Forwarded("SetCommit", domain_->SetCommit(key, value));
}

std::error_code ConfigurationsDomain::Delete(const char* key) {
  return Forwarded("Delete", domain_->Delete(key));
}

std::error_code ConfigurationsDomain::DeleteAndCommit(const char* key) {
  return Forwarded("DeleteAndCommit", domain_->DeleteAndCommit(key));
}

std::error_code ConfigurationsDomain::CreateTransaction() {
  return Forwarded("CreateTransaction", domain_->CreateTransaction());
}

std::error_code ConfigurationsDomain::CommitTransaction() {
  return Forwarded("CommitTransaction", domain_->CommitTransaction());
}

std::error_code ConfigurationsDomain::CommitTransaction(std::function<void(std::error_code)> done) {
  return Forwarded("CommitTransaction", domain_->CommitTransaction(std::move(done)));
}

std::error_code ConfigurationsDomain::AddObserver(dispatch_queue_t queue,
                                                  const std::shared_ptr<IObserver>& observer) {
  return Forwarded("AddObserver", domain_->AddObserver(queue, observer));
}

std::error_code ConfigurationsDomain::RemoveObserver(const std::shared_ptr<IObserver>& observer) {
  return Forwarded("RemoveObserver", domain_->RemoveObserver(observer));
}

#define QELSS_CONFIGURATIONS_INSTANTIATE(T)                                  \
  template std::error_code ConfigurationsDomain::Get(const char*, T&) const; \
  template std::error_code ConfigurationsDomain::SetCommit(const char*, const T&);

QELSS_FOR_EACH_FACADE_VALUE(QELSS_CONFIGURATIONS_INSTANTIATE)

#undef QELSS_CONFIGURATIONS_INSTANTIATE

}  // namespace QelSS
