// Creating, cloning and comparing scalar values. Cloning a scalar shares its
// immutable platform object, so a clone costs one allocation (the shared_ptr
// block) whatever the payload size; compare the String and Data clone rows
// across sizes.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include <vector>

#include "qelss/values/DataFactory.h"
#include "qelss/values/DateFactory.h"
#include "qelss/values/INumber.h"
#include "qelss/values/IString.h"
#include "qelss/values/NumberFactory.h"
#include "qelss/values/StringFactory.h"
#include "qelss/values/UUIDFactory.h"

namespace QelSS {
namespace {

std::shared_ptr<INumber> Number(long long value) {
  std::shared_ptr<INumber> number;
  (void)NumberFactory::Create(number, value);
  return number;
}

std::shared_ptr<IString> String(size_t length) {
  std::shared_ptr<IString> string;
  (void)StringFactory::Create(string, std::string(length, 'x'));
  return string;
}

void BM_NumberCreate(benchmark::State& state) {
  long long n = 0;
  for (auto _ : state) {
    std::shared_ptr<INumber> number;
    benchmark::DoNotOptimize(NumberFactory::Create(number, ++n));
    benchmark::DoNotOptimize(number);
  }
}
BENCHMARK(BM_NumberCreate);

void BM_StringCreate(benchmark::State& state) {
  const std::string text(static_cast<size_t>(state.range(0)), 'x');
  for (auto _ : state) {
    std::shared_ptr<IString> string;
    benchmark::DoNotOptimize(StringFactory::Create(string, text.c_str()));
    benchmark::DoNotOptimize(string);
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_StringCreate)->Arg(8)->Arg(256)->Arg(64 << 10);

void BM_NumberClone(benchmark::State& state) {
  auto number = Number(42);
  for (auto _ : state) {
    std::shared_ptr<IValue> clone;
    benchmark::DoNotOptimize(number->Clone(clone));
    benchmark::DoNotOptimize(clone);
  }
}
BENCHMARK(BM_NumberClone);

void BM_StringClone(benchmark::State& state) {
  auto string = String(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    std::shared_ptr<IValue> clone;
    benchmark::DoNotOptimize(string->Clone(clone));
    benchmark::DoNotOptimize(clone);
  }
}
BENCHMARK(BM_StringClone)->Arg(8)->Arg(256)->Arg(64 << 10);

void BM_NumberEqual(benchmark::State& state) {
  auto a = Number(42);
  auto b = Number(42);
  for (auto _ : state) benchmark::DoNotOptimize(*a == *b);
}
BENCHMARK(BM_NumberEqual);

void BM_NumberKindMismatch(benchmark::State& state) {
  auto a = Number(42);
  std::shared_ptr<INumber> b;
  (void)NumberFactory::Create(b, 42ULL);
  for (auto _ : state) benchmark::DoNotOptimize(*a == *b);
}
BENCHMARK(BM_NumberKindMismatch);

void BM_StringEqual(benchmark::State& state) {
  auto a = String(static_cast<size_t>(state.range(0)));
  auto b = String(static_cast<size_t>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(*a == *b);
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_StringEqual)->Arg(8)->Arg(256)->Arg(64 << 10);

void BM_NumberDescription(benchmark::State& state) {
  std::shared_ptr<INumber> number;
  (void)NumberFactory::Create(number, 2.5);
  std::string text;
  for (auto _ : state) {
    benchmark::DoNotOptimize(number->Description(text, 4));
    benchmark::DoNotOptimize(text);
  }
}
BENCHMARK(BM_NumberDescription);

std::shared_ptr<IData> Data(size_t length) {
  const std::vector<unsigned char> bytes(length, 0x5a);
  std::shared_ptr<IData> data;
  (void)DataFactory::Create(data, bytes.data(), bytes.size());
  return data;
}

void BM_DataCreate(benchmark::State& state) {
  const std::vector<unsigned char> bytes(static_cast<size_t>(state.range(0)), 0x5a);
  for (auto _ : state) {
    std::shared_ptr<IData> data;
    benchmark::DoNotOptimize(DataFactory::Create(data, bytes.data(), bytes.size()));
    benchmark::DoNotOptimize(data);
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_DataCreate)->Arg(16)->Arg(64 << 10)->Arg(1 << 20);

void BM_DataClone(benchmark::State& state) {
  auto data = Data(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    std::shared_ptr<IValue> clone;
    benchmark::DoNotOptimize(data->Clone(clone));
    benchmark::DoNotOptimize(clone);
  }
}
BENCHMARK(BM_DataClone)->Arg(16)->Arg(64 << 10)->Arg(1 << 20);

void BM_DataDescription(benchmark::State& state) {
  auto data = Data(static_cast<size_t>(state.range(0)));
  std::string text;
  for (auto _ : state) {
    benchmark::DoNotOptimize(data->Description(text));
    benchmark::DoNotOptimize(text);
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_DataDescription)->Arg(16)->Arg(64 << 10);

void BM_DateDescription(benchmark::State& state) {
  std::shared_ptr<IDate> date;
  (void)DateFactory::Create(date, 1700000000L);
  std::string text;
  for (auto _ : state) {
    benchmark::DoNotOptimize(date->Description(text));
    benchmark::DoNotOptimize(text);
  }
}
BENCHMARK(BM_DateDescription);

void BM_UUIDCreateRandom(benchmark::State& state) {
  for (auto _ : state) {
    std::shared_ptr<IUUID> uuid;
    benchmark::DoNotOptimize(UUIDFactory::Create(uuid));
    benchmark::DoNotOptimize(uuid);
  }
}
BENCHMARK(BM_UUIDCreateRandom);

}  // namespace
}  // namespace QelSS
