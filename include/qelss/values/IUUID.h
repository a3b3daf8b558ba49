#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <system_error>

#include "qelss/Export.h"
#include "qelss/values/IValue.h"

namespace QelSS {

// The 16 bytes of a UUID in network order, as they appear from left to right in
// its canonical text.
using UUIDBytes = std::array<uint8_t, 16>;

// A UUID (tag kValueTypeUUID). Immutable and safe to share between threads. Its
// description is the canonical text of GetString.
class QELSS_EXPORT IUUID : public virtual IValue {
 public:
  ~IUUID() override;

  // The value's own 16 bytes, valid while the value lives.
  virtual const uint8_t* GetBytes() const = 0;

  // Replaces `out` with the canonical text: 36 characters, upper-case
  // hexadecimal in groups 8-4-4-4-12 separated by "-". kFailure, `out`
  // untouched, only when memory runs out.
  [[nodiscard]] virtual std::error_code GetString(std::string& out) const = 0;
};

}  // namespace QelSS
