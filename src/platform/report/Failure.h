#pragma once

// The library's one way of reporting a failure it does not pass silently up,
// and of reporting an exception caught at a boundary. Everything that reports
// goes through here; the raw reporting calls of Report.h are its own.

#include <cstdint>
#include <initializer_list>
#include <system_error>

#include "platform/report/Report.h"

namespace QelSS {

inline constexpr const char* kQelSharedSettingsErrorDomain = "QelSharedSettingsErrorDomain";
inline constexpr const char* kCngfFrameworkErrorDomain = "kCngfFrameworkErrorDomain";
inline constexpr const char* kKeyErrorDomain = "kKeyErrorDomain";
inline constexpr const char* kPredefineErrorDomain = "kPredefineErrorDomain";
inline constexpr const char* kOrxFrameworkErrorDomain = "OrxFrameworkErrorDomain";

struct FailureReport {
  uint32_t tag;                      // QelErrTag("SDOM")
  const char* operation;             // "Get", "ReadSettings", ...
  const char* errorDomain;           // one of the constants above
  const char* message;               // the failure's text
  const char* traceName = nullptr;   // the name in "<traceName> failed (%d)"; operation if null
  const char* domainName = nullptr;  // added as "DomainName" when not null
};

// A number the report carries besides the code, as an integer failure under
// its own name ("inGCCount").
struct ReportNumber {
  const char* name;
  int64_t value;
};

// One failure report, then `code` goes back to the caller unchanged. The
// record holds, in order: the message as a string failure (after a trace line
// with it), the "<traceName> failed (%d)" trace line, the code as an integer
// failure, each of `numbers`, and "DomainName" when given. A null message
// counts as empty.
std::error_code ReportFailure(const FailureReport& report, std::error_code code,
                              std::initializer_list<ReportNumber> numbers = {}) noexcept;

// A report holding the code alone, and the "<operation> failed (<code>)"
// trace line: for a check whose failure has no text.
void ReportCodeOnly(uint32_t componentTag, const char* operation, const char* errorDomain,
                    int64_t code) noexcept;

// Reports the exception being handled, through the exception-reporting
// overload that matches what was caught (logic error, runtime error, other
// standard exception, anything else). Call only from inside a catch block.
void ReportCaughtException(int severity, uint32_t componentTag, const char* operation) noexcept;

}  // namespace QelSS
