#pragma once

#include <functional>
#include <memory>
#include <string>
#include <system_error>

#include "qelss/Export.h"
#include "qelss/domain/IDomainSetting.h"

namespace QelSS {

// Where a domain lives.
struct QELSS_EXPORT Configuration {
  // Folder of a local domain's files, e.g. "/tmp/EmbeddedDomain/CF".
  std::string folder;
  // true: the domain lives in this process and its file in `folder`;
  // false: the settings service keeps it.
  bool local = true;
};

// Opens domains by name. Obtain it with GetDomainFactory. Thread-safe.
class QELSS_EXPORT IDomainFactory {
 public:
  // Marker type whose only role is to change the exported signature of
  // GetDomainFactory when this interface changes; pass nullptr.
  struct _change_api_signature;

  using OpenDone = std::function<void(std::shared_ptr<IDomainSetting>&, std::error_code)>;

  virtual ~IDomainFactory();

  // Opens domain `name` (1 to 230 bytes), loads its state and calls `done` with
  // the domain and kSuccess, or with an empty domain and the failure. `client`
  // identifies the caller to the settings service; `create` makes a missing
  // domain start empty. `done` may run on the domain's queue or synchronously.
  // A name that is empty or longer than 230 bytes is reported to `done` as
  // kInvalidArgument, and the opening still goes on: `done` may then be called
  // a second time with the outcome. Callers must tolerate that.
  virtual void OpenDomain(const Configuration& configuration, const std::string& name,
                          const std::string& client, OpenDone done, bool create) = 0;
};

// The factory, after a once-per-process integrity self-test of the crypto and
// XML libraries. Empty when that test failed (every later call is empty too,
// without running the test again) or the factory could not be made.
QELSS_EXPORT std::shared_ptr<IDomainFactory> GetDomainFactory(
    IDomainFactory::_change_api_signature* reserved);

}  // namespace QelSS
