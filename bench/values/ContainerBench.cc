// Hash and array costs that decide how fast a commit is: every transaction
// deep-copies the domain's tree, and every read is a hash lookup.
//
// BM_HashGet*: one lookup of a present key in a hash of 1,000 entries.
// BM_HashCloneTree/N: deep copy of N scalar entries spread over 100 nested
// hashes; time per entry should stay flat from 1k to 100k.
// BM_HashMemory: heap growth (mallinfo2) for a hash of 100,000 int64 entries,
// reported as counters: everything, and the part the hash itself adds on top of
// the values handed to it. /0 sets the keys in key order (as copies and loads
// do), /1 in random order.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "qelss/values/ArrayFactory.h"
#include "qelss/values/HashFactory.h"
#include "qelss/values/INumber.h"
#include "qelss/values/IString.h"
#include "qelss/values/NumberFactory.h"
#include "qelss/values/StringFactory.h"

namespace QelSS {
namespace {

std::shared_ptr<IValue> Number(long long value) {
  std::shared_ptr<INumber> number;
  (void)NumberFactory::Create(number, value);
  return number;
}

std::string KeyText(int index) {
  char text[16];
  std::snprintf(text, sizeof text, "key%06d", index);
  return text;
}

std::shared_ptr<IHash> FlatHash(int entries) {
  std::shared_ptr<IHash> hash;
  (void)HashFactory::Create(hash);
  for (int i = 0; i < entries; ++i) (void)hash->Set(KeyText(i).c_str(), Number(i));
  return hash;
}

void BM_HashGetCString(benchmark::State& state) {
  constexpr int kEntries = 1000;
  auto hash = FlatHash(kEntries);
  std::vector<std::string> keys;
  for (int i = 0; i < kEntries; ++i) keys.push_back(KeyText((i * 7919) % kEntries));
  size_t next = 0;
  std::shared_ptr<IValue> out;
  for (auto _ : state) {
    benchmark::DoNotOptimize(hash->Get(keys[next].c_str(), out));
    next = next + 1 == keys.size() ? 0 : next + 1;
  }
}
BENCHMARK(BM_HashGetCString);

void BM_HashGetStringKey(benchmark::State& state) {
  constexpr int kEntries = 1000;
  auto hash = FlatHash(kEntries);
  std::vector<std::shared_ptr<IString>> keys(kEntries);
  for (int i = 0; i < kEntries; ++i)
    (void)StringFactory::Create(keys[i], KeyText((i * 7919) % kEntries));
  size_t next = 0;
  std::shared_ptr<IValue> out;
  for (auto _ : state) {
    benchmark::DoNotOptimize(hash->Get(keys[next], out));
    next = next + 1 == keys.size() ? 0 : next + 1;
  }
}
BENCHMARK(BM_HashGetStringKey);

void BM_HashSetExisting(benchmark::State& state) {
  constexpr int kEntries = 1000;
  auto hash = FlatHash(kEntries);
  auto value = Number(1);
  int next = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(hash->Set(KeyText(next).c_str(), value));
    next = next + 1 == kEntries ? 0 : next + 1;
  }
}
BENCHMARK(BM_HashSetExisting);

// 100 nested hashes under one root, holding `entries` numbers between them.
std::shared_ptr<IHash> Tree(int entries) {
  constexpr int kBranches = 100;
  std::shared_ptr<IHash> root;
  (void)HashFactory::Create(root);
  for (int branch = 0; branch < kBranches; ++branch) {
    (void)root->Set(KeyText(branch).c_str(), FlatHash(entries / kBranches));
  }
  return root;
}

void BM_HashCloneTree(benchmark::State& state) {
  const int entries = static_cast<int>(state.range(0));
  auto tree = Tree(entries);
  for (auto _ : state) {
    std::shared_ptr<IValue> clone;
    benchmark::DoNotOptimize(tree->Clone(clone));
    benchmark::DoNotOptimize(clone);
  }
  state.SetItemsProcessed(state.iterations() * entries);
}
BENCHMARK(BM_HashCloneTree)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMicrosecond);

void BM_ArrayClone(benchmark::State& state) {
  std::shared_ptr<IArray> array;
  (void)ArrayFactory::Create(array);
  for (int i = 0; i < state.range(0); ++i) (void)array->Append(Number(i));
  for (auto _ : state) {
    std::shared_ptr<IValue> clone;
    benchmark::DoNotOptimize(array->Clone(clone));
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ArrayClone)->Arg(10000)->Unit(benchmark::kMicrosecond);

void BM_HashEqualTree(benchmark::State& state) {
  auto tree = Tree(10000);
  auto same = Tree(10000);
  for (auto _ : state) benchmark::DoNotOptimize(*tree == *same);
}
BENCHMARK(BM_HashEqualTree)->Unit(benchmark::kMicrosecond);

size_t HeapInUse() { return mallinfo2().uordblks; }

void BM_HashMemory(benchmark::State& state) {
  constexpr int kEntries = 100000;
  for (auto _ : state) {
    std::vector<std::string> keys;
    for (int i = 0; i < kEntries; ++i) keys.push_back(KeyText(i));
    if (state.range(0) == 1) std::shuffle(keys.begin(), keys.end(), std::mt19937(1));
    std::vector<std::shared_ptr<IValue>> values;
    values.reserve(kEntries);

    const size_t start = HeapInUse();
    for (int i = 0; i < kEntries; ++i) values.push_back(Number(i));
    const size_t valuesMade = HeapInUse();
    std::shared_ptr<IHash> hash;
    (void)HashFactory::Create(hash);
    for (int i = 0; i < kEntries; ++i) (void)hash->Set(keys[i].c_str(), values[i]);
    const size_t filled = HeapInUse();
    benchmark::DoNotOptimize(hash);

    state.counters["total_MB"] = static_cast<double>(filled - start) / 1e6;
    state.counters["hash_MB"] = static_cast<double>(filled - valuesMade) / 1e6;
    state.counters["bytes_per_entry"] = static_cast<double>(filled - start) / kEntries;
  }
}
BENCHMARK(BM_HashMemory)->Arg(0)->Arg(1)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace QelSS
