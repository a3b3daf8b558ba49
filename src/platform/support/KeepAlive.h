#pragma once

#include <chrono>
#include <functional>

namespace QelSS::platform {

// The process keep-alive: while a local domain has unsaved changes it holds one.
// At normal process exit (return from main or exit()) the registered flushers run,
// each bounded by the given wait, so that nothing committed is lost.
class KeepAlive {
 public:
  using Token = unsigned long;

  // Begin/End count outstanding keep-alives; End of a token that is not held is
  // ignored. Thread-safe.
  static Token Begin();
  static void End(Token token);
  static unsigned long Count();

  // Registers a function run at normal process exit while its registration lives;
  // returns an id for Unregister. The function must finish or give up within
  // `limit`. Thread-safe; Unregister waits for a running call of that flusher.
  static unsigned long RegisterExitFlusher(std::function<void()> flusher,
                                           std::chrono::milliseconds limit);
  static void UnregisterExitFlusher(unsigned long id);
};

}  // namespace QelSS::platform
