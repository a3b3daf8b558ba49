#pragma once

#include <ostream>
#include <string>
#include <system_error>

namespace QelSS::Qss {

// What `qss` exits with. Scripts test these numbers, so they never change.
enum class ExitStatus : int {
  kOk = 0,
  kUsage = 1,     // the command line is wrong: nothing was opened or written
  kNotFound = 2,  // the key asked for is absent
  kFailure = 3,   // the library, the settings service or the system refused
};

// The outcome of a command or of one of its steps: success, or a failure that
// says what went wrong, the library's code for it and what the user can do.
class Status {
 public:
  static Status Ok() { return Status(); }
  static Status Usage(std::string what, std::error_code code, std::string hint);
  static Status NotFound(std::string what, std::error_code code, std::string hint);
  static Status Failure(std::string what, std::error_code code, std::string hint);

  // The same failure, blamed on the command line (exit status 1): for a step
  // whose input came from it.
  Status AsUsage() const;

  bool ok() const { return exit_ == ExitStatus::kOk; }
  ExitStatus exit() const { return exit_; }
  const std::error_code& code() const { return code_; }

  // "qss: <what>: <code name> (<number>)" and, when there is a hint, a second
  // line with it.
  void Print(std::ostream& out) const;

 private:
  Status() = default;
  Status(ExitStatus exit, std::string what, std::error_code code, std::string hint);

  ExitStatus exit_ = ExitStatus::kOk;
  std::string what_;
  std::error_code code_;
  std::string hint_;
};

}  // namespace QelSS::Qss
