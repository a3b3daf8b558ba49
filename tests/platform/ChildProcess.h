#pragma once

// Runs a piece of a test in a forked child, for what a test process must not do
// to itself: exit, drop privileges, enter a private mount namespace.

#include <grp.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <thread>

namespace QelSS::testing {

struct ChildResult {
  bool finished = false;  // false: still running at the deadline, then killed
  bool exited = false;    // ended through exit or _exit, not a signal
  int exitCode = -1;
};

enum class ChildExit {
  kImmediate,  // _exit with body's result: no exit handlers run
  kNormal,     // exit with body's result: exit handlers run as in any program
};

inline ChildResult RunInChild(const std::function<int()>& body, ChildExit how,
                              std::chrono::milliseconds deadline = std::chrono::seconds(60)) {
  ChildResult result;
  const pid_t pid = fork();
  if (pid < 0) return result;
  if (pid == 0) {
    const int code = body();
    if (how == ChildExit::kNormal) std::exit(code);
    _exit(code);
  }
  const auto end = std::chrono::steady_clock::now() + deadline;
  int status = 0;
  while (waitpid(pid, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > end) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      return result;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  result.finished = true;
  result.exited = WIFEXITED(status);
  if (result.exited) result.exitCode = WEXITSTATUS(status);
  return result;
}

// Makes the calling (child) process an unprivileged user. False when it cannot.
inline bool BecomeUnprivileged(uid_t uid = 65534, gid_t gid = 65534) {
  return setgroups(0, nullptr) == 0 && setgid(gid) == 0 && setuid(uid) == 0;
}

}  // namespace QelSS::testing
