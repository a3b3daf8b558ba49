#include "ConfigCommands.h"

#include <charconv>
#include <cstdlib>
#include <map>
#include <memory>

#include "qelss/api/Settings.h"
#include "qelss/configurations/ConfigurationsDomain.h"
#include "qelss/values/IString.h"

namespace QelSS::Qss {
namespace {

std::error_code Code(ErrorCode code) { return make_error_code(code); }

Status OpenFailure(const DomainOptions& options, std::error_code code) {
  if (options.service) {
    return Status::Failure("the settings service is not available", code,
                           "run without --service to use the configurations of this machine");
  }
  if (code == Code(kNotFound)) {
    return Status::Failure(std::string("the bundle ") + kFrameworkBundle +
                               " with the predefined configurations is not installed",
                           code,
                           "install it under /usr/share/qelvarin/bundles, or give the data "
                           "folder that holds qelvarin/bundles with --bundles");
  }
  if (code == Code(kFailure)) {
    return Status::Failure(
        std::string("the bundle ") + kFrameworkBundle + " has no readable Configurations.plist",
        code, "reinstall the bundle");
  }
  return Status::Failure("cannot open the configurations", code,
                         "the configurations domain is kept in /tmp/EmbeddedDomain/CF; move a "
                         "damaged file there away to start afresh");
}

Status Open(const DomainOptions& options, std::shared_ptr<ConfigurationsDomain>& out) {
  const std::error_code opened =
      ConfigurationsDomain::Create(out, !options.service, kFrameworkBundle);
  if (!Succeeded(opened)) return OpenFailure(options, opened);
  return Status::Ok();
}

}  // namespace

Status RunConfigCurrent(const DomainOptions& options, std::ostream& out) {
  std::shared_ptr<ConfigurationsDomain> configurations;
  if (Status opened = Open(options, configurations); !opened.ok()) return opened;
  unsigned int current = 0;
  const std::error_code read = configurations->getCurrentConfigurationID(current);
  if (!Succeeded(read)) return Status::Failure("cannot read the current configuration", read, "");
  out << current << '\n';
  return Status::Ok();
}

Status RunConfigSet(const DomainOptions& options, const std::string& number) {
  unsigned int id = 0;
  const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), id);
  if (error != std::errc() || end != number.data() + number.size() ||
      id == Settings::kCurrentConfiguration) {
    return Status::Usage("\"" + number + "\" is not a configuration number", Code(kInvalidArgument),
                         "give a whole number from 0 to 4294967294");
  }
  std::shared_ptr<ConfigurationsDomain> configurations;
  if (Status opened = Open(options, configurations); !opened.ok()) return opened;
  const std::error_code set = configurations->setCurrentConfigurationID(id);
  if (!Succeeded(set))
    return Status::Failure("cannot make configuration " + number + " current", set, "");
  return Status::Ok();
}

Status RunConfigList(const DomainOptions& options, std::ostream& out) {
  std::shared_ptr<ConfigurationsDomain> configurations;
  if (Status opened = Open(options, configurations); !opened.ok()) return opened;
  std::shared_ptr<IHash> names;
  const std::error_code listed = configurations->getNamesOfPredefinedAndUserConfigs(names);
  if (!Succeeded(listed)) return Status::Failure("cannot list the configurations", listed, "");
  std::map<unsigned long, std::string> byNumber;
  (void)names->Iterate(
      [&](const std::shared_ptr<IString>& key, const std::shared_ptr<IValue>& value, bool&) {
        const auto name = std::dynamic_pointer_cast<IString>(value);
        byNumber[std::strtoul(key->GetCString(), nullptr, 10)] = name ? name->GetCString() : "";
      });
  for (const auto& [number, name] : byNumber) out << number << '\t' << name << '\n';
  return Status::Ok();
}

}  // namespace QelSS::Qss
