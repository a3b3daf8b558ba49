// Saving and loading a domain of 10,000 entries (100 nested hashes of 99
// entries of every kind), whole and stage by stage, on the disk folder (/tmp)
// and on tmpfs (/dev/shm): the difference between the two is what the fsyncs
// cost. The NoSync rows skip every fsync, for the same comparison on one folder.
// Targets: a whole write under 40 ms, a whole read under 60 ms.
//
// Each row's "bytes" counter is the size of the domain file on disk.

#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "persistence/DomainFile.h"
#include "persistence/Envelope.h"
#include "persistence/Storage.h"
#include "platform/support/FileSystemWrapper.h"
#include "qelss/values/ArrayFactory.h"
#include "qelss/values/DataFactory.h"
#include "qelss/values/DateFactory.h"
#include "qelss/values/HashFactory.h"
#include "qelss/values/NullFactory.h"
#include "qelss/values/NumberFactory.h"
#include "qelss/values/StringFactory.h"
#include "qelss/values/UUIDFactory.h"

namespace QelSS {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr int kNestedHashes = 100;
constexpr int kEntriesPerHash = 99;

// A private folder for the process's key and one domain folder per medium,
// made before any benchmark runs and removed at exit.
class Folders {
 public:
  Folders() {
    keyHome_ = MakeTemporary("/tmp");
    ::setenv("XDG_DATA_HOME", keyHome_.c_str(), 1);
    disk_ = MakeTemporary("/tmp");
    memory_ = MakeTemporary("/dev/shm");
  }
  ~Folders() {
    std::error_code ignored;
    for (const auto& folder : {keyHome_, disk_, memory_}) {
      if (!folder.empty()) std::filesystem::remove_all(folder, ignored);
    }
  }
  // Medium 0 is the disk, 1 is tmpfs.
  std::string DomainPath(int64_t medium) const {
    return (medium == 0 ? disk_ : memory_) + "/settings";
  }

 private:
  static std::string MakeTemporary(const std::string& parent) {
    std::string pattern = parent + "/qelss-bench-XXXXXX";
    return ::mkdtemp(pattern.data()) ? pattern : std::string();
  }
  std::string keyHome_, disk_, memory_;
};

// Set up at load time, so that no run (whatever the filter) derives the key
// from the machine's real key folder.
const Folders kFolders;

const Folders& TheFolders() { return kFolders; }

// Syncs nothing: what remains is the cost of writing, removing and renaming.
class NoSyncFileSystem final : public platform::FileSystemWrapper {
 public:
  NoSyncFileSystem() : FileSystemWrapper(platform::DefaultFileSystem()) {}
  std::error_code Sync(int) override { return kSuccess; }
  std::error_code SyncDirectory(const std::string&) override { return kSuccess; }
};

std::shared_ptr<IValue> Entry(int hash, int i) {
  const long long n = hash * 1000LL + i;
  switch (i % 8) {
    case 0: {
      std::shared_ptr<INumber> v;
      (void)NumberFactory::Create(v, n);
      return v;
    }
    case 1: {
      std::shared_ptr<INumber> v;
      (void)NumberFactory::Create(v, n * 0.25);
      return v;
    }
    case 2: {
      std::shared_ptr<INumber> v;
      (void)NumberFactory::Create(v, n % 2 == 0);
      return v;
    }
    case 3: {
      std::shared_ptr<IString> v;
      (void)StringFactory::Create(v, "a setting value of moderate length " + std::to_string(n));
      return v;
    }
    case 4: {
      const std::vector<unsigned char> bytes(64, static_cast<unsigned char>(n));
      std::shared_ptr<IData> v;
      (void)DataFactory::Create(v, bytes.data(), bytes.size());
      return v;
    }
    case 5: {
      std::shared_ptr<IDate> v;
      (void)DateFactory::Create(v, static_cast<long>(1.7e9 + n));
      return v;
    }
    case 6: {
      std::shared_ptr<IUUID> v;
      (void)UUIDFactory::Create(v);
      return v;
    }
    default: {
      std::shared_ptr<IArray> v;
      (void)ArrayFactory::Create(v);
      for (int k = 0; k < 3; ++k) {
        std::shared_ptr<INumber> element;
        (void)NumberFactory::Create(element, n + k);
        (void)v->Append(element);
      }
      return v;
    }
  }
}

const std::shared_ptr<IHash>& Tree() {
  static const std::shared_ptr<IHash> tree = [] {
    std::shared_ptr<IHash> root;
    (void)HashFactory::Create(root);
    for (int h = 0; h < kNestedHashes; ++h) {
      std::shared_ptr<IHash> nested;
      (void)HashFactory::Create(nested);
      for (int i = 0; i < kEntriesPerHash; ++i) {
        (void)nested->Set(("entry" + std::to_string(i)).c_str(), Entry(h, i));
      }
      (void)root->Set(("group" + std::to_string(h)).c_str(), nested);
    }
    return root;
  }();
  return tree;
}

const Bytes& Plain() {
  static const Bytes bytes = [] {
    Bytes out;
    (void)Tree()->Serialize(out);
    return out;
  }();
  return bytes;
}

const Bytes& Sealed() {
  static const Bytes bytes = [] {
    Bytes out;
    (void)Encrypt(Plain(), out);
    return out;
  }();
  return bytes;
}

void Label(benchmark::State& state, const std::string& path) {
  state.SetLabel(state.range(0) == 0 ? "disk" : "tmpfs");
  struct stat info {};
  if (::stat(path.c_str(), &info) == 0) state.counters["bytes"] = static_cast<double>(info.st_size);
}

void Media(benchmark::internal::Benchmark* bench) {
  bench->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
}

void BM_WriteSettings(benchmark::State& state) {
  const std::string path = TheFolders().DomainPath(state.range(0));
  Storage storage;
  for (auto _ : state) {
    storage.WriteSettings(path, Tree(), [&](std::error_code code) {
      if (code != kSuccess) state.SkipWithError("write failed");
    });
  }
  Label(state, path);
}
BENCHMARK(BM_WriteSettings)->Apply(Media);

void BM_ReadSettings(benchmark::State& state) {
  const std::string path = TheFolders().DomainPath(state.range(0));
  Storage storage;
  storage.WriteSettings(path, Tree(), [](std::error_code) {});
  for (auto _ : state) {
    storage.ReadSettings(path, [&](std::error_code code, std::shared_ptr<IHash> tree) {
      if (code != kSuccess) state.SkipWithError("read failed");
      benchmark::DoNotOptimize(tree);
    });
  }
  Label(state, path);
}
BENCHMARK(BM_ReadSettings)->Apply(Media);

// ---- Write stages ----

void BM_StageSerialize(benchmark::State& state) {
  for (auto _ : state) {
    Bytes bytes;
    if (Tree()->Serialize(bytes) != kSuccess) state.SkipWithError("serialise failed");
    benchmark::DoNotOptimize(bytes.data());
  }
  state.counters["bytes"] = static_cast<double>(Plain().size());
}
BENCHMARK(BM_StageSerialize)->Unit(benchmark::kMillisecond);

void BM_StageEncrypt(benchmark::State& state) {
  for (auto _ : state) {
    Bytes sealed;
    if (Encrypt(Plain(), sealed) != kSuccess) state.SkipWithError("encrypt failed");
    benchmark::DoNotOptimize(sealed.data());
  }
  state.counters["bytes"] = static_cast<double>(Sealed().size());
}
BENCHMARK(BM_StageEncrypt)->Unit(benchmark::kMillisecond);

// Temporary file, fsync, folder sync, remove, rename, permissions, folder sync.
void BM_StageWriteAndSync(benchmark::State& state) {
  const std::string path = TheFolders().DomainPath(state.range(0));
  auto files = platform::DefaultFileSystem();
  for (auto _ : state) {
    if (ReplaceDomainBytes(*files, path, Sealed()) != kSuccess) state.SkipWithError("failed");
  }
  Label(state, path);
}
BENCHMARK(BM_StageWriteAndSync)->Apply(Media);

void BM_StageWriteNoSync(benchmark::State& state) {
  const std::string path = TheFolders().DomainPath(state.range(0));
  NoSyncFileSystem files;
  for (auto _ : state) {
    if (ReplaceDomainBytes(files, path, Sealed()) != kSuccess) state.SkipWithError("failed");
  }
  Label(state, path);
}
BENCHMARK(BM_StageWriteNoSync)->Apply(Media);

// ---- Read stages ----

void BM_StageReadBytes(benchmark::State& state) {
  const std::string path = TheFolders().DomainPath(state.range(0));
  auto files = platform::DefaultFileSystem();
  (void)ReplaceDomainBytes(*files, path, Sealed());
  for (auto _ : state) {
    Bytes bytes;
    if (ReadDomainBytes(*files, path, bytes) != kSuccess) state.SkipWithError("read failed");
    benchmark::DoNotOptimize(bytes.data());
  }
  Label(state, path);
}
BENCHMARK(BM_StageReadBytes)->Apply(Media);

void BM_StageDecrypt(benchmark::State& state) {
  for (auto _ : state) {
    Bytes plain;
    if (Decrypt(Sealed(), plain) != kSuccess) state.SkipWithError("decrypt failed");
    benchmark::DoNotOptimize(plain.data());
  }
}
BENCHMARK(BM_StageDecrypt)->Unit(benchmark::kMillisecond);

void BM_StageParse(benchmark::State& state) {
  for (auto _ : state) {
    std::shared_ptr<IHash> tree;
    if (HashFactory::CreateFromBytes(tree, Plain()) != kSuccess) state.SkipWithError("failed");
    benchmark::DoNotOptimize(tree);
  }
}
BENCHMARK(BM_StageParse)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace QelSS
