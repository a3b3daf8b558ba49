#pragma once

#include "DomainOptions.h"
#include "Status.h"

namespace QelSS::Qss {

// Checks the host key file before a local domain is opened, so that the user
// hears about the key rather than about a domain:
// - a key file that exists but cannot be read (no permission, a folder in its
//   place) fails, naming the key file;
// - a missing key file while the domain folder (or the default one) holds
//   domain files fails too, unless --new-key was given: the library would
//   otherwise make a new key in silence and leave those domains unreadable.
Status CheckHostKey(const DomainOptions& options);

}  // namespace QelSS::Qss
