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
// Latencies are timed per iteration; the counters p50_us, p90_us and p99_us
// give the median and the 90th and 99th percentiles.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <csignal>
#include <map>
#include <memory>
#include <mutex>

#include "BenchService.h"
#include "ipc/ServiceTestSupport.h"
#include "platform/ScopedTempDir.h"
#include "qelss/api/QSSDomain.h"

namespace QelSS {
namespace {

using testing::ServiceProcess;

using bench::ServiceFor;
using bench::TimeEach;

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

void PushLatency(benchmark::State& state) {
  const int keys = static_cast<int>(state.range(0));
  ServiceProcess& service = ServiceFor(false);
  const std::string name = "push" + std::to_string(keys);
  auto domain = OpenRemote(name);
  Populate(*domain, keys);
  bench::MeasurePushes(state, *domain, name, service.RuntimeDir());
}
BENCHMARK(PushLatency)->Arg(1)->Arg(10000)->UseManualTime()->Unit(benchmark::kMicrosecond);

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
  bench::CommitOwnKey(state, *domain);
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
