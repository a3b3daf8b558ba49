#include "platform/support/DateFormat.h"

#include <ctime>
#include <limits>
#include <vector>

namespace QelSS::platform {
namespace {

constexpr size_t kMaxFormatted = 4096;

}  // namespace

std::string FormatLongDateTime(int64_t secondsSince1970) {
  if (secondsSince1970 < std::numeric_limits<time_t>::min() ||
      secondsSince1970 > std::numeric_limits<time_t>::max()) {
    return std::to_string(secondsSince1970);
  }
  const time_t seconds = static_cast<time_t>(secondsSince1970);
  std::tm local{};
  if (!localtime_r(&seconds, &local)) return std::to_string(secondsSince1970);

  // strftime gives 0 both for "too small" and for an empty result; grow the
  // buffer a few times before settling for the empty text.
  for (size_t size = 128; size <= kMaxFormatted; size *= 2) {
    std::vector<char> buffer(size);
    const size_t length = std::strftime(buffer.data(), buffer.size(), "%c", &local);
    if (length > 0) return std::string(buffer.data(), length);
  }
  return std::string();
}

}  // namespace QelSS::platform
