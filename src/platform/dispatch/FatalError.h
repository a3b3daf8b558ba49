#pragma once

#include <cstdint>
#include <string>

namespace QelSS::platform {

// Ends the process after one line on stderr. Used only for misuse of the dispatch
// layer that would otherwise hang or corrupt it; this crash message is the one
// place where the library prints.
[[noreturn]] void DispatchFatal(const std::string& message) noexcept;

// "block 'SSHC' (changes state)" for crash messages; "untagged block" for tag 0.
std::string DescribeBlock(uint32_t tag, uint32_t flags);

}  // namespace QelSS::platform
