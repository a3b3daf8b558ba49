#pragma once

#include <cstddef>

#include "qelss/Export.h"
#include "qelss/values/IValue.h"

namespace QelSS {

// A run of raw bytes (tag kValueTypeData), possibly empty. Immutable and safe
// to share between threads. Its description is every byte as two lower-case
// hexadecimal digits, bytes separated by one space ("0a ff 10").
class QELSS_EXPORT IData : public virtual IValue {
 public:
  ~IData() override;

  // Number of bytes.
  virtual size_t GetLength() const = 0;

  // The value's own bytes, valid while the value lives; GetLength() of them may
  // be read. Never NULL, even for empty data.
  virtual const unsigned char* GetBytes() const = 0;
};

}  // namespace QelSS
