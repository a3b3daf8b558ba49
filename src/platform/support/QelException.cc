#include "qelss/platform/QelException.h"

namespace QelException {

StdErrException::StdErrException(std::error_code code, const char* message)
    : std::system_error(code, message ? message : ""), data_{message ? message : ""} {}

StdErrException::~StdErrException() = default;

StdErrException* StdErrException::copyThis() const { return new StdErrException(*this); }

void StdErrException::deleteAndRethrow() {
  StdErrException copy(*this);
  delete this;
  throw copy;
}

}  // namespace QelException
