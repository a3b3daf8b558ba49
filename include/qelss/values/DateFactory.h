#pragma once

#include <memory>
#include <system_error>
#include <vector>

#include "qelss/Export.h"
#include "qelss/values/IDate.h"

namespace QelSS {

// Makes dates. Pass exactly long (seconds since 1970) or double (absolute time,
// seconds since 2001): a plain int literal matches neither overload better. On
// success `out` holds the new value (whatever it held is released) and the
// result is kSuccess; on failure `out` is untouched and the result says why.
class QELSS_EXPORT DateFactory {
 public:
  DateFactory() = delete;

  // The current time. kAllocationFailed when the platform object cannot be made.
  [[nodiscard]] static std::error_code Create(std::shared_ptr<IDate>& out);

  // Whole seconds since 1970-01-01 00:00 UTC, negative before it.
  // kInvalidArgument when the time is out of the range of signed 64-bit
  // nanoseconds (about the years 1678 to 2262).
  [[nodiscard]] static std::error_code Create(std::shared_ptr<IDate>& out, long secondsSince1970);

  // Seconds since 2001-01-01 00:00 UTC; the fraction is kept to the nanosecond
  // (as far as a double carries it) and truncated toward zero. kInvalidArgument
  // for NaN, infinities and times out of the range above.
  [[nodiscard]] static std::error_code Create(std::shared_ptr<IDate>& out, double absoluteTime);

  // Takes a platform date (xpc_object_t); the value shares the immutable object.
  // kInvalidArgument, not kInvalidType, when it is NULL or another kind.
  [[nodiscard]] static std::error_code Create(std::shared_ptr<IDate>& out, void* object);

  // As NumberFactory::CreateFromBytes, for dates.
  [[nodiscard]] static std::error_code CreateFromBytes(std::shared_ptr<IDate>& out,
                                                       const std::vector<unsigned char>& bytes);
};

}  // namespace QelSS
