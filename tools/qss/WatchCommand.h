#pragma once

#include <ostream>
#include <string>

#include "DomainOptions.h"
#include "Status.h"

namespace QelSS::Qss {

// Prints the changes that other clients make to a domain of the settings
// service, one line each ("modified /path VALUE", "deleted /path"), until
// SIGINT or SIGTERM. With a `path`, only the changes at that path, under it,
// or of a level above it (which replace it) are printed. A local domain is
// refused: its commits notify no one.
Status RunWatch(const DomainOptions& options, const std::string& domain, const std::string& path,
                std::ostream& out);

}  // namespace QelSS::Qss
