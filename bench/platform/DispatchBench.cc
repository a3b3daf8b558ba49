// Costs of the serial queue: making one (every hash and array owns one), running
// a block synchronously on an idle queue (every operation of those objects) and
// asynchronous throughput (observer deliveries).

#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "qelss/platform/Dispatch.h"

namespace {

using DispatchQueue::IQueue;
using DispatchQueue::QueueFactory;

constexpr uint32_t kTag = DispatchQueue::MakeTag("QSSE");

std::shared_ptr<IQueue> MakeQueue() {
  std::shared_ptr<IQueue> queue;
  if (QueueFactory::Create(queue, DispatchQueue::kQueueTypeSerial, "com.qelvarin.hashsync",
                           QOS_CLASS_USER_INTERACTIVE)) {
    std::abort();
  }
  return queue;
}

// Creation alone: the queues are destroyed outside the timed region, a batch
// at a time.
void BM_CreateSerialQueue(benchmark::State& state) {
  constexpr size_t kBatch = 1024;
  std::vector<std::shared_ptr<IQueue>> queues;
  queues.reserve(kBatch);
  for (auto _ : state) {
    queues.push_back(MakeQueue());
    if (queues.size() == kBatch) {
      state.PauseTiming();
      queues.clear();
      state.ResumeTiming();
    }
  }
}
BENCHMARK(BM_CreateSerialQueue);

void BM_CreateAndDestroySerialQueue(benchmark::State& state) {
  for (auto _ : state) {
    auto queue = MakeQueue();
    benchmark::DoNotOptimize(queue.get());
  }
}
BENCHMARK(BM_CreateAndDestroySerialQueue);

// The baseline the synchronous run is compared with: the same block called
// directly through an opaque pointer.
__attribute__((noinline)) void CallDirectly(QelSS::FunctionRef<void()> block) { block(); }

void BM_CallBlockDirectly(benchmark::State& state) {
  long counter = 0;
  for (auto _ : state) {
    CallDirectly([&] { ++counter; });
    benchmark::ClobberMemory();
  }
  benchmark::DoNotOptimize(counter);
}
BENCHMARK(BM_CallBlockDirectly);

void BM_SyncOnIdleQueue(benchmark::State& state) {
  auto queue = MakeQueue();
  long counter = 0;
  for (auto _ : state) {
    queue->Sync(kTag, DispatchQueue::kRunNoFlags, [&] { ++counter; });
    benchmark::ClobberMemory();
  }
  benchmark::DoNotOptimize(counter);
}
BENCHMARK(BM_SyncOnIdleQueue);

// Threads hammering one queue: the price of real contention.
void BM_SyncContended(benchmark::State& state) {
  static std::shared_ptr<IQueue> queue;
  static long counter = 0;
  if (state.thread_index() == 0) queue = MakeQueue();
  for (auto _ : state) {
    queue->Sync(kTag, DispatchQueue::kRunChangesState, [&] { ++counter; });
  }
  if (state.thread_index() == 0) benchmark::DoNotOptimize(counter);
}
BENCHMARK(BM_SyncContended)->Threads(2)->UseRealTime();

// Blocks queued from one thread and drained by the pool; timed until the last
// one has run.
void BM_AsyncThroughput(benchmark::State& state) {
  auto queue = MakeQueue();
  const int64_t batch = state.range(0);
  long counter = 0;
  for (auto _ : state) {
    for (int64_t i = 0; i < batch; ++i) {
      queue->Async(kTag, DispatchQueue::kRunNoFlags, [&counter] { ++counter; });
    }
    queue->Sync(kTag, DispatchQueue::kRunNoFlags, [] {});
  }
  state.SetItemsProcessed(state.iterations() * batch);
  benchmark::DoNotOptimize(counter);
}
BENCHMARK(BM_AsyncThroughput)->Arg(1)->Arg(1000)->UseRealTime();

}  // namespace
