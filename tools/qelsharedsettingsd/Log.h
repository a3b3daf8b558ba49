#pragma once

// The service's own log: one line per event on standard error, with the
// priority prefix that the service manager's journal understands.

#include <syslog.h>

namespace QelSS::service {

void Log(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace QelSS::service
