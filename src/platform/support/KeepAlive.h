#pragma once

#include <chrono>
#include <functional>

namespace QelSS::platform {

// The process keep-alive: while a local domain has unsaved changes it holds one.
// At normal process exit (return from main or exit()) the registered flushers run,
// each bounded by the given wait, so that nothing committed is lost.
//
// Exit flushers run one after another, in registration order, from an exit
// handler installed when the first flusher is registered. Each runs on a helper
// thread while the exiting thread waits at most its limit. If one overruns, the
// remaining flushers still run and the process then ends at once with the exit
// status it was given (stdout and stderr flushed, later exit handlers and static
// destructors skipped), because the overrunning flusher may still be using
// them. _exit, quick_exit and fatal signals run no flusher. Static objects
// constructed after the first registration are destroyed before the flushers
// run: construct what a flusher needs before registering it. A child made by
// fork does not run its parent's flushers.
class KeepAlive {
 public:
  using Token = unsigned long;

  // Begin/End count outstanding keep-alives; Begin never returns 0, End of a
  // token that is not held is ignored. Thread-safe.
  static Token Begin();
  static void End(Token token);
  static unsigned long Count();

  // Registers a function run at normal process exit while its registration lives;
  // returns an id for Unregister. The function must finish or give up within
  // `limit`. An exception from it is swallowed. Thread-safe; Unregister waits for
  // a running call of that flusher (unless called from inside it) and ignores an
  // unknown id.
  static unsigned long RegisterExitFlusher(std::function<void()> flusher,
                                           std::chrono::milliseconds limit);
  static void UnregisterExitFlusher(unsigned long id);

  // Work that normal exit waits for, at most `limit` from the guard's start,
  // although no flusher covers it: such as the last save of an object that
  // another thread destroys while the process exits. Take the guard before
  // unregistering the flusher it replaces, so that exit never finds neither.
  // Exit waits after running the flushers; a guard that overruns ends the
  // process as an overrunning flusher does. Guards of the process's parent are
  // not waited for. Thread-safe; not copyable.
  class ExitGuard {
   public:
    explicit ExitGuard(std::chrono::milliseconds limit);
    ~ExitGuard();
    ExitGuard(const ExitGuard&) = delete;
    ExitGuard& operator=(const ExitGuard&) = delete;

   private:
    unsigned long id_;
  };
};

}  // namespace QelSS::platform
