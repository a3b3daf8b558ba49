#pragma once

#include <string>

#include "qelss/Export.h"

namespace QelSS {

// Application bundles hold the predefined configurations and their localised
// names. A bundle is the directory
//   <datadir>/qelvarin/bundles/<bundle identifier>/
// holding "Configurations.plist" (an XML property list) and
// "<language>.lproj/Configurations.strings". The data directories searched
// are /usr/local/share then /usr/share.
//
// Puts `datadir` in front of the data directories searched, for the whole
// process; the directory added last is searched first. Lets an application
// that is not installed (or a test) use its own bundles. Thread-safe.
QELSS_EXPORT void AddBundleSearchDirectory(const std::string& datadir);

}  // namespace QelSS
