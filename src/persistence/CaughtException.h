#pragma once

#include <cstdint>

namespace QelSS {

// Reports the exception being handled through the exception-reporting overload
// that matches what was caught (logic error, runtime error, other standard
// exception, anything else). Call only from inside a catch block.
void ReportCaughtException(int severity, uint32_t componentTag, const char* operation) noexcept;

}  // namespace QelSS
