#pragma once

#include <functional>
#include <memory>
#include <string>
#include <system_error>

#include "qelss/Export.h"
#include "qelss/api/QSSDomain.h"
#include "qelss/configurations/OrxConfiguration.h"
#include "qelss/domain/IObserver.h"
#include "qelss/platform/Dispatch.h"
#include "qelss/values/IHash.h"

namespace QelSS {

// The numbered configurations under which copies of domains are kept: the
// current configuration number and the user configurations live in the fixed
// local domain "configurations" (folder "/tmp/EmbeddedDomain/CF"), beside
// read-only predefined configurations that an application bundle ships as its
// "Configurations" property list.
//
// Layout of the fixed domain:
//   "/currentID"        uint64 number; absent means configuration 3
//   "/Configurations"   hash: decimal configuration number -> configuration hash
//
// Thread safety: as the facade it wraps; the predefined configurations are
// loaded during Create and never change afterwards.
//
// Failures of the operations below are reported (component "CONF") and
// returned; kDomainNotOpen never occurs because Create fails instead.
class QELSS_EXPORT ConfigurationsDomain {
 public:
  // Opens the fixed domain (locally when `create` is true, through the
  // settings service otherwise) and loads the predefined configurations of
  // bundle `bundleIdentifier`. On success `out` holds the object; on failure
  // it is untouched and the failure is reported:
  //   kNotFound   no bundle with that identifier
  //   kFailure    the bundle has no readable "Configurations" property list
  //   other       the facade's failure to open the fixed domain
  [[nodiscard]] static std::error_code Create(std::shared_ptr<ConfigurationsDomain>& out,
                                              bool create, const std::string& bundleIdentifier);

  // Loads the predefined configurations once; kSuccess when already loaded.
  [[nodiscard]] std::error_code loadPredefinedConfigurations();

  // The current configuration number: 3 when none was ever set.
  [[nodiscard]] std::error_code getCurrentConfigurationID(unsigned int& id) const;

  // Makes `id` current and commits it.
  [[nodiscard]] std::error_code setCurrentConfigurationID(unsigned int id);
  [[nodiscard]] std::error_code setCurrentConfiguration(
      const std::shared_ptr<OrxConfiguration>& configuration);

  // The configuration numbered `id`: the predefined one when there is one
  // (stamped with this domain's bundle identifier), otherwise the user
  // configuration (stamped with the framework's own bundle identifier).
  // kNotFound when neither has it; `out` is written only on success.
  [[nodiscard]] std::error_code getConfigurationWithID(
      unsigned int id, std::shared_ptr<OrxConfiguration>& out) const;

  // Fills `names` (created when null) with decimal configuration number ->
  // display name (String) of every predefined and user configuration; a
  // number in both sets is named from the predefined one.
  [[nodiscard]] std::error_code getNamesOfPredefinedAndUserConfigs(std::shared_ptr<IHash>& names);

  // The facade's operations on the fixed domain.
  template <FacadeValue T>
  [[nodiscard]] std::error_code Get(const char* key, T& value) const;
  template <FacadeValue T>
  [[nodiscard]] std::error_code SetCommit(const char* key, const T& value);
  [[nodiscard]] std::error_code Delete(const char* key);
  [[nodiscard]] std::error_code DeleteAndCommit(const char* key);
  [[nodiscard]] std::error_code CreateTransaction();
  [[nodiscard]] std::error_code CommitTransaction();
  [[nodiscard]] std::error_code CommitTransaction(std::function<void(std::error_code)> done);
  [[nodiscard]] std::error_code AddObserver(dispatch_queue_t queue,
                                            const std::shared_ptr<IObserver>& observer);
  [[nodiscard]] std::error_code RemoveObserver(const std::shared_ptr<IObserver>& observer);

  struct ConstructionKey {
    explicit ConstructionKey() = default;
  };
  // Throws QelSharedSettingsException when the domain cannot be opened or the
  // predefined configurations cannot be loaded; use Create.
  ConfigurationsDomain(ConstructionKey, bool create, const std::string& bundleIdentifier);
  ~ConfigurationsDomain();

 private:
  [[nodiscard]] std::error_code FindPredefined(const std::string& key,
                                               std::shared_ptr<IValue>& found) const;
  [[nodiscard]] std::error_code FindUserConfiguration(const std::string& key,
                                                      std::shared_ptr<IValue>& found) const;

  // Constant after construction.
  std::shared_ptr<QSSDomain> domain_;
  std::shared_ptr<IHash> predefined_;
  std::string bundleIdentifier_;
};

}  // namespace QelSS
