#pragma once

#include <string>
#include <system_error>

#include "qelss/Export.h"

namespace QelException {

// Extra context kept beside the code of a StdErrException.
struct ExceptionData {
  std::string message;
};

// Base of every exception the library throws. Holds an error code and a short
// message; what() returns the message. Only constructors throw; factories and
// every public operation catch and turn the exception back into its code.
class QELSS_EXPORT StdErrException : public std::system_error {
 public:
  StdErrException(std::error_code code, const char* message);
  ~StdErrException() override;

  const ExceptionData& data() const noexcept { return data_; }
  const char* what() const noexcept override { return data_.message.c_str(); }

  // A heap copy of the most-derived exception, for carrying it across a queue.
  virtual StdErrException* copyThis() const;
  // Deletes this heap copy and throws an equal exception in its place.
  [[noreturn]] virtual void deleteAndRethrow();

 private:
  ExceptionData data_;
};

}  // namespace QelException
