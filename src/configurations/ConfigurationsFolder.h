#pragma once

#include <string>

namespace QelSS {

// The folder of the fixed configurations domain: "/tmp/EmbeddedDomain/CF".
std::string ConfigurationsFolder();

// Points the fixed domain at another folder for the whole process and returns
// the folder it replaces; an empty folder restores the real one. Tests use it
// so that parallel runs never share (or clobber) the real folder. Not for
// production use.
std::string SetConfigurationsFolderForTesting(std::string folder);

}  // namespace QelSS
