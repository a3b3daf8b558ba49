#pragma once

#include <optional>
#include <ostream>
#include <string>

#include "DomainOptions.h"
#include "Status.h"

namespace QelSS::Qss {

// Imports, once, every domain file dropped in "<predefines>/Domains/" (by
// default the administrator's folder of this user) into the local domains of
// the options' folder, or into the settings service's domains, and prints one
// line per file: imported, refused (with why) or left for later. Fails when a
// file was refused.
Status RunPredefine(const DomainOptions& options, const std::optional<std::string>& predefines,
                    std::ostream& out);

}  // namespace QelSS::Qss
