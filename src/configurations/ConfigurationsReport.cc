#include "configurations/ConfigurationsReport.h"

#include "platform/report/Failure.h"

namespace QelSS {

std::error_code ReportConfigurationsFailure(const char* operation, const char* message,
                                            std::error_code code) noexcept {
  return ReportFailure({QelErrTag("CONF"), operation, kCngfFrameworkErrorDomain, message}, code);
}

std::error_code ReportRecordFailure(const char* operation, const char* message,
                                    const char* traceName, std::error_code code) noexcept {
  return ReportFailure({QelErrTag("scfg"), operation, kOrxFrameworkErrorDomain, message, traceName},
                       code);
}

}  // namespace QelSS
