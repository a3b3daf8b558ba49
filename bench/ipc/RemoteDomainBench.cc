// Remote domains measured through real processes: a service in a temporary
// folder, the facade in this process, and for pushes a committing process of
// its own (qelss_bench_push_committer).
//
//   PushLatency/<keys>       commit in the other process to this process's
//                            observer call, in a domain of <keys> keys
//   SetCommit/<sync>         the facade's synchronous one-key commit (0: --sync
//                            none, 1: --sync full)
//   Get/<remote>             a facade read (0: local domain, 1: remote copy)
//   CreateToFirstGet/10000   opening a remote 10,000-key domain and reading it
//   ConcurrentSetCommit      clients committing to one domain, --sync full
//
// Latencies are timed per iteration; the counters p50_us and p90_us give the
// median and 90th percentile.

#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <condition_variable>
#include <csignal>
#include <map>
#include <memory>
#include <mutex>

#include "BenchService.h"
#include "ipc/ServiceTestSupport.h"
#include "platform/ScopedTempDir.h"
#include "qelss/api/QSSDomain.h"
#include "qelss/domain/SettingsObserver.h"
#include "qelss/values/INumber.h"

namespace QelSS {
namespace {

using testing::ServiceProcess;

using bench::ServiceFor;

std::shared_ptr<QSSDomain> OpenRemote(const std::string& name) {
  std::shared_ptr<QSSDomain> domain;
  if (!Succeeded(QSSDomain::Create(domain, name.c_str(), "com.example.bench", nullptr, false))) {
    std::abort();
  }
  return domain;
}

// Gives `domain` keys "key0".."key<keys-1>" in one transaction, once.
void Populate(QSSDomain& domain, int keys) {
  long long present = 0;
  if (keys <= 1 || Succeeded(domain.Get(("/key" + std::to_string(keys - 1)).c_str(), present))) {
    return;
  }
  if (!Succeeded(domain.CreateTransaction())) std::abort();
  for (int i = 0; i < keys; ++i) {
    if (!Succeeded(domain.Set(("/key" + std::to_string(i)).c_str(), static_cast<long long>(i)))) {
      std::abort();
    }
  }
  if (!Succeeded(domain.CommitTransaction())) std::abort();
}

void ReportPercentiles(benchmark::State& state, std::vector<double> seconds) {
  if (seconds.empty()) return;
  std::sort(seconds.begin(), seconds.end());
  state.counters["p50_us"] = seconds[seconds.size() / 2] * 1e6;
  state.counters["p90_us"] = seconds[seconds.size() * 9 / 10] * 1e6;
}

long long SteadyNanoseconds() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// The committing process, fed one key per line.
class Committer {
 public:
  Committer(const std::string& runtime, const std::string& domain) {
    int fds[2];
    if (::pipe(fds) != 0) std::abort();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[0], 0);
    posix_spawn_file_actions_addclose(&actions, fds[1]);
    std::vector<std::string> env = {"QELSS_RUNTIME_DIR=" + runtime};
    std::vector<char*> envp;
    for (auto& entry : env) envp.push_back(entry.data());
    envp.push_back(nullptr);
    std::string program = QELSS_PUSH_COMMITTER_BINARY;
    std::string name = domain;
    char* argv[] = {program.data(), name.data(), nullptr};
    if (posix_spawn(&pid_, argv[0], &actions, nullptr, argv, envp.data()) != 0) std::abort();
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

// The observer's side: the latency of each change it hears.
struct Heard {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<double> latencies;
};

void PushLatency(benchmark::State& state) {
  const int keys = static_cast<int>(state.range(0));
  ServiceProcess& service = ServiceFor(false);
  const std::string name = "push" + std::to_string(keys);
  auto domain = OpenRemote(name);
  Populate(*domain, keys);
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
  if (!Succeeded(domain->AddObserver(nullptr, observer))) std::abort();
  Committer committer(service.RuntimeDir(), name);
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
  (void)domain->RemoveObserver(observer);
  std::lock_guard lock(heard->mutex);
  ReportPercentiles(state, heard->latencies);
}
BENCHMARK(PushLatency)->Arg(1)->Arg(10000)->UseManualTime()->Unit(benchmark::kMicrosecond);

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

void SetCommit(benchmark::State& state) {
  ServiceFor(state.range(0) != 0);
  auto domain = OpenRemote("setcommit");
  long long value = 0;
  TimeEach(state, "commit failed", [&] { return Succeeded(domain->SetCommit("/key0", ++value)); });
}
BENCHMARK(SetCommit)->Arg(0)->Arg(1)->UseManualTime()->Unit(benchmark::kMicrosecond);

// Clients on connections of their own, as separate processes would be, each
// committing its own key to one domain through the facade; a commit that
// loses the race is tried again, as an application would.
void ConcurrentSetCommit(benchmark::State& state) {
  static std::once_flag started;
  std::call_once(started, [] { ServiceFor(true); });
  auto domain = OpenRemote("crowd");
  const std::string key = "/key" + std::to_string(state.thread_index());
  long long done = 0;
  long long refused = 0;
  for (auto _ : state) {
    std::error_code result;
    while ((result = domain->SetCommit(key.c_str(), done)) == kTransactionConflict) ++refused;
    if (!Succeeded(result)) {
      state.SkipWithError("commit failed");
      break;
    }
    ++done;
  }
  state.SetItemsProcessed(done);
  state.counters["refused"] = benchmark::Counter(static_cast<double>(refused));
}
BENCHMARK(ConcurrentSetCommit)
    ->Threads(1)
    ->Threads(16)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

void Get(benchmark::State& state) {
  ServiceFor(false);
  const testing::ScopedTempDir folder;
  std::shared_ptr<QSSDomain> domain;
  if (state.range(0) != 0) {
    domain = OpenRemote("reads");
  } else if (!Succeeded(QSSDomain::Create(domain, "reads", "com.example.bench",
                                          folder.path().c_str(), true))) {
    std::abort();
  }
  if (!Succeeded(domain->SetCommit("/key0", 5LL))) std::abort();
  long long value = 0;
  for (auto _ : state) {
    if (!Succeeded(domain->Get("/key0", value))) state.SkipWithError("read failed");
    benchmark::DoNotOptimize(value);
  }
}
BENCHMARK(Get)->Arg(0)->Arg(1)->Unit(benchmark::kNanosecond);

void CreateToFirstGet(benchmark::State& state) {
  ServiceFor(false);
  const std::string name = "opened10000";
  Populate(*OpenRemote(name), 10000);
  TimeEach(state, "read failed", [&] {
    auto domain = OpenRemote(name);
    long long value = 0;
    return Succeeded(domain->Get("/key9999", value)) && value == 9999;
  });
}
BENCHMARK(CreateToFirstGet)->Arg(10000)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace QelSS
