// Commits to a local domain: what one small commit costs once the domain holds
// many keys (the deep copy behind each transaction dominates, the file is not
// touched), and the proof that a burst of commits is folded into one write.
// The test clock stands in for the ten quiet seconds.
#include <benchmark/benchmark.h>

#include <string>
#include <thread>

#include "domain/LocalDomainTestSupport.h"

namespace QelSS {
namespace {

using platform::DispatchClock;

// A saved local domain holding `keys` numbers, a hundred per section
// ("s3/k312"), on a disk that counts its writes.
struct FilledDomain {
  explicit FilledDomain(int keys) {
    testing::UsePrivateKeyFolder();
    std::error_code fetched;
    domain = testing::OpenLocal(folder.path(), std::make_shared<Storage>(disk), fetched, "bench");
    if (!domain) return;
    auto transaction = testing::NewTransaction(*domain);
    for (int k = 0; k < keys; ++k) {
      (void)transaction->Set("s" + std::to_string(k / 100) + "/k" + std::to_string(k),
                             testing::Int(k));
    }
    (void)testing::Commit(*domain, transaction);
    (void)domain->SaveSettings(20);
  }

  // Writes that the quiet period brings about, once it has passed.
  int WritesAfterQuietPeriod(int before) {
    DispatchClock::AdvanceForTesting(LocalDomainSetting::kQuietPeriod);
    disk->WaitForWrites(before + 1, std::chrono::seconds(5));
    // Room for a second write, should one wrongly follow.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    return disk->Writes() - before;
  }

  testing::ScopedTempDir folder;
  std::shared_ptr<testing::DiskProbe> disk = std::make_shared<testing::DiskProbe>();
  std::shared_ptr<LocalDomainSetting> domain;
};

// Create a transaction, set one key, commit.
void BM_CommitOneKey(benchmark::State& state) {
  FilledDomain filled(static_cast<int>(state.range(0)));
  if (!filled.domain) {
    state.SkipWithError("the domain did not open");
    return;
  }
  const int before = filled.disk->Writes();
  long long value = 0;
  for (auto _ : state) {
    if (testing::SetNumber(*filled.domain, "s0/k0", ++value) != kSuccess) {
      state.SkipWithError("commit failed");
      break;
    }
  }
  state.counters["writes_during_commits"] = filled.disk->Writes() - before;
  state.counters["writes_after_quiet_period"] = filled.WritesAfterQuietPeriod(before);
}
BENCHMARK(BM_CommitOneKey)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);

// A thousand commits, then ten quiet seconds: one write per burst.
void BM_BurstOfThousandCommits(benchmark::State& state) {
  FilledDomain filled(1000);
  if (!filled.domain) {
    state.SkipWithError("the domain did not open");
    return;
  }
  int writes = 0;
  long long value = 0;
  for (auto _ : state) {
    const int before = filled.disk->Writes();
    for (int i = 0; i < 1000; ++i) (void)testing::SetNumber(*filled.domain, "s0/k0", ++value);
    state.PauseTiming();
    writes += filled.WritesAfterQuietPeriod(before);
    state.ResumeTiming();
  }
  state.counters["writes_per_burst"] =
      benchmark::Counter(writes, benchmark::Counter::kAvgIterations);
}
BENCHMARK(BM_BurstOfThousandCommits)->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace
}  // namespace QelSS
