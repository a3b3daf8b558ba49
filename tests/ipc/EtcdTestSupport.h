#pragma once

// Real etcd members on 127.0.0.1, each in its own folder under one temporary
// folder, started and stopped by pid; and services that keep their domains
// in them.

#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "ipc/ServiceTestSupport.h"
#include "platform/ScopedTempDir.h"

namespace QelSS::testing {

// A port nobody listens on at the moment of asking.
inline int FreePort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  ::close(fd);
  return ntohs(address.sin_port);
}

// Runs `args` to its end (at most `limit`); its standard output, and its
// exit code in `code` (-1 when it had to be killed).
inline std::string Output(const std::vector<std::string>& args, int& code,
                          std::chrono::seconds limit = std::chrono::seconds(20)) {
  ScopedTempDir folder;
  const std::string path = folder / "out";
  const pid_t pid = ::fork();
  if (pid == 0) {
    if (std::FILE* out = std::fopen(path.c_str(), "w")) ::dup2(fileno(out), 1);
    if (std::FILE* quiet = std::fopen("/dev/null", "w")) ::dup2(fileno(quiet), 2);
    std::vector<std::string> copy = args;
    std::vector<char*> argv;
    for (auto& arg : copy) argv.push_back(arg.data());
    argv.push_back(nullptr);
    ::execv(argv[0], argv.data());
    ::_exit(127);
  }
  code = WaitForChild(pid, limit);
  std::string text;
  if (std::FILE* in = std::fopen(path.c_str(), "r")) {
    char buffer[4096];
    for (size_t got; (got = std::fread(buffer, 1, sizeof buffer, in)) > 0;)
      text.append(buffer, got);
    std::fclose(in);
  }
  return text;
}

class EtcdCluster {
 public:
  explicit EtcdCluster(int members) {
    for (int i = 0; i < members; ++i) members_.push_back({FreePort(), FreePort(), -1});
  }
  ~EtcdCluster() {
    for (size_t i = 0; i < members_.size(); ++i) Stop(i);
  }

  // Starts every member and waits (at most 30 s) until the cluster serves.
  bool Start() {
    for (size_t i = 0; i < members_.size(); ++i) {
      if (!StartMember(i)) return false;
    }
    return WaitUntilHealthy();
  }
  bool StartMember(size_t i) {
    Member& member = members_[i];
    const std::string name = "m" + std::to_string(i);
    const std::string client = "http://127.0.0.1:" + std::to_string(member.client);
    const std::string peer = "http://127.0.0.1:" + std::to_string(member.peer);
    std::vector<std::string> args = {QELSS_ETCD_BINARY,
                                     "--name",
                                     name,
                                     "--data-dir",
                                     folder_ / name,
                                     "--listen-client-urls",
                                     client,
                                     "--advertise-client-urls",
                                     client,
                                     "--listen-peer-urls",
                                     peer,
                                     "--initial-advertise-peer-urls",
                                     peer,
                                     "--initial-cluster",
                                     InitialCluster(),
                                     "--initial-cluster-token",
                                     "qelss-test",
                                     "--heartbeat-interval",
                                     "50",
                                     "--election-timeout",
                                     "500"};
    const std::string log = folder_ / (name + ".log");
    member.pid = ::fork();
    if (member.pid == 0) {
      if (std::FILE* out = std::fopen(log.c_str(), "a")) {
        ::dup2(fileno(out), 1);
        ::dup2(fileno(out), 2);
      }
      std::vector<char*> argv;
      for (auto& arg : args) argv.push_back(arg.data());
      argv.push_back(nullptr);
      ::execv(argv[0], argv.data());
      ::_exit(127);
    }
    return member.pid > 0;
  }
  void KillMember(size_t i) {
    if (members_[i].pid <= 0) return;
    ::kill(members_[i].pid, SIGKILL);
    WaitForChild(members_[i].pid, std::chrono::seconds(10));
    members_[i].pid = -1;
  }
  void Stop(size_t i) {
    if (members_[i].pid <= 0) return;
    ::kill(members_[i].pid, SIGTERM);
    WaitForChild(members_[i].pid, std::chrono::seconds(10));
    members_[i].pid = -1;
  }

  bool WaitUntilHealthy(std::chrono::seconds limit = std::chrono::seconds(30)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < deadline) {
      int code = -1;
      (void)Etcdctl({"endpoint", "health"}, code);
      if (code == 0) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
  }

  // What etcdctl prints for `args` against the members that run.
  std::string Etcdctl(std::vector<std::string> args, int& code) const {
    std::vector<std::string> command = {QELSS_ETCDCTL_BINARY, "--endpoints=" + Endpoints(true),
                                        "--dial-timeout=1s", "--command-timeout=2s"};
    command.insert(command.end(), args.begin(), args.end());
    return Output(command, code);
  }

  // The members' client URLs, comma-separated; only those running, if asked.
  std::string Endpoints(bool running = false) const {
    std::string list;
    for (const Member& member : members_) {
      if (running && member.pid <= 0) continue;
      if (!list.empty()) list += ",";
      list += "http://127.0.0.1:" + std::to_string(member.client);
    }
    return list;
  }

 private:
  struct Member {
    int client;
    int peer;
    pid_t pid;
  };

  std::string InitialCluster() const {
    std::string list;
    for (size_t i = 0; i < members_.size(); ++i) {
      if (!list.empty()) list += ",";
      list += "m" + std::to_string(i) + "=http://127.0.0.1:" + std::to_string(members_[i].peer);
    }
    return list;
  }

  ScopedTempDir folder_;
  std::vector<Member> members_;
};

// A service keeping its domains in `cluster`, sealed with the key at `key`.
inline std::vector<std::string> EtcdServiceArguments(const EtcdCluster& cluster,
                                                     const std::string& key,
                                                     std::vector<std::string> extra = {}) {
  std::vector<std::string> args = {
      "--store",      "etcd", "--etcd-endpoints", cluster.Endpoints(), "--etcd-cluster-key", key,
      "--predefines", "none"};
  args.insert(args.end(), extra.begin(), extra.end());
  return args;
}

}  // namespace QelSS::testing
