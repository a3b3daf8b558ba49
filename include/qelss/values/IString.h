#pragma once

#include <cstddef>
#include <string>
#include <system_error>

#include "qelss/Export.h"
#include "qelss/values/IValue.h"

namespace QelSS {

// A UTF-8 text (tag kValueTypeString). Immutable and safe to share between
// threads. The text ends at its first NUL byte.
class QELSS_EXPORT IString : public virtual IValue {
 public:
  ~IString() override;

  // Bytes of the text, without the terminating NUL.
  virtual size_t GetLength() const = 0;

  // The value's own NUL-terminated text, valid while the value lives.
  virtual const char* GetCString() const = 0;

  // The text as wide characters, converted with the process's current locale
  // (LC_CTYPE). kConversionError, output untouched, when the bytes are not valid
  // in that locale (any byte above 0x7f in the "C" locale, for example).
  [[nodiscard]] virtual std::error_code GetWString(std::wstring& out) const = 0;
};

}  // namespace QelSS
