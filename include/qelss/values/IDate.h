#pragma once

#include <cstdint>

#include "qelss/Export.h"
#include "qelss/values/IValue.h"

namespace QelSS {

// Seconds from 1970-01-01 00:00 UTC to 2001-01-01 00:00 UTC, the origin of
// absolute time.
inline constexpr int64_t kSecondsFrom1970To2001 = 978307200;

// A point in time (tag kValueTypeDate), kept as signed nanoseconds since
// 1970-01-01 00:00 UTC. Immutable and safe to share between threads. Its
// description is the date and time in local time, in the long style of the
// current locale (LC_TIME).
class QELSS_EXPORT IDate : public virtual IValue {
 public:
  ~IDate() override;

  // Whole seconds since 1970: the stored nanoseconds taken as unsigned and
  // divided by 1,000,000,000. The fraction of a second is dropped, and a date
  // before 1970 gives a very large number rather than a negative one (its
  // nanoseconds read as two's complement); callers that store such dates
  // convert the result back to a signed number themselves.
  virtual uint64_t GetTime() const = 0;

  // GetTime() less kSecondsFrom1970To2001, as a double: seconds since 2001,
  // always whole. A date made from 0 seconds gives -978307200.0.
  virtual double GetAbsoluteTime() const = 0;
};

}  // namespace QelSS
