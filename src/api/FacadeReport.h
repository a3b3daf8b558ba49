#pragma once

#include <system_error>

namespace QelSS {

inline constexpr const char* kQSSDomainErrorDomain = "QSSDomainError";

// Both are called only from inside a catch block, and report the exception
// being handled under the facade's component tag.

// The failure-report sequence with message "exception"; returns kFailure.
std::error_code ReportFacadeException(const char* operation) noexcept;

// An exception report chosen by what was caught; returns the code of a caught
// library exception, kFailure for anything else.
std::error_code ReportTypedException(const char* operation) noexcept;

}  // namespace QelSS
