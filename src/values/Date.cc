#include "values/Date.h"

#include <string>

#include "platform/report/Failure.h"
#include "platform/report/Report.h"
#include "platform/support/DateFormat.h"
#include "values/ValueSupport.h"

namespace QelSS {
namespace {

constexpr uint32_t kTag = QelErrTag("SDAC");
constexpr const char* kInitMessage = "Date: Failed to init";
constexpr int64_t kNanosecondsPerSecond = 1000000000;

// The platform keeps signed 64-bit nanoseconds; a time beyond them would wrap
// into another date, so it is refused as an argument the date cannot take.
int64_t NanosecondsFromSeconds(long seconds) {
  int64_t nanoseconds = 0;
  if (__builtin_mul_overflow(static_cast<int64_t>(seconds), kNanosecondsPerSecond, &nanoseconds)) {
    throw DataTypeException(kInvalidArgument, kInitMessage);
  }
  return nanoseconds;
}

int64_t NanosecondsFromAbsoluteTime(double absoluteTime) {
  const double nanoseconds = (absoluteTime + static_cast<double>(kSecondsFrom1970To2001)) * 1e9;
  // -2^63 is representable and in range; 2^63 is the first double beyond it.
  // The negated test also catches NaN.
  if (!(nanoseconds >= -0x1p63 && nanoseconds < 0x1p63)) {
    throw DataTypeException(kInvalidArgument, kInitMessage);
  }
  return static_cast<int64_t>(nanoseconds);
}

// Whole seconds rounded toward the past, so that a date just before 1970 shows
// as 23:59:59 of the last day of 1969.
int64_t FloorSeconds(int64_t nanoseconds) {
  int64_t seconds = nanoseconds / kNanosecondsPerSecond;
  if (nanoseconds % kNanosecondsPerSecond < 0) --seconds;
  return seconds;
}

}  // namespace

// Anchors the interface's type information in the library (see Interfaces.cc).
IDate::~IDate() = default;

Date::Date(xpc_object_t created) : Value(kValueTypeDate), object_(created, false) {
  if (!object_) throw DataTypeException(kAllocationFailed, kInitMessage);
}

Date::Date() : Date(xpc_date_create_from_current()) {}

Date::Date(long secondsSince1970)
    : Date(xpc_date_create(NanosecondsFromSeconds(secondsSince1970))) {}

Date::Date(double absoluteTime)
    : Date(xpc_date_create(NanosecondsFromAbsoluteTime(absoluteTime))) {}

// Unlike the other scalars, an unusable platform object is a bad argument here
// rather than a bad type, as the factory documents.
Date::Date(void* object)
    : Value(kValueTypeDate), object_(xpc_copy(static_cast<xpc_object_t>(object)), false) {
  if (xpc_get_type(object_.Get()) != XPC_TYPE_DATE) {
    throw DataTypeException(kInvalidArgument, kInitMessage);
  }
}

Date::Date(const Date& other)
    : IValue(other), IDate(other), Value(other), object_(xpc_copy(other.object_.Get()), false) {
  if (!object_) throw DataTypeException(kAllocationFailed, "Date: failed to init");
}

std::error_code Date::Description(std::string& out, unsigned int indent) const {
  std::string text;
  try {
    text = platform::FormatLongDateTime(FloorSeconds(xpc_date_get_value(object_.Get())));
  } catch (...) {
    ReportCaughtException(1, kTag, "Description");
    return kFailure;
  }
  return DescribeText(text, indent, kTag, out);
}

bool Date::operator==(const IValue& other) const {
  xpc_object_t theirs = PlatformObjectOfSameKind<IDate>(*this, other);
  return theirs != nullptr && xpc_equal(object_.Get(), theirs);
}

uint64_t Date::GetTime() const {
  return static_cast<uint64_t>(xpc_date_get_value(object_.Get())) /
         static_cast<uint64_t>(kNanosecondsPerSecond);
}

double Date::GetAbsoluteTime() const {
  return static_cast<double>(GetTime()) - static_cast<double>(kSecondsFrom1970To2001);
}

std::error_code Date::CopyXPCObject(xpc_object_t* out) const {
  if (out == nullptr) return kInvalidArgument;
  *out = xpc_copy(object_.Get());
  return kSuccess;
}

std::error_code Date::Clone(std::shared_ptr<IValue>& out) const {
  return MakeValue<Date>(out, *this);
}

std::error_code Date::Serialize(std::vector<uint8_t>& bytes) const {
  return SerializeValue(*this, kTag, bytes);
}

}  // namespace QelSS
