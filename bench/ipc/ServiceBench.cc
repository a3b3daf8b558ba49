// The settings service measured through real processes: a service started
// per sync mode in a temporary folder, clients on ClientConnection.
//
//   Commit/<sync>/<keys>   one-key commit acknowledged, into a domain of
//                          <keys> keys (sync 0: none, 1: full)
//   Fetch/10000            the whole 10,000-key domain
//   ConcurrentCommits      16 clients committing to one domain, --sync full

#include <benchmark/benchmark.h>

#include <map>
#include <memory>
#include <mutex>

#include "BenchService.h"
#include "domain/DomainRoot.h"
#include "domain/DomainTestSupport.h"
#include "domain/RecordKeys.h"
#include "ipc/ServiceTestSupport.h"
#include "qelss/values/ArrayFactory.h"

namespace QelSS {
namespace {

using testing::ServiceClient;
using testing::ServiceProcess;

using bench::ServiceFor;

int64_t GenerationOf(ServiceClient& client, const std::string& domain) {
  std::shared_ptr<IHash> root;
  int64_t count = -1;
  if (client.Fetch(domain, true, &root) != kSuccess) std::abort();
  (void)DomainRoot::GetGenerationCount(root, count);
  return count;
}

// Fills `domain` up to `keys` keys with one commit.
void Populate(ServiceClient& client, const std::string& domain, int keys) {
  std::shared_ptr<IHash> record;
  std::shared_ptr<IArray> changes;
  (void)HashFactory::Create(record);
  (void)ArrayFactory::Create(changes);
  for (int i = 0; i < keys; ++i) {
    std::shared_ptr<IHash> change;
    (void)HashFactory::Create(change);
    (void)change->Set(RecordKeys::kPath, testing::Text("key" + std::to_string(i)));
    (void)change->Set(RecordKeys::kChange, testing::Int(1));
    (void)change->Set(RecordKeys::kNewValue, testing::Int(i));
    (void)changes->Append(change);
  }
  (void)record->Set(RecordKeys::kDomainName, testing::Text(domain));
  (void)record->Set(RecordKeys::kChanges, changes);
  (void)record->Set(RecordKeys::kGenerationCount, testing::Int(GenerationOf(client, domain)));
  if (client.CommitRecord(domain, record) != kSuccess) std::abort();
}

void Commit(benchmark::State& state) {
  const bool full = state.range(0) != 0;
  const int keys = static_cast<int>(state.range(1));
  ServiceFor(full);
  ServiceClient client;
  const std::string domain = "bench" + std::to_string(keys);
  if (GenerationOf(client, domain) == 0 && keys > 1) Populate(client, domain, keys);
  int64_t generation = GenerationOf(client, domain);
  for (auto _ : state) {
    if (client.CommitRecord(domain, testing::MakeRecord(domain, generation, "key0",
                                                        testing::Int(generation))) != kSuccess) {
      state.SkipWithError("commit refused");
      break;
    }
    ++generation;
  }
}
BENCHMARK(Commit)
    ->Args({0, 1})
    ->Args({0, 10000})
    ->Args({1, 1})
    ->Args({1, 10000})
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime()
    ->Repetitions(3)
    ->ReportAggregatesOnly();

void Fetch(benchmark::State& state) {
  ServiceFor(false);
  ServiceClient client;
  const std::string domain = "bench10000";
  if (GenerationOf(client, domain) == 0) Populate(client, domain, 10000);
  for (auto _ : state) {
    if (client.Fetch(domain, false, nullptr) != kSuccess) state.SkipWithError("fetch failed");
  }
}
BENCHMARK(Fetch)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Repetitions(3)
    ->ReportAggregatesOnly();

// Each client commits its own key from the generation it last knew, and
// fetches again only when the service says the record is too old.
void ConcurrentCommits(benchmark::State& state) {
  static std::once_flag started;
  std::call_once(started, [] { ServiceFor(true); });
  ServiceClient client("client" + std::to_string(state.thread_index()));
  const std::string domain = "crowd";
  int64_t generation = GenerationOf(client, domain);
  const std::string key = "key" + std::to_string(state.thread_index());
  int64_t done = 0;
  int64_t refused = 0;
  for (auto _ : state) {
    for (;;) {
      const std::error_code status = client.CommitRecord(
          domain, testing::MakeRecord(domain, generation, key, testing::Int(done)));
      if (status == kSuccess) break;
      if (status != kTransactionConflict) {
        state.SkipWithError("commit failed");
        return;
      }
      ++refused;
      generation = GenerationOf(client, domain);
    }
    ++done;
  }
  state.SetItemsProcessed(done);
  state.counters["refused"] = benchmark::Counter(static_cast<double>(refused));
}
BENCHMARK(ConcurrentCommits)->Threads(1)->Threads(16)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace QelSS
