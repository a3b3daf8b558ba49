// The facade's hot paths on a local domain of 1,000 and 10,000 keys: a typed
// read, a one-call write and commit, and a transaction of a hundred writes
// committed once. A transaction copies only the hashes on the paths it
// changes, so a one-key commit should cost about the same at any size.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "qelss/api/QSSDomain.h"

namespace QelSS {
namespace {

// A private temporary folder, removed with its contents at the end.
class TempFolder {
 public:
  TempFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "qelss-bench-XXXXXX").string();
    if (mkdtemp(pattern.data())) path_ = pattern;
  }
  ~TempFolder() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

std::string KeyPath(int k) { return "/s" + std::to_string(k / 100) + "/k" + std::to_string(k); }

// One facade per domain size, kept for the whole run. The host key lives in a
// private data folder; the domains are released before their folder goes.
class BenchDomains {
 public:
  static BenchDomains& Instance() {
    static BenchDomains domains;
    return domains;
  }

  QSSDomain* WithKeys(int keys) {
    auto& facade = facades_[keys];
    if (!facade) facade = Make(keys);
    return facade.get();
  }

 private:
  BenchDomains() { ::setenv("XDG_DATA_HOME", home_.path().c_str(), 1); }

  std::shared_ptr<QSSDomain> Make(int keys) {
    std::shared_ptr<QSSDomain> facade;
    const std::string name = "bench" + std::to_string(keys);
    if (!Succeeded(
            QSSDomain::Create(facade, name.c_str(), "bench", folder_.path().c_str(), true)) ||
        !Succeeded(facade->CreateTransaction())) {
      return nullptr;
    }
    for (int k = 0; k < keys; ++k) {
      if (!Succeeded(facade->Set(KeyPath(k).c_str(), static_cast<long long>(k)))) return nullptr;
    }
    return Succeeded(facade->CommitTransaction()) ? facade : nullptr;
  }

  TempFolder home_;
  TempFolder folder_;
  std::map<int, std::shared_ptr<QSSDomain>> facades_;
};

QSSDomain* Domain(benchmark::State& state) {
  QSSDomain* facade = BenchDomains::Instance().WithKeys(static_cast<int>(state.range(0)));
  if (!facade) state.SkipWithError("the domain could not be opened and filled");
  return facade;
}

std::vector<std::string> SomePaths(int keys) {
  std::vector<std::string> paths;
  for (int k = 0; k < keys; k += std::max(1, keys / 64)) paths.push_back(KeyPath(k));
  return paths;
}

void BM_FacadeGetLongLong(benchmark::State& state) {
  QSSDomain* facade = Domain(state);
  if (!facade) return;
  const std::vector<std::string> paths = SomePaths(static_cast<int>(state.range(0)));
  size_t next = 0;
  for (auto _ : state) {
    long long value = 0;
    benchmark::DoNotOptimize(facade->Get(paths[next].c_str(), value));
    benchmark::DoNotOptimize(value);
    if (++next == paths.size()) next = 0;
  }
}
BENCHMARK(BM_FacadeGetLongLong)->Arg(1000)->Arg(10000);

// Every key of the domain once per round, in an order unrelated to the keys'
// order, so that a read finds little of its path left in the cache by the
// read before it.
void BM_FacadeGetEveryKey(benchmark::State& state) {
  QSSDomain* facade = Domain(state);
  if (!facade) return;
  const int keys = static_cast<int>(state.range(0));
  std::vector<std::string> paths;
  for (int k = 0; k < keys; ++k) paths.push_back(KeyPath(static_cast<int>((k * 7919L) % keys)));
  for (auto _ : state) {
    for (const std::string& path : paths) {
      long long value = 0;
      benchmark::DoNotOptimize(facade->Get(path.c_str(), value));
      benchmark::DoNotOptimize(value);
    }
  }
  state.SetItemsProcessed(state.iterations() * keys);
  state.counters["ns_per_key"] = benchmark::Counter(
      static_cast<double>(keys) * static_cast<double>(state.iterations()),
      benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_FacadeGetEveryKey)->Arg(1000)->Unit(benchmark::kMicrosecond);

// One facade read by one and by two threads at once: the reads per second of
// the whole run (items_per_second) show how reading scales.
void BM_FacadeGetThreads(benchmark::State& state) {
  QSSDomain* facade = Domain(state);
  if (!facade) return;
  const std::vector<std::string> paths = SomePaths(static_cast<int>(state.range(0)));
  size_t next = static_cast<size_t>(state.thread_index()) * 7 % paths.size();
  for (auto _ : state) {
    long long value = 0;
    benchmark::DoNotOptimize(facade->Get(paths[next].c_str(), value));
    if (++next == paths.size()) next = 0;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FacadeGetThreads)->Arg(1000)->Threads(1)->Threads(2)->UseRealTime();

void BM_FacadeSetCommit(benchmark::State& state) {
  QSSDomain* facade = Domain(state);
  if (!facade) return;
  const std::vector<std::string> paths = SomePaths(static_cast<int>(state.range(0)));
  size_t next = 0;
  long long counter = 0;
  for (auto _ : state) {
    if (!Succeeded(facade->SetCommit(paths[next].c_str(), ++counter))) {
      state.SkipWithError("SetCommit failed");
      break;
    }
    if (++next == paths.size()) next = 0;
  }
  state.counters["keys"] = static_cast<double>(state.range(0));
}
BENCHMARK(BM_FacadeSetCommit)->Arg(1)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);

void BM_FacadeTransactionOf100Sets(benchmark::State& state) {
  QSSDomain* facade = Domain(state);
  if (!facade) return;
  const std::vector<std::string> paths = SomePaths(static_cast<int>(state.range(0)));
  long long counter = 0;
  for (auto _ : state) {
    bool ok = Succeeded(facade->CreateTransaction());
    for (int i = 0; ok && i < 100; ++i) {
      ok = Succeeded(facade->Set(paths[i % paths.size()].c_str(), ++counter));
    }
    if (!ok || !Succeeded(facade->CommitTransaction())) {
      state.SkipWithError("the transaction failed");
      break;
    }
  }
}
BENCHMARK(BM_FacadeTransactionOf100Sets)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace QelSS
