#pragma once

#include <string>

namespace QelSS::Qss {

// The folder of local domains when --folder is not given, resolved the way the
// library places its own per-user data (the host key among it):
//   $XDG_DATA_HOME/qelvarin/domains    when XDG_DATA_HOME is an absolute path
//   /var/lib/qelvarin/domains          for root
//   ~/.local/share/qelvarin/domains    for everyone else
// Empty when no home folder can be found. Nothing is created here: opening a
// domain creates the missing levels.
std::string DefaultFolder();

// The host key file that encrypts every local domain of this user, placed as
// the library places it: "<data root>/qelvarin/DomainSettings/com.qelvarin.QSS".
// Empty when no home folder can be found.
std::string HostKeyFile();

}  // namespace QelSS::Qss
