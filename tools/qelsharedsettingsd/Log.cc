#include "Log.h"

#include <cstdarg>
#include <cstdio>

namespace QelSS::service {

void Log(int priority, const char* format, ...) {
  char line[1024];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  // One call, so that lines of different threads never interleave.
  std::fprintf(stderr, "<%d>%s\n", priority, line);
}

}  // namespace QelSS::service
