#include "values/FailureReport.h"

namespace QelSS {

std::error_code ReportFailure(const FailureReport& report, std::error_code code) noexcept {
  const char* message = report.message ? report.message : "";
  const char* traceName = report.traceName ? report.traceName : report.operation;
  if (!traceName) traceName = "";

  QelErrReportRef handle =
      QelErrReportingBeginFailureReport(1, report.tag, "", "", kQelErrLocationCaller);
  QelTrace("%s", message);
  QelErrReportingAddStringFailure(handle, report.operation, report.errorDomain, message);
  QelTrace("%s failed (%d)", traceName, code.value());
  QelErrReportingAddIntFailure(handle, report.operation, report.errorDomain, code.value());
  if (report.domainName) {
    QelErrReportingAddStringErrorData(handle, "DomainName", report.domainName);
  }
  QelErrReportingEndFailureReport(handle);
  return code;
}

}  // namespace QelSS
