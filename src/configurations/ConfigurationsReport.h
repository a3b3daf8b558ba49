#pragma once

#include <system_error>

namespace QelSS {

// The framework's own bundle: user configurations are named from its table.
inline constexpr const char* kFrameworkBundleIdentifier = "com.qelvarin.QelSharedSettings2";

// Reports a failure of the configurations domain (component "CONF") and
// returns `code`. The trace line is "<operation> failed (%d)".
std::error_code ReportConfigurationsFailure(const char* operation, const char* message,
                                            std::error_code code) noexcept;

// Reports a failure of a configuration record (component "scfg") and returns
// `code`. The trace line is "<traceName> failed (%d)".
std::error_code ReportRecordFailure(const char* operation, const char* message,
                                    const char* traceName, std::error_code code) noexcept;

}  // namespace QelSS
