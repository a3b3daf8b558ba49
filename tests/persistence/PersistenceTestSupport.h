#pragma once

// Helpers shared by the persistence tests: small file utilities, and a way to
// run code in a fresh child process and collect what it saw (the file key is
// derived once per process, so a test that needs a fresh derivation needs a
// fresh process).

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <iterator>
#include <string>

namespace QelSS::testing {

inline std::string ReadText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

inline void WriteText(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

inline mode_t FileMode(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 ? (info.st_mode & 07777) : 0;
}

struct ChildOutcome {
  int exitCode = -1;   // -1 when the child did not exit normally
  std::string output;  // what the body put into its output string
};

// Runs `body` in a forked child. The child's exit code is the body's result;
// an exception in the body gives 99. Test assertions belong in the parent.
inline ChildOutcome RunInChildWithOutput(const std::function<int(std::string& output)>& body) {
  int fds[2];
  if (::pipe(fds) != 0) return {};
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::close(fds[0]);
    std::string output;
    int code = 99;
    try {
      code = body(output);
    } catch (...) {
    }
    for (size_t done = 0; done < output.size();) {
      const ssize_t n = ::write(fds[1], output.data() + done, output.size() - done);
      if (n <= 0) break;
      done += static_cast<size_t>(n);
    }
    ::_exit(code);
  }
  ::close(fds[1]);
  ChildOutcome outcome;
  char buffer[4096];
  ssize_t n;
  while ((n = ::read(fds[0], buffer, sizeof buffer)) > 0) outcome.output.append(buffer, n);
  ::close(fds[0]);
  int status = 0;
  if (pid > 0 && ::waitpid(pid, &status, 0) == pid && WIFEXITED(status)) {
    outcome.exitCode = WEXITSTATUS(status);
  }
  return outcome;
}

}  // namespace QelSS::testing
