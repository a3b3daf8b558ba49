#pragma once

// The library's one way of reporting a failure it does not pass silently up: a
// trace line with the message, a structured failure report (string failure, the
// "<name> failed (%d)" trace line, integer failure, optional "DomainName"), then
// the code goes back to the caller unchanged.

#include <cstdint>
#include <system_error>

#include "platform/report/Report.h"

namespace QelSS {

inline constexpr const char* kQelSharedSettingsErrorDomain = "QelSharedSettingsErrorDomain";
inline constexpr const char* kCngfFrameworkErrorDomain = "kCngfFrameworkErrorDomain";
inline constexpr const char* kKeyErrorDomain = "kKeyErrorDomain";
inline constexpr const char* kPredefineErrorDomain = "kPredefineErrorDomain";
inline constexpr const char* kOrxFrameworkErrorDomain = "OrxFrameworkErrorDomain";

struct FailureReport {
  uint32_t tag;                        // QelErrTag("SDOM")
  const char* operation;               // "Get", "ReadSettings", ...
  const char* errorDomain;             // one of the constants above
  const char* message;                 // the failure's text
  const char* traceName = nullptr;     // the name in "<traceName> failed (%d)"; operation if null
  const char* domainName = nullptr;    // added as "DomainName" when not null
};

// Runs the sequence and returns `code` unchanged.
std::error_code ReportFailure(const FailureReport& report, std::error_code code) noexcept;

}  // namespace QelSS
