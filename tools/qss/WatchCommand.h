#pragma once

#include <ostream>
#include <string>

#include "DomainOptions.h"
#include "Status.h"

namespace QelSS::Qss {

// Prints the changes that other clients make to a domain of the settings
// service, one line each ("modified /path VALUE", "deleted /path"), until
// SIGINT or SIGTERM. A local domain is refused: its commits notify no one.
Status RunWatch(const DomainOptions& options, const std::string& domain, std::ostream& out);

}  // namespace QelSS::Qss
