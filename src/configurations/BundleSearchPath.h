#pragma once

#include <string>
#include <vector>

namespace QelSS {

// The data directories searched for bundles, first to last: those added with
// AddBundleSearchDirectory (newest first), then /usr/local/share, /usr/share.
std::vector<std::string> BundleSearchDirectories();

}  // namespace QelSS
