#include "api/FacadeReport.h"

#include "platform/report/Failure.h"
#include "platform/report/Report.h"
#include "qelss/platform/ErrorCode.h"
#include "qelss/platform/QelException.h"

namespace QelSS {
namespace {

constexpr uint32_t kFacadeTag = QelErrTag("SDOM");

}  // namespace

std::error_code ReportFacadeException(const char* operation) noexcept {
  return ReportFailure({kFacadeTag, operation, kQSSDomainErrorDomain, "exception"},
                       make_error_code(kFailure));
}

std::error_code ReportTypedException(const char* operation) noexcept {
  ReportCaughtException(1, kFacadeTag, operation);
  try {
    throw;
  } catch (const QelException::StdErrException& e) {
    return e.code();
  } catch (...) {
    return make_error_code(kFailure);
  }
}

}  // namespace QelSS
