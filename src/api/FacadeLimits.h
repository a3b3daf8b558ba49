#pragma once

#include <chrono>

namespace QelSS {

// How long the facade waits for a domain to load and for a synchronous commit
// to be answered before it gives up with kTimeout. Both are 30 seconds.
std::chrono::milliseconds OpenWaitLimit() noexcept;
std::chrono::milliseconds CommitWaitLimit() noexcept;

// Replaces the commit limit for the whole process and returns the one it
// replaces, so that tests can run the timeout path without waiting half a
// minute. Not for production use.
std::chrono::milliseconds SetCommitWaitLimitForTesting(std::chrono::milliseconds limit) noexcept;

}  // namespace QelSS
