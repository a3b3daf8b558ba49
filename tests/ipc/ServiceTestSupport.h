#pragma once

// The real settings service in a temporary runtime and state folder, and a
// client that speaks to it synchronously through ClientConnection. Every
// process started here is stopped by pid, and every wait has a limit.

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/ScopedTempDir.h"
#include "qelss/ipc/Connection.h"
#include "qelss/ipc/DomainUtil.h"
#include "qelss/platform/ErrorCode.h"
#include "qelss/values/HashFactory.h"

namespace QelSS::testing {

using namespace std::chrono_literals;

inline bool CanConnect(const std::string& path) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  const bool connected = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  ::close(fd);
  return connected;
}

// Waits at most `limit` for the child `pid` to end, and kills it when it does
// not. Its exit code; -1 when it had to be killed or a signal ended it.
inline int WaitForChild(pid_t pid, std::chrono::seconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  int status = 0;
  while (::waitpid(pid, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, &status, 0);
      return -1;
    }
    std::this_thread::sleep_for(5ms);
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Starts `args` (the program first) with QELSS_RUNTIME_DIR set to `runtime`;
// its pid, or -1. Stop it with WaitForChild or kill.
inline pid_t Spawn(std::vector<std::string> args, const std::string& runtime) {
  const pid_t pid = ::fork();
  if (pid != 0) return pid;
  ::setenv("QELSS_RUNTIME_DIR", runtime.c_str(), 1);
  std::vector<char*> argv;
  for (auto& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  ::execv(argv[0], argv.data());
  ::_exit(127);
}

#ifdef QELSS_SERVICE_BINARY
// One service process. The runtime folder is also set as this process's
// override, so that every ClientConnection made here reaches it.
class ServiceProcess {
 public:
  explicit ServiceProcess(std::vector<std::string> extra = {}) : extra_(std::move(extra)) {
    SetServiceRuntimeDirectory(RuntimeDir());
  }
  ~ServiceProcess() {
    Stop();
    SetServiceRuntimeDirectory("");
  }

  std::string RuntimeDir() const { return folder_ / "run"; }
  std::string StateDir() const { return folder_ / "state"; }
  // The service's XDG_DATA_HOME: its drop folder for predefined domains is
  // under qelvarin/DomainSettings/Predefines.
  std::string DataDir() const { return folder_ / "data"; }
  // Its own, whichever service this process's clients were last pointed at.
  std::string SocketPath() const {
    return RuntimeDir() + "/" + std::string(ClientConnection::kServiceName);
  }
  std::string LogPath() const { return folder_ / "service.log"; }
  pid_t Pid() const { return pid_; }

  // Starts the service and waits (at most 10 s) until it accepts connections.
  bool Start() {
    const std::string data = DataDir();
    pid_ = ::fork();
    if (pid_ == 0) {
      ::setenv("QELSS_RUNTIME_DIR", RuntimeDir().c_str(), 1);
      ::setenv("XDG_DATA_HOME", data.c_str(), 1);
      FILE* log = std::fopen(LogPath().c_str(), "a");
      if (log != nullptr) ::dup2(fileno(log), 2);
      std::vector<std::string> args = {QELSS_SERVICE_BINARY, "--state-dir", StateDir(),
                                       "--socket-group", "root"};
      args.insert(args.end(), extra_.begin(), extra_.end());
      std::vector<char*> argv;
      for (auto& arg : args) argv.push_back(arg.data());
      argv.push_back(nullptr);
      ::execv(argv[0], argv.data());
      ::_exit(127);
    }
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (std::chrono::steady_clock::now() < deadline) {
      if (CanConnect(SocketPath())) return true;
      int status = 0;
      if (::waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        return false;
      }
      std::this_thread::sleep_for(5ms);
    }
    return false;
  }

  // SIGTERM, then SIGKILL if it has not ended within 20 s. The exit status,
  // or -1 when it had to be killed or was not running.
  int Stop() { return End(SIGTERM, 20s); }
  void Kill() { End(SIGKILL, 10s); }
  void Signal(int signal) const {
    if (pid_ > 0) ::kill(pid_, signal);
  }

 private:
  int End(int signal, std::chrono::seconds limit) {
    if (pid_ <= 0) return -1;
    ::kill(pid_, signal);
    const int code = WaitForChild(pid_, limit);
    pid_ = -1;
    return code;
  }

  ScopedTempDir folder_;
  std::vector<std::string> extra_;
  pid_t pid_ = -1;
};

#endif  // QELSS_SERVICE_BINARY

// A client on its own ClientConnection; each call waits at most 10 s.
class ServiceClient {
 public:
  explicit ServiceClient(std::string client = "com.example.test") : client_(std::move(client)) {
    if (ClientConnection::Create(connection_) != kSuccess) return;
    (void)connection_->RegisterMessageHandler([this](const std::shared_ptr<IHash>& message) {
      std::lock_guard lock(mutex_);
      pushes_.push_back(message);
      changed_.notify_all();
    });
    (void)connection_->RegisterInvalidationHandler([this](std::shared_ptr<IConnection>&) {
      std::lock_guard lock(mutex_);
      invalidated_ = true;
      changed_.notify_all();
    });
    initResult_ = connection_->InitConnection();
  }
  ~ServiceClient() {
    if (connection_ != nullptr) connection_->ShutDownConnection();
  }

  ClientConnection& Connection() { return *connection_; }
  std::error_code InitResult() const { return initResult_; }

  // Sends `message` and waits for the reply; kTimeout when none came.
  std::error_code Call(const std::shared_ptr<IHash>& message,
                       std::shared_ptr<IHash>* response = nullptr) {
    struct Outcome {
      std::mutex mutex;
      std::condition_variable done;
      bool answered = false;
      std::error_code code;
      std::shared_ptr<IHash> hash;
    };
    auto outcome = std::make_shared<Outcome>();
    std::error_code sent = connection_->SendMessageWithReply(
        message, [outcome](std::error_code code, const std::shared_ptr<IHash>& hash) {
          std::lock_guard lock(outcome->mutex);
          outcome->answered = true;
          outcome->code = code;
          outcome->hash = hash;
          outcome->done.notify_all();
        });
    if (sent != kSuccess) return sent;
    std::unique_lock lock(outcome->mutex);
    if (!outcome->done.wait_for(lock, 10s, [&] { return outcome->answered; })) {
      return make_error_code(kTimeout);
    }
    if (response != nullptr) *response = outcome->hash;
    return outcome->code;
  }

  // The service's status for a command (the call's own failure otherwise).
  std::error_code Fetch(const std::string& domain, bool create, std::shared_ptr<IHash>* root) {
    std::shared_ptr<IHash> command, response;
    (void)DomainUtil::CreateCommand(domain, client_, DomainUtil::kCommandFetch, create, command);
    if (std::error_code called = Call(command, &response); called != kSuccess) return called;
    std::error_code status = DomainUtil::GetResponseStatus(response);
    if (status == kSuccess && root != nullptr) {
      std::shared_ptr<IValue> settings;
      (void)response->Get("DomainSettings", settings);
      *root = std::dynamic_pointer_cast<IHash>(settings);
    }
    return status;
  }

  std::error_code CommitRecord(const std::string& domain, const std::shared_ptr<IHash>& record) {
    std::shared_ptr<IHash> command, response;
    (void)DomainUtil::CreateCommand(domain, client_, DomainUtil::kCommandCommit, true, command);
    (void)command->Set("DomainSettingTransaction", record);
    if (std::error_code called = Call(command, &response); called != kSuccess) return called;
    return DomainUtil::GetResponseStatus(response);
  }

  // Pushed messages received so far, after waiting (at most 10 s) for `count`.
  std::vector<std::shared_ptr<IHash>> WaitForPushes(size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, 10s, [&] { return pushes_.size() >= count; });
    return pushes_;
  }
  bool WaitForInvalidation() {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, 10s, [&] { return invalidated_; });
  }

 private:
  std::string client_;
  std::shared_ptr<ClientConnection> connection_;
  std::error_code initResult_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::shared_ptr<IHash>> pushes_;
  bool invalidated_ = false;
};

}  // namespace QelSS::testing
