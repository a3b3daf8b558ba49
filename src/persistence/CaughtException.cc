#include "persistence/CaughtException.h"

#include <exception>
#include <stdexcept>

#include "platform/report/Report.h"

namespace QelSS {

void ReportCaughtException(int severity, uint32_t componentTag, const char* operation) noexcept {
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
