#include "QssRunner.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>

#include <gtest/gtest.h>

extern char** environ;

namespace qss_test {
namespace {

constexpr auto kLimit = std::chrono::minutes(2);

std::vector<std::string> MergedEnvironment(const std::map<std::string, std::string>& overrides) {
  std::map<std::string, std::string> merged;
  for (char** entry = environ; *entry; ++entry) {
    const std::string text = *entry;
    const size_t equals = text.find('=');
    if (equals != std::string::npos) merged[text.substr(0, equals)] = text.substr(equals + 1);
  }
  for (const auto& [name, value] : overrides) merged[name] = value;
  std::vector<std::string> result;
  for (const auto& [name, value] : merged) result.push_back(name + "=" + value);
  return result;
}

std::vector<char*> Pointers(std::vector<std::string>& words) {
  std::vector<char*> pointers;
  for (std::string& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  return pointers;
}

// Feeds the input and drains both outputs together, so that a child blocked
// on a full pipe can never stall the test.
bool Exchange(int in, int out, int err, const std::string& input, Outcome& run) {
  size_t fed = 0;
  if (input.empty()) {
    ::close(in);
    in = -1;
  }
  const auto deadline = std::chrono::steady_clock::now() + kLimit;
  while (out >= 0 || err >= 0) {
    pollfd fds[3] = {{out, POLLIN, 0}, {err, POLLIN, 0}, {in, POLLOUT, 0}};
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    if (::poll(fds, 3, static_cast<int>(left.count())) < 0 && errno != EINTR) return false;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      char buffer[8192];
      const ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        (i == 0 ? run.out : run.err).append(buffer, static_cast<size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        ::close(fds[i].fd);
        (i == 0 ? out : err) = -1;
      }
    }
    if (in >= 0 && (fds[2].revents & (POLLOUT | POLLERR | POLLHUP))) {
      const ssize_t n = ::write(in, input.data() + fed, input.size() - fed);
      if (n > 0) fed += static_cast<size_t>(n);
      if (n < 0 || fed == input.size()) {
        ::close(in);
        in = -1;
      }
    }
  }
  if (in >= 0) ::close(in);
  return true;
}

}  // namespace

Outcome RunProgram(const std::string& program, const std::vector<std::string>& arguments,
                   const std::map<std::string, std::string>& environment,
                   const std::string& input) {
  Outcome run;
  int in[2], out[2], err[2];
  if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) {
    ADD_FAILURE() << "pipe: " << std::strerror(errno);
    return run;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_adddup2(&actions, err[1], 2);

  std::vector<std::string> argv = {program};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  std::vector<std::string> envp = MergedEnvironment(environment);
  pid_t child = -1;
  const int spawned = ::posix_spawn(&child, program.c_str(), &actions, nullptr,
                                    Pointers(argv).data(), Pointers(envp).data());
  posix_spawn_file_actions_destroy(&actions);
  ::close(in[0]);
  ::close(out[1]);
  ::close(err[1]);
  if (spawned != 0) {
    ::close(in[1]);
    ::close(out[0]);
    ::close(err[0]);
    ADD_FAILURE() << "cannot start " << program << ": " << std::strerror(spawned);
    return run;
  }
  // A child that ignores its closed input must not kill the test with SIGPIPE.
  std::signal(SIGPIPE, SIG_IGN);
  if (!Exchange(in[1], out[0], err[0], input, run)) {
    ::kill(child, SIGKILL);
    ADD_FAILURE() << program << " did not finish in time";
  }
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return run;
}

Outcome RunQss(const std::vector<std::string>& arguments,
               const std::map<std::string, std::string>& environment, const std::string& input) {
  return RunProgram(QSS_BINARY, arguments, environment, input);
}

}  // namespace qss_test
