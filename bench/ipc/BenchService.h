#pragma once

// What the service benchmarks share: the service they talk to (one process
// per sync mode in a temporary folder, started on first use), per-iteration
// timing with percentiles, and push latency measured between two processes.

#include <benchmark/benchmark.h>
#include <spawn.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ipc/ServiceTestSupport.h"
#include "qelss/api/QSSDomain.h"
#include "qelss/domain/SettingsObserver.h"
#include "qelss/values/INumber.h"

namespace QelSS::bench {

inline testing::ServiceProcess& ServiceFor(bool full) {
  static std::map<bool, std::unique_ptr<testing::ServiceProcess>> services;
  auto& service = services[full];
  if (service == nullptr) {
    // The runtime folder override is process-wide: one service at a time.
    services.clear();
    auto& fresh = services[full];
    fresh = std::make_unique<testing::ServiceProcess>(
        std::vector<std::string>{"--sync", full ? "full" : "none"});
    if (!fresh->Start()) std::abort();
    return *fresh;
  }
  return *service;
}

// Counters p50_us, p90_us and p99_us of `seconds`.
inline void ReportPercentiles(benchmark::State& state, std::vector<double> seconds) {
  if (seconds.empty()) return;
  std::sort(seconds.begin(), seconds.end());
  state.counters["p50_us"] = seconds[seconds.size() / 2] * 1e6;
  state.counters["p90_us"] = seconds[seconds.size() * 9 / 10] * 1e6;
  state.counters["p99_us"] = seconds[seconds.size() * 99 / 100] * 1e6;
}

// Times `step` once per iteration (false stops with `failure`) and reports
// the percentiles.
template <typename Step>
void TimeEach(benchmark::State& state, const char* failure, Step&& step) {
  std::vector<double> seconds;
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    if (!step()) {
      state.SkipWithError(failure);
      break;
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    seconds.push_back(took.count());
    state.SetIterationTime(took.count());
  }
  ReportPercentiles(state, seconds);
}

// Each iteration commits this thread's own key of `domain` through the
// facade, trying again when the commit loses the race, as an application
// would; counts commits and refusals.
inline void CommitOwnKey(benchmark::State& state, QSSDomain& domain) {
  const std::string key = "/key" + std::to_string(state.thread_index());
  long long done = 0;
  long long refused = 0;
  for (auto _ : state) {
    std::error_code result;
    while ((result = domain.SetCommit(key.c_str(), done)) == kTransactionConflict) ++refused;
    if (!Succeeded(result)) {
      state.SkipWithError("commit failed");
      break;
    }
    ++done;
  }
  state.SetItemsProcessed(done);
  state.counters["refused"] = benchmark::Counter(static_cast<double>(refused));
}

inline long long SteadyNanoseconds() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

#ifdef QELSS_PUSH_COMMITTER_BINARY
// qelss_bench_push_committer on the service of `runtime`, fed one key per
// line: it commits the time it read the line under that key.
class Committer {
 public:
  Committer(const std::string& runtime, const std::string& domain) {
    int fds[2];
    if (::pipe(fds) != 0) std::abort();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[0], 0);
    posix_spawn_file_actions_addclose(&actions, fds[1]);
    std::string env = "QELSS_RUNTIME_DIR=" + runtime;
    char* envp[] = {env.data(), nullptr};
    std::string program = QELSS_PUSH_COMMITTER_BINARY;
    std::string name = domain;
    char* argv[] = {program.data(), name.data(), nullptr};
    if (posix_spawn(&pid_, argv[0], &actions, nullptr, argv, envp) != 0) std::abort();
    posix_spawn_file_actions_destroy(&actions);
    ::close(fds[0]);
    input_ = fds[1];
  }
  ~Committer() {
    ::close(input_);
    testing::WaitForChild(pid_, std::chrono::seconds(10));
  }
  void Commit(const std::string& key) {
    const std::string line = key + "\n";
    if (::write(input_, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
      std::abort();
    }
  }

 private:
  pid_t pid_ = -1;
  int input_ = -1;
};

// Times each iteration from a commit of "/key0" of domain `name` by a
// committer on the service of `runtime` to the call of an observer of
// `domain` in this process.
inline void MeasurePushes(benchmark::State& state, QSSDomain& domain, const std::string& name,
                          const std::string& runtime) {
  struct Heard {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<double> latencies;
  };
  auto heard = std::make_shared<Heard>();
  std::shared_ptr<SettingsObserver> observer;
  (void)SettingsObserver::Create(
      [heard](const std::shared_ptr<IDomainSetting>&, const IObserver::ChangeList& changes) {
        const long long now = SteadyNanoseconds();
        auto number = std::dynamic_pointer_cast<INumber>(std::get<2>(changes.front()));
        int64_t sent = 0;
        if (!number || !Succeeded(number->GetInt64(sent))) return;
        std::lock_guard lock(heard->mutex);
        heard->latencies.push_back(static_cast<double>(now - sent) * 1e-9);
        heard->changed.notify_all();
      },
      observer);
  if (!Succeeded(domain.AddObserver(nullptr, observer))) std::abort();
  Committer committer(runtime, name);
  size_t expected = 0;
  for (auto _ : state) {
    committer.Commit("/key0");
    ++expected;
    std::unique_lock lock(heard->mutex);
    if (!heard->changed.wait_for(lock, std::chrono::seconds(10),
                                 [&] { return heard->latencies.size() >= expected; })) {
      state.SkipWithError("no push arrived");
      break;
    }
    state.SetIterationTime(heard->latencies.back());
  }
  (void)domain.RemoveObserver(observer);
  std::lock_guard lock(heard->mutex);
  ReportPercentiles(state, heard->latencies);
}
#endif  // QELSS_PUSH_COMMITTER_BINARY

}  // namespace QelSS::bench
