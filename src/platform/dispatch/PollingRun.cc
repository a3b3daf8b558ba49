#include "platform/dispatch/PollingRun.h"

#include <sched.h>

namespace QelSS::platform {

void RunPolling(asio::io_context& context, std::chrono::microseconds window) {
  using Clock = std::chrono::steady_clock;
  Clock::time_point last = Clock::now();
  while (!context.stopped()) {
    if (context.poll_one() > 0) {
      last = Clock::now();
    } else if (Clock::now() - last < window) {
      sched_yield();
    } else if (context.run_one() > 0) {
      last = Clock::now();
    }
  }
}

}  // namespace QelSS::platform
