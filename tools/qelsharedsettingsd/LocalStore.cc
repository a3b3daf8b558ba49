#include "LocalStore.h"

#include <sys/stat.h>

#include "Log.h"
#include "persistence/DomainFile.h"
#include "platform/support/FileSystem.h"
#include "qelss/platform/ErrorCode.h"

namespace QelSS::service {

LocalStore::LocalStore(std::string name, std::string stateDir, SyncMode sync)
    : name_(std::move(name)),
      snapshotPath_(stateDir + "/domains/" + name_),
      journalPath_(stateDir + "/journals/" + name_),
      sync_(sync) {}

std::error_code LocalStore::Load(bool create, CommitEngine& engine) {
  bool snapshotExists = false;
  if (std::error_code looked =
          DomainFileExists(*platform::DefaultFileSystem(), snapshotPath_, snapshotExists);
      looked != kSuccess) {
    return looked;
  }
  struct stat info {};
  const bool journalExists = ::stat(journalPath_.c_str(), &info) == 0 && info.st_size > 0;
  if (!snapshotExists && !journalExists && !create) return kDomainNotOpen;
  if (snapshotExists) {
    std::shared_ptr<IHash> root;
    std::error_code read = ReadDomainFile(*platform::DefaultFileSystem(), snapshotPath_, root);
    if (read == kSuccess) read = engine.ReplaceSettings(root);
    if (read != kSuccess) return read;
  }
  if (std::error_code opened = Journal::Open(journalPath_, sync_, journal_); opened != kSuccess) {
    return opened;
  }
  std::error_code loaded = Replay(engine);
  if (loaded == kSuccess && !snapshotExists) loaded = Snapshot(engine);
  if (loaded != kSuccess) journal_.reset();
  return loaded;
}

std::error_code LocalStore::Replay(CommitEngine& engine) {
  const int64_t snapshotGeneration = engine.GenerationCount();
  uint64_t replayed = 0;
  std::error_code result = journal_->Replay([&](const std::vector<uint8_t>& payload) {
    StoredEntry entry;
    if (std::error_code decoded = DecodeEntry(payload, entry); decoded != kSuccess) return decoded;
    if (entry.generation <= snapshotGeneration) return make_error_code(kSuccess);
    std::shared_ptr<IHash> record;
    std::vector<Change> applied;
    // A record the live state refused is refused the same way here.
    if (std::error_code made = ApplyEntry(engine, entry, record, applied);
        made != kSuccess && record == nullptr) {
      return made;
    }
    ++replayed;
    return make_error_code(kSuccess);
  });
  if (replayed > 0) {
    Log(LOG_INFO, "domain %s: replayed %llu commits to generation %lld", name_.c_str(),
        static_cast<unsigned long long>(replayed),
        static_cast<long long>(engine.GenerationCount()));
  }
  return result;
}

std::error_code LocalStore::Append(const StoredEntry& entry, std::vector<StoredEntry>&) {
  std::vector<uint8_t> payload;
  std::error_code stored = EncodeEntry(entry, payload);
  if (stored == kSuccess) stored = journal_->Append(payload);
  if (stored != kSuccess) {
    Log(LOG_ERR, "domain %s: journal append failed (%d)", name_.c_str(), stored.value());
    return kFileWriteError;
  }
  return stored;
}

// Nothing but this service writes the folder: there is never anything to
// catch up with.
std::error_code LocalStore::Since(int64_t, std::vector<StoredEntry>& entries) {
  entries.clear();
  return kSuccess;
}

void LocalStore::WhenDurable(std::function<void(std::error_code)> then) {
  journal_->WhenDurable(std::move(then));
}

std::error_code LocalStore::Snapshot(const CommitEngine& engine) {
  std::error_code written =
      WriteDomainFile(*platform::DefaultFileSystem(), snapshotPath_, engine.Root());
  if (written == kSuccess) written = journal_->Reset();
  if (written != kSuccess) {
    Log(LOG_ERR, "domain %s: snapshot failed (%d)", name_.c_str(), written.value());
  }
  return written;
}

std::unique_ptr<DomainStore> LocalStores::Open(const std::string& name, Listener) {
  return std::make_unique<LocalStore>(name, stateDir_, sync_);
}

}  // namespace QelSS::service
