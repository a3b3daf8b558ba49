#include "platform/report/Failure.h"

#include <exception>
#include <stdexcept>

namespace QelSS {

std::error_code ReportFailure(const FailureReport& report, std::error_code code,
                              std::initializer_list<ReportNumber> numbers) noexcept {
  const char* traceName = report.traceName ? report.traceName : report.operation;
  if (!traceName) traceName = "";
  QelErrReportRef handle =
      QelErrReportingBeginFailureReport(1, report.tag, "", "", kQelErrLocationCaller);
  const char* message = report.message ? report.message : "";
  QelTrace("%s", message);
  QelErrReportingAddStringFailure(handle, report.operation, report.errorDomain, message);
  QelTrace("%s failed (%d)", traceName, code.value());
  QelErrReportingAddIntFailure(handle, report.operation, report.errorDomain, code.value());
  for (const ReportNumber& number : numbers) {
    QelErrReportingAddIntFailure(handle, number.name, report.errorDomain, number.value);
  }
  if (report.domainName) {
    QelErrReportingAddStringErrorData(handle, "DomainName", report.domainName);
  }
  QelErrReportingEndFailureReport(handle);
  return code;
}

void ReportCodeOnly(uint32_t componentTag, const char* operation, const char* errorDomain,
                    int64_t code) noexcept {
  QelErrReportRef handle =
      QelErrReportingBeginFailureReport(1, componentTag, "", "", kQelErrLocationCaller);
  QelErrReportingAddIntFailure(handle, operation, errorDomain, code);
  QelTrace("%s failed (%lld)", operation, static_cast<long long>(code));
  QelErrReportingEndFailureReport(handle);
}

void ReportCaughtException(int severity, uint32_t componentTag, const char* operation) noexcept {
  // Rethrown to pick the reporter's overload by what was really caught.
  try {
    throw;
  } catch (const std::logic_error& e) {
    QelErrReportingReportCxxException(severity, componentTag, "", operation, kQelErrLocationCaller,
                                      e);
  } catch (const std::runtime_error& e) {
    QelErrReportingReportCxxException(severity, componentTag, "", operation, kQelErrLocationCaller,
                                      e);
  } catch (const std::exception& e) {
    QelErrReportingReportCxxException(severity, componentTag, "", operation, kQelErrLocationCaller,
                                      e);
  } catch (...) {
    QelErrReportingReportCxxException(severity, componentTag, "", operation, kQelErrLocationCaller,
                                      std::current_exception());
  }
}

}  // namespace QelSS
