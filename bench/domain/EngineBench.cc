// The domain engine's hot paths: reading one key (a synchronous run on the
// domain queue plus a path walk), the delay between applying a change that
// notifies and an observer receiving it, and a whole commit, whose cost is the
// deep copy that CreateTransaction makes of the domain.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "domain/DomainTestSupport.h"
#include "qelss/domain/SettingsObserver.h"

namespace QelSS {
namespace {

using testing::Commit;
using testing::InMemoryDomain;
using testing::Int;
using testing::MakeRecord;
using testing::NewTransaction;

// A domain holding `keys` numbers, a hundred per section ("s3/k312").
std::shared_ptr<InMemoryDomain> Filled(int keys) {
  auto domain = InMemoryDomain::Make("bench");
  auto transaction = NewTransaction(*domain);
  for (int k = 0; k < keys; ++k) {
    (void)transaction->Set("s" + std::to_string(k / 100) + "/k" + std::to_string(k), Int(k));
  }
  (void)Commit(*domain, transaction);
  return domain;
}

void BM_GetOneKey(benchmark::State& state) {
  const int keys = static_cast<int>(state.range(0));
  auto domain = Filled(keys);
  std::vector<std::string> paths;
  for (int k = 0; k < keys; k += std::max(1, keys / 64)) {
    paths.push_back("s" + std::to_string(k / 100) + "/k" + std::to_string(k));
  }
  size_t next = 0;
  for (auto _ : state) {
    std::shared_ptr<IValue> value;
    benchmark::DoNotOptimize(domain->Get(paths[next], value));
    benchmark::DoNotOptimize(value);
    if (++next == paths.size()) next = 0;
  }
}
BENCHMARK(BM_GetOneKey)->Arg(100)->Arg(10000);

// Time from the start of applying a notifying change to the observer's call,
// as a remote domain applies a record pushed by the service. The median of the
// iterations is reported as median_us.
void BM_ObserverLatency(benchmark::State& state) {
  auto domain = Filled(100);
  std::atomic<int64_t> receivedAt{0};
  std::shared_ptr<SettingsObserver> observer;
  (void)SettingsObserver::Create(
      [&](const std::shared_ptr<IDomainSetting>&, const IObserver::ChangeList&) {
        receivedAt.store(std::chrono::steady_clock::now().time_since_epoch().count(),
                         std::memory_order_release);
      },
      observer);
  (void)domain->AddObserver(nullptr, observer);

  std::vector<double> latencies;
  long long generation = domain->Generation();
  for (auto _ : state) {
    state.PauseTiming();
    auto record = MakeRecord("bench", generation, "s0/k1", Int(generation));
    receivedAt.store(0, std::memory_order_relaxed);
    state.ResumeTiming();
    const auto start = std::chrono::steady_clock::now();
    if (domain->Push(record, true) != kSuccess) {
      state.SkipWithError("push refused");
      break;
    }
    int64_t arrived;
    while ((arrived = receivedAt.load(std::memory_order_acquire)) == 0) {
      std::this_thread::yield();
    }
    latencies.push_back(static_cast<double>(arrived - start.time_since_epoch().count()) / 1000.0);
    ++generation;
  }
  if (!latencies.empty()) {
    std::nth_element(latencies.begin(), latencies.begin() + latencies.size() / 2, latencies.end());
    state.counters["median_us"] = latencies[latencies.size() / 2];
  }
}
BENCHMARK(BM_ObserverLatency)->Iterations(5000);

void BM_CreateSetCommit(benchmark::State& state) {
  auto domain = Filled(static_cast<int>(state.range(0)));
  long long value = 0;
  for (auto _ : state) {
    auto transaction = NewTransaction(*domain);
    (void)transaction->Set("s0/k0", Int(++value));
    if (Commit(*domain, transaction) != kSuccess) {
      state.SkipWithError("commit refused");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_CreateSetCommit)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace QelSS
