#pragma once

#include <chrono>

#include <asio/io_context.hpp>

namespace QelSS::platform {

// Runs `context` on this thread until it is stopped. After each handler the
// thread keeps polling for `window` before it sleeps in the kernel: a reply
// or the next request of a busy peer usually comes within a few tens of
// microseconds, and waking a sleeping thread on another core costs about as
// much as the work itself on a virtual machine. While polling the thread
// yields, so that runnable work on its core goes first.
void RunPolling(asio::io_context& context, std::chrono::microseconds window);

}  // namespace QelSS::platform
