#include "Status.h"

#include <utility>

#include "qelss/platform/ErrorCode.h"

namespace QelSS::Qss {

Status::Status(ExitStatus exit, std::string what, std::error_code code, std::string hint)
    : exit_(exit), what_(std::move(what)), code_(code), hint_(std::move(hint)) {}

Status Status::Usage(std::string what, std::error_code code, std::string hint) {
  return Status(ExitStatus::kUsage, std::move(what), code, std::move(hint));
}

Status Status::NotFound(std::string what, std::error_code code, std::string hint) {
  return Status(ExitStatus::kNotFound, std::move(what), code, std::move(hint));
}

Status Status::Failure(std::string what, std::error_code code, std::string hint) {
  return Status(ExitStatus::kFailure, std::move(what), code, std::move(hint));
}

Status Status::AsUsage() const {
  if (ok()) return *this;
  return Status(ExitStatus::kUsage, what_, code_, hint_);
}

void Status::Print(std::ostream& out) const {
  if (ok()) return;
  out << "qss: " << what_;
  if (code_) out << ": " << DescribeErrorCode(code_);
  out << '\n';
  if (!hint_.empty()) out << "qss: " << hint_ << '\n';
}

}  // namespace QelSS::Qss
