#include "platform/dispatch/FatalError.h"

#include <cstdio>
#include <cstdlib>

#include "qelss/platform/Dispatch.h"

namespace QelSS::platform {

void DispatchFatal(const std::string& message) noexcept {
  std::fprintf(stderr, "QelSS dispatch: %s\n", message.c_str());
  std::fflush(stderr);
  std::abort();
}

std::string DescribeBlock(uint32_t tag, uint32_t flags) {
  std::string text;
  if (tag == 0) {
    text = "untagged block";
  } else {
    text = "block '";
    for (int shift = 24; shift >= 0; shift -= 8) {
      const char c = static_cast<char>((tag >> shift) & 0xFF);
      text += (c >= 0x20 && c < 0x7F) ? c : '?';
    }
    text += "'";
  }
  if (flags & DispatchQueue::kRunChangesState) text += " (changes state)";
  return text;
}

}  // namespace QelSS::platform
