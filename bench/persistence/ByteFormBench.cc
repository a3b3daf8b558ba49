// The byte form on the paths a domain file takes. The tree is the size of a
// large domain: 10,000 entries of mixed kinds, 100 nested hashes of 99 entries.
//   BM_WriteSettingsPath   Serialize (clone + write) + encrypt + write the file
//   BM_ReadSettingsPath    read the file + decrypt + HashFactory::CreateFromBytes
// Targets: under 40 ms and 60 ms. The other benchmarks split those paths up and
// compare the one-pass writer and one-walk reader with the reference ones;
// BM_Read*Depth shows the reference reader's cost growing with nesting depth
// (1,000 leaves below a chain of 1, 4, 8 or 16 hashes) and the walk's staying
// flat. BM_ReadHostileDeepFile reads what a hostile domain file can hold: 30 MB
// of strings below 250 nested hashes, every level's rewrite large enough to be
// checked with libxml2. The reference reader would have to write and parse
// over a petabyte, so the read is refused at once. Target: under 2 s.
// BM_ReadHostileDoubles reads 32 MB of doubles near the largest one, one level
// down, whose six-decimal texts run to 316 characters, so that the one rewrite
// checked is nearly 300 MB. BM_ReadHostileDeepDoubles nests those below
// 21 hashes: the worst case known, as deep as the reference reader's limit
// lets it go.

#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "persistence/ByteForm.h"
#include "persistence/ByteFormReference.h"
#include "persistence/Envelope.h"
#include "qelss/platform/ErrorCode.h"
#include "qelss/values/DataFactory.h"
#include "qelss/values/DateFactory.h"
#include "qelss/values/HashFactory.h"
#include "qelss/values/NullFactory.h"
#include "qelss/values/NumberFactory.h"
#include "qelss/values/StringFactory.h"
#include "qelss/values/UUIDFactory.h"

namespace {

using QelSS::IHash;
using QelSS::IValue;
using Bytes = std::vector<uint8_t>;

const Bytes kKey(32, 0x2b);

template <typename I>
std::shared_ptr<IValue> Checked(std::error_code code, const std::shared_ptr<I>& value) {
  if (!QelSS::Succeeded(code)) std::abort();
  return value;
}

std::shared_ptr<IValue> Leaf(int i) {
  switch (i % 8) {
    case 0: {
      std::shared_ptr<QelSS::INumber> n;
      return Checked(QelSS::NumberFactory::Create(n, static_cast<long long>(i) * 7919), n);
    }
    case 1: {
      std::shared_ptr<QelSS::INumber> n;
      return Checked(QelSS::NumberFactory::Create(n, i / 7.0), n);
    }
    case 2: {
      std::shared_ptr<QelSS::INumber> n;
      return Checked(QelSS::NumberFactory::Create(n, i % 3 == 0), n);
    }
    case 3: {
      std::shared_ptr<QelSS::IString> s;
      return Checked(QelSS::StringFactory::Create(
                         s, "value " + std::to_string(i) + " <with> some & text to escape"),
                     s);
    }
    case 4: {
      std::shared_ptr<QelSS::IData> d;
      const Bytes bytes(32, static_cast<uint8_t>(i));
      return Checked(QelSS::DataFactory::Create(d, bytes.data(), bytes.size()), d);
    }
    case 5: {
      std::shared_ptr<QelSS::IDate> d;
      return Checked(QelSS::DateFactory::Create(d, 1700000000L + i), d);
    }
    case 6: {
      std::shared_ptr<QelSS::IUUID> u;
      return Checked(QelSS::UUIDFactory::Create(u), u);
    }
    default: {
      std::shared_ptr<QelSS::INumber> n;
      return Checked(QelSS::NumberFactory::Create(n, static_cast<unsigned long long>(i)), n);
    }
  }
}

std::shared_ptr<IHash> EmptyHash() {
  std::shared_ptr<IHash> hash;
  if (!QelSS::Succeeded(QelSS::HashFactory::Create(hash))) std::abort();
  return hash;
}

void Put(const std::shared_ptr<IHash>& hash, const std::string& key,
         const std::shared_ptr<IValue>& value) {
  if (!QelSS::Succeeded(hash->Set(key.c_str(), value))) std::abort();
}

// 100 hashes of 99 leaves each: 10,000 entries.
const std::shared_ptr<IHash>& LargeTree() {
  static const std::shared_ptr<IHash> tree = [] {
    auto root = EmptyHash();
    for (int group = 0; group < 100; ++group) {
      auto nested = EmptyHash();
      for (int i = 0; i < 99; ++i)
        Put(nested, "setting." + std::to_string(i), Leaf(group * 99 + i));
      Put(root, "group." + std::to_string(group), nested);
    }
    return root;
  }();
  return tree;
}

// 1,000 leaves below a chain of `depth` hashes.
Bytes DeepTreeBytes(int depth) {
  auto bottom = EmptyHash();
  for (int i = 0; i < 1000; ++i) Put(bottom, "k" + std::to_string(i), Leaf(i));
  std::shared_ptr<IHash> tree = bottom;
  for (int level = 1; level < depth; ++level) {
    auto parent = EmptyHash();
    Put(parent, "level", tree);
    tree = parent;
  }
  Bytes bytes;
  if (!QelSS::Succeeded(QelSS::WriteByteForm(tree, bytes))) std::abort();
  return bytes;
}

const Bytes& LargeTreeBytes() {
  static const Bytes bytes = [] {
    Bytes out;
    if (!QelSS::Succeeded(QelSS::WriteByteForm(LargeTree(), out))) std::abort();
    return out;
  }();
  return bytes;
}

std::string TempFile() {
  static const std::string path = [] {
    std::string pattern = (std::filesystem::temp_directory_path() / "qelss-bench-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) std::abort();
    std::atexit(
        [] { std::filesystem::remove_all(std::filesystem::path(TempFile()).parent_path()); });
    return pattern + "/domain";
  }();
  return path;
}

void WriteFile(const std::string& path, const Bytes& bytes) {
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr || std::fwrite(bytes.data(), 1, bytes.size(), file) != bytes.size() ||
      std::fflush(file) != 0) {
    std::abort();
  }
  std::fclose(file);
}

Bytes ReadFile(const std::string& path) {
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) std::abort();
  std::fseek(file, 0, SEEK_END);
  Bytes bytes(static_cast<size_t>(std::ftell(file)));
  std::fseek(file, 0, SEEK_SET);
  if (std::fread(bytes.data(), 1, bytes.size(), file) != bytes.size()) std::abort();
  std::fclose(file);
  return bytes;
}

void BM_SerializeLargeTree(benchmark::State& state) {
  for (auto _ : state) {
    Bytes bytes;
    if (!QelSS::Succeeded(LargeTree()->Serialize(bytes))) state.SkipWithError("Serialize");
    benchmark::DoNotOptimize(bytes.data());
  }
  state.counters["bytes"] = static_cast<double>(LargeTreeBytes().size());
}
BENCHMARK(BM_SerializeLargeTree)->Unit(benchmark::kMillisecond);

void BM_WriteByteFormLargeTree(benchmark::State& state) {
  for (auto _ : state) {
    Bytes bytes;
    if (!QelSS::Succeeded(QelSS::WriteByteForm(LargeTree(), bytes))) state.SkipWithError("write");
    benchmark::DoNotOptimize(bytes.data());
  }
}
BENCHMARK(BM_WriteByteFormLargeTree)->Unit(benchmark::kMillisecond);

void BM_ReferenceWriteLargeTree(benchmark::State& state) {
  for (auto _ : state) {
    Bytes bytes;
    if (!QelSS::Succeeded(QelSS::byteform::WriteValueReference(LargeTree(), bytes))) {
      state.SkipWithError("write");
    }
    benchmark::DoNotOptimize(bytes.data());
  }
}
BENCHMARK(BM_ReferenceWriteLargeTree)->Unit(benchmark::kMillisecond);

void BM_CreateFromBytesLargeTree(benchmark::State& state) {
  for (auto _ : state) {
    std::shared_ptr<IHash> hash;
    if (!QelSS::Succeeded(QelSS::HashFactory::CreateFromBytes(hash, LargeTreeBytes()))) {
      state.SkipWithError("read");
    }
    benchmark::DoNotOptimize(hash.get());
  }
}
BENCHMARK(BM_CreateFromBytesLargeTree)->Unit(benchmark::kMillisecond);

void BM_ReferenceReadLargeTree(benchmark::State& state) {
  for (auto _ : state) {
    std::shared_ptr<IValue> value;
    if (!QelSS::Succeeded(QelSS::byteform::ReadByteFormReference(LargeTreeBytes(), value))) {
      state.SkipWithError("read");
    }
    benchmark::DoNotOptimize(value.get());
  }
}
BENCHMARK(BM_ReferenceReadLargeTree)->Unit(benchmark::kMillisecond);

void BM_WriteSettingsPath(benchmark::State& state) {
  for (auto _ : state) {
    Bytes bytes;
    Bytes envelope;
    if (!QelSS::Succeeded(LargeTree()->Serialize(bytes)) ||
        !QelSS::Succeeded(QelSS::EncryptWithKey(kKey, bytes, envelope))) {
      state.SkipWithError("write");
    }
    WriteFile(TempFile(), envelope);
  }
}
BENCHMARK(BM_WriteSettingsPath)->Unit(benchmark::kMillisecond);

void BM_ReadSettingsPath(benchmark::State& state) {
  Bytes envelope;
  if (!QelSS::Succeeded(QelSS::EncryptWithKey(kKey, LargeTreeBytes(), envelope))) std::abort();
  WriteFile(TempFile(), envelope);
  for (auto _ : state) {
    Bytes payload;
    std::shared_ptr<IHash> hash;
    if (!QelSS::Succeeded(QelSS::DecryptWithKey(kKey, ReadFile(TempFile()), payload)) ||
        !QelSS::Succeeded(QelSS::HashFactory::CreateFromBytes(hash, payload))) {
      state.SkipWithError("read");
    }
    benchmark::DoNotOptimize(hash.get());
  }
}
BENCHMARK(BM_ReadSettingsPath)->Unit(benchmark::kMillisecond);

void BM_ReadDepth(benchmark::State& state) {
  const Bytes bytes = DeepTreeBytes(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    std::shared_ptr<IValue> value;
    if (!QelSS::Succeeded(QelSS::ReadByteForm(bytes, value))) state.SkipWithError("read");
    benchmark::DoNotOptimize(value.get());
  }
}
BENCHMARK(BM_ReadDepth)->Arg(1)->Arg(4)->Arg(16)->Unit(benchmark::kMillisecond);

void BM_ReferenceReadDepth(benchmark::State& state) {
  const Bytes bytes = DeepTreeBytes(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    std::shared_ptr<IValue> value;
    if (!QelSS::Succeeded(QelSS::byteform::ReadByteFormReference(bytes, value))) {
      state.SkipWithError("read");
    }
    benchmark::DoNotOptimize(value.get());
  }
}
// The reference reader reads every nested container twice (once to rewrite it,
// once from the rewrite), so its cost doubles with each level: 16 levels take
// minutes, and 8 show the trend.
BENCHMARK(BM_ReferenceReadDepth)->Arg(1)->Arg(4)->Arg(8)->Unit(benchmark::kMillisecond);

void ReadHostileFile(benchmark::State& state, const Bytes& bytes, std::error_code expected) {
  for (auto _ : state) {
    std::shared_ptr<IValue> value;
    if (QelSS::ReadByteForm(bytes, value) != expected) {
      state.SkipWithError("the hostile file did not read as expected");
    }
    benchmark::DoNotOptimize(value.get());
  }
  state.counters["bytes"] = static_cast<double>(bytes.size());
}

// `array` below `depth` hashes, each a key and the next level.
Bytes BelowHashes(int depth, const std::string& array) {
  std::string text;
  for (int i = 0; i < depth; ++i) text += "<Hash><String>k</String>";
  text += array;
  for (int i = 0; i < depth; ++i) text += "</Hash>";
  return Bytes(text.begin(), text.end());
}

// 30 MB of strings below `depth` hashes, ending in short elements so that
// libxml2 takes each level's rewrite and nothing stops the walk early.
Bytes HostileDeepFile(int depth) {
  std::string array = "<Array>";
  const std::string string = "<String>" + std::string(10000, 'x') + "</String>";
  for (int i = 0; i < 3000; ++i) array += string;
  for (int i = 0; i < 40; ++i) array += "<NULL/>";
  return BelowHashes(depth, array + "</Array>");
}

void BM_ReadHostileDeepFile(benchmark::State& state) {
  ReadHostileFile(state, HostileDeepFile(250), make_error_code(QelSS::kSerializationError));
}
BENCHMARK(BM_ReadHostileDeepFile)->Unit(benchmark::kMillisecond)->Iterations(3);

// 32 MB in all of doubles near the largest, below `depth` hashes.
Bytes HostileDoubles(int depth) {
  // Each level adds 31 bytes around the array.
  const size_t room = QelSS::kMaxByteFormSize - 100 - 31 * static_cast<size_t>(depth);
  std::string array = "<Array>";
  while (array.size() < room) {
    array += "<Number type=\"double\">1e308</Number>";
  }
  return BelowHashes(depth, array + "</Array>");
}

void BM_ReadHostileDoubles(benchmark::State& state) {
  ReadHostileFile(state, HostileDoubles(1), make_error_code(QelSS::kSuccess));
}
BENCHMARK(BM_ReadHostileDoubles)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_ReadHostileDeepDoubles(benchmark::State& state) {
  ReadHostileFile(state, HostileDoubles(21), make_error_code(QelSS::kSuccess));
}
BENCHMARK(BM_ReadHostileDeepDoubles)->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace
