#include "EtcdStore.h"

#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <stdexcept>

#include "../Log.h"
#include "persistence/ByteForm.h"
#include "persistence/Envelope.h"
#include "qelss/platform/ErrorCode.h"
#include "qelss/values/IValue.h"

namespace QelSS::service::etcd {
namespace {

constexpr std::string_view kDomains = "domains/";
constexpr std::string_view kLog = "log/";
// How many generations back a commit may still find the revision it
// compares with; older ones are caught up with instead.
constexpr int64_t kRememberedGenerations = 64;

// The first key after every key that starts with `prefix`.
std::string RangeEnd(std::string prefix) {
  while (!prefix.empty()) {
    if (static_cast<unsigned char>(prefix.back()) != 0xff) {
      prefix.back() = static_cast<char>(prefix.back() + 1);
      return prefix;
    }
    prefix.pop_back();
  }
  return std::string(1, '\0');
}

std::error_code Seal(const std::vector<uint8_t>& key, const std::vector<uint8_t>& plain,
                     std::string& out) {
  std::vector<uint8_t> sealed;
  if (std::error_code made = EncryptWithKey(key, plain, sealed); made != kSuccess) return made;
  out.assign(sealed.begin(), sealed.end());
  return kSuccess;
}

std::error_code Unseal(const std::vector<uint8_t>& key, const std::string& sealed,
                       std::vector<uint8_t>& out) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(sealed.data());
  return DecryptWithKey(key, {bytes, sealed.size()}, out);
}

std::vector<uint8_t> BytesOf(const std::string& text) { return {text.begin(), text.end()}; }

// Makes `request` apply only while `key` was last changed at `revision`.
void OnlyIfUnchangedSince(etcdserverpb::TxnRequest& request, const std::string& key,
                          int64_t revision) {
  auto* unchanged = request.add_compare();
  unchanged->set_key(key);
  unchanged->set_target(etcdserverpb::Compare::MOD);
  unchanged->set_result(etcdserverpb::Compare::EQUAL);
  unchanged->set_mod_revision(revision);
}

void Put(etcdserverpb::TxnRequest& request, const std::string& key, const std::string& value) {
  auto* put = request.add_success()->mutable_request_put();
  put->set_key(key);
  put->set_value(value);
}

bool ParseCount(const std::vector<uint8_t>& text, int64_t& count) {
  const char* first = reinterpret_cast<const char*>(text.data());
  const char* last = first + text.size();
  auto [end, error] = std::from_chars(first, last, count);
  return error == std::errc() && end == last && count >= 0;
}

}  // namespace

bool ParseLogKey(const std::string& key, const std::string& prefix, std::string& name,
                 int64_t& generation) {
  if (!key.starts_with(prefix)) return false;
  std::string_view rest(key);
  rest.remove_prefix(prefix.size());
  if (!rest.starts_with(kDomains)) return false;
  rest.remove_prefix(kDomains.size());
  const size_t slash = rest.find('/');
  if (slash == std::string_view::npos || slash == 0) return false;
  std::string_view tail = rest.substr(slash + 1);
  if (!tail.starts_with(kLog)) return false;
  tail.remove_prefix(kLog.size());
  auto [end, error] = std::from_chars(tail.data(), tail.data() + tail.size(), generation);
  if (error != std::errc() || end != tail.data() + tail.size() || generation <= 0) return false;
  name.assign(rest.substr(0, slash));
  return true;
}

// ---- EtcdStores

EtcdStores::EtcdStores(StoreOptions options) : options_(std::move(options)) {
  if (options_.clusterKey.size() != 32) throw std::runtime_error("the cluster key is not 32 bytes");
  if (options_.prefix.empty() || options_.prefix.back() != '/') {
    throw std::runtime_error("the etcd prefix must end with '/'");
  }
  std::string error;
  client_ = Client::Connect(options_.client, error);
  if (client_ == nullptr) throw std::runtime_error(error);
  // Watched from the cluster's present revision: a domain loaded later reads
  // the state as it is then, and hears every commit after.
  etcdserverpb::RangeRequest now;
  now.set_key(options_.prefix);
  now.set_count_only(true);
  etcdserverpb::RangeResponse answer;
  if (grpc::Status status = client_->Range(now, answer); !status.ok()) {
    throw std::runtime_error("the etcd cluster does not answer: " + status.error_message());
  }
  const std::string domains = options_.prefix + std::string(kDomains);
  client_->Watch(
      domains, RangeEnd(domains), answer.header().revision() + 1,
      [this](const etcdserverpb::WatchResponse& response) { Heard(response); },
      [this] {
        std::vector<Listener> listeners;
        {
          std::lock_guard lock(mutex_);
          for (auto& [name, store] : stores_) listeners.push_back(store->listener_);
        }
        for (const Listener& listener : listeners) listener({});
      });
}

// The watch thread ends before the stores it tells go: client_ first.
EtcdStores::~EtcdStores() { client_.reset(); }

std::unique_ptr<DomainStore> EtcdStores::Open(const std::string& name, Listener listener) {
  return std::make_unique<EtcdStore>(*this, name, std::move(listener));
}

void EtcdStores::Register(const std::string& name, EtcdStore* store) {
  std::lock_guard lock(mutex_);
  stores_.emplace(name, store);
}

void EtcdStores::Unregister(const std::string& name, EtcdStore* store) {
  std::lock_guard lock(mutex_);
  for (auto [it, end] = stores_.equal_range(name); it != end; ++it) {
    if (it->second == store) {
      stores_.erase(it);
      return;
    }
  }
}

void EtcdStores::Heard(const etcdserverpb::WatchResponse& response) {
  std::map<std::string, std::vector<std::pair<int64_t, const mvccpb::KeyValue*>>> logs;
  for (const auto& event : response.events()) {
    std::string name;
    int64_t generation = 0;
    if (event.type() == mvccpb::Event::PUT &&
        ParseLogKey(event.kv().key(), options_.prefix, name, generation)) {
      logs[name].emplace_back(generation, &event.kv());
    }
  }
  // Listeners are called without the lock: one may end up holding the last
  // reference to its domain, whose store then unregisters.
  std::vector<std::pair<Listener, std::vector<StoredEntry>>> calls;
  std::unique_lock lock(mutex_);
  for (auto& [name, kvs] : logs) {
    for (auto [it, end] = stores_.equal_range(name); it != end; ++it) {
      std::vector<StoredEntry> entries;
      for (const auto& [generation, kv] : kvs) {
        std::vector<uint8_t> payload;
        StoredEntry entry;
        if (Unseal(options_.clusterKey, kv->value(), payload) != kSuccess ||
            DecodeEntry(payload, entry) != kSuccess || entry.generation != generation) {
          Log(LOG_ERR, "domain %s: log entry %" PRId64 " does not open with the cluster key",
              name.c_str(), generation);
          entries.clear();  // the domain catches up, and says what it cannot read
          break;
        }
        it->second->Saw(generation, kv->mod_revision());
        entries.push_back(std::move(entry));
      }
      calls.emplace_back(it->second->listener_, std::move(entries));
    }
  }
  lock.unlock();
  for (auto& [listener, entries] : calls) listener(std::move(entries));
}

// ---- EtcdStore

EtcdStore::EtcdStore(EtcdStores& owner, std::string name, StoreProvider::Listener listener)
    : owner_(owner),
      name_(std::move(name)),
      base_(owner.options_.prefix + std::string(kDomains) + name_ + "/"),
      listener_(std::move(listener)) {
  owner_.Register(name_, this);
}

EtcdStore::~EtcdStore() { owner_.Unregister(name_, this); }

std::string EtcdStore::LogKey(int64_t generation) const {
  char digits[24];
  std::snprintf(digits, sizeof digits, "%020" PRId64, generation);
  return base_ + std::string(kLog) + digits;
}

void EtcdStore::Saw(int64_t generation, int64_t revision) {
  std::lock_guard lock(mutex_);
  revisions_[generation] = revision;
  while (!revisions_.empty() && revisions_.begin()->first + kRememberedGenerations < generation) {
    revisions_.erase(revisions_.begin());
  }
}

int64_t EtcdStore::RevisionOf(int64_t generation) {
  std::lock_guard lock(mutex_);
  auto found = revisions_.find(generation);
  return found == revisions_.end() ? 0 : found->second;
}

std::error_code EtcdStore::Failed(const char* what, const grpc::Status& status) const {
  Log(LOG_ERR, "domain %s: etcd %s failed: %s", name_.c_str(), what,
      status.error_message().c_str());
  const auto code = status.error_code();
  // The cluster did not answer in time (no quorum, no member reachable):
  // what the caller asked for may still take effect.
  if (code == grpc::StatusCode::DEADLINE_EXCEEDED || code == grpc::StatusCode::UNAVAILABLE) {
    return kTimeout;
  }
  return kFailure;
}

std::vector<StoredEntry> EtcdStore::EntriesOf(const etcdserverpb::RangeResponse& range) {
  std::vector<StoredEntry> entries;
  const auto& key = owner_.options_.clusterKey;
  for (const auto& kv : range.kvs()) {
    std::vector<uint8_t> payload;
    StoredEntry entry;
    if (Unseal(key, kv.value(), payload) != kSuccess || DecodeEntry(payload, entry) != kSuccess) {
      Log(LOG_ERR, "domain %s: a log entry does not open with the cluster key", name_.c_str());
      break;
    }
    Saw(entry.generation, kv.mod_revision());
    entries.push_back(std::move(entry));
  }
  return entries;
}

// One consistent read: the count (responses(0)), the log entries after
// `after` (responses(1)) and, when asked, the snapshot (responses(2)).
std::error_code EtcdStore::Read(int64_t after, bool withSnapshot,
                                etcdserverpb::TxnResponse& response) {
  etcdserverpb::TxnRequest request;
  request.add_success()->mutable_request_range()->set_key(base_ + "generation");
  auto* logs = request.add_success()->mutable_request_range();
  logs->set_key(LogKey(after + 1));
  logs->set_range_end(RangeEnd(base_ + std::string(kLog)));
  if (withSnapshot) request.add_success()->mutable_request_range()->set_key(base_ + "snapshot");
  if (grpc::Status status = owner_.client_->Txn(request, response); !status.ok()) {
    return Failed("read", status);
  }
  return response.responses_size() == (withSnapshot ? 3 : 2) ? kSuccess : kInvalidData;
}

std::error_code EtcdStore::Create(CommitEngine& engine, bool& created) {
  std::vector<uint8_t> bytes;
  std::string snapshot, count;
  const auto& key = owner_.options_.clusterKey;
  std::error_code made = WriteByteForm(engine.Root(), bytes);
  if (made == kSuccess) made = Seal(key, bytes, snapshot);
  if (made == kSuccess) made = Seal(key, BytesOf("0"), count);
  if (made != kSuccess) return made;
  etcdserverpb::TxnRequest request;
  auto* absent = request.add_compare();
  absent->set_key(base_ + "generation");
  absent->set_target(etcdserverpb::Compare::VERSION);
  absent->set_result(etcdserverpb::Compare::EQUAL);
  absent->set_version(0);
  Put(request, base_ + "generation", count);
  Put(request, base_ + "snapshot", snapshot);
  etcdserverpb::TxnResponse response;
  if (grpc::Status status = owner_.client_->Txn(request, response); !status.ok()) {
    return Failed("create", status);
  }
  created = response.succeeded();
  if (created) Saw(0, response.header().revision());
  return kSuccess;
}

std::error_code EtcdStore::Load(bool create, CommitEngine& engine) {
  // Twice at most: when another machine creates the domain at the same
  // moment, its creation is what the second read finds.
  for (int attempt = 0; attempt < 2; ++attempt) {
    etcdserverpb::TxnResponse response;
    if (std::error_code read = Read(0, true, response); read != kSuccess) return read;
    const auto& countKvs = response.responses(0).response_range().kvs();
    const auto& snapshotKvs = response.responses(2).response_range().kvs();
    if (countKvs.empty()) {
      if (!create) return kDomainNotOpen;
      bool created = false;
      if (std::error_code made = Create(engine, created); made != kSuccess || created) return made;
      continue;
    }
    const auto& key = owner_.options_.clusterKey;
    std::vector<uint8_t> countText, snapshotBytes;
    int64_t count = 0;
    std::shared_ptr<IValue> root;
    std::error_code loaded = Unseal(key, countKvs[0].value(), countText);
    if (loaded == kSuccess && !ParseCount(countText, count)) loaded = kInvalidData;
    if (loaded == kSuccess && snapshotKvs.empty()) loaded = kNotFound;
    if (loaded == kSuccess) loaded = Unseal(key, snapshotKvs[0].value(), snapshotBytes);
    if (loaded == kSuccess) loaded = ReadByteForm(snapshotBytes, root);
    auto hash = std::dynamic_pointer_cast<IHash>(root);
    if (loaded == kSuccess) loaded = hash == nullptr ? kInvalidData : engine.ReplaceSettings(hash);
    if (loaded != kSuccess) {
      Log(LOG_ERR, "domain %s: its etcd snapshot cannot be read (%d)", name_.c_str(),
          loaded.value());
      return kStorageError;
    }
    for (const StoredEntry& entry : EntriesOf(response.responses(1).response_range())) {
      if (entry.generation != engine.GenerationCount() + 1) continue;
      std::shared_ptr<IHash> record;
      std::vector<Change> applied;
      (void)ApplyEntry(engine, entry, record, applied);
    }
    if (engine.GenerationCount() != count) {
      Log(LOG_ERR, "domain %s: etcd holds generation %" PRId64 " but its log reaches %" PRId64,
          name_.c_str(), count, engine.GenerationCount());
      return kStorageError;
    }
    Saw(count, countKvs[0].mod_revision());
    return kSuccess;
  }
  return kTransactionConflict;
}

std::error_code EtcdStore::Append(const StoredEntry& entry, std::vector<StoredEntry>& missed) {
  const auto& key = owner_.options_.clusterKey;
  std::vector<uint8_t> payload;
  std::string sealedEntry, sealedCount;
  std::error_code made = EncodeEntry(entry, payload);
  if (made == kSuccess) made = Seal(key, payload, sealedEntry);
  if (made == kSuccess) made = Seal(key, BytesOf(std::to_string(entry.generation)), sealedCount);
  if (made != kSuccess) return made;

  etcdserverpb::TxnRequest request;
  OnlyIfUnchangedSince(request, base_ + "generation", RevisionOf(entry.generation - 1));
  Put(request, base_ + "generation", sealedCount);
  Put(request, LogKey(entry.generation), sealedEntry);
  // Lost the race: what the winners committed comes back in the same answer.
  auto* since = request.add_failure()->mutable_request_range();
  since->set_key(LogKey(entry.generation));
  since->set_range_end(RangeEnd(base_ + std::string(kLog)));
  request.add_failure()->mutable_request_range()->set_key(base_ + "generation");

  etcdserverpb::TxnResponse response;
  if (grpc::Status status = owner_.client_->Txn(request, response); !status.ok()) {
    return Failed("commit", status);
  }
  if (response.succeeded()) {
    Saw(entry.generation, response.header().revision());
    return kSuccess;
  }
  if (response.responses_size() != 2) return kTransactionConflict;
  missed = EntriesOf(response.responses(0).response_range());
  // The count's revision, for the next attempt when the count is still the
  // one this commit follows (the race was only with what this service knew).
  const auto& countKvs = response.responses(1).response_range().kvs();
  std::vector<uint8_t> countText;
  int64_t count = 0;
  if (!countKvs.empty() && Unseal(key, countKvs[0].value(), countText) == kSuccess &&
      ParseCount(countText, count)) {
    Saw(count, countKvs[0].mod_revision());
  }
  return kTransactionConflict;
}

std::error_code EtcdStore::Since(int64_t after, std::vector<StoredEntry>& entries) {
  etcdserverpb::TxnResponse response;
  if (std::error_code read = Read(after, false, response); read != kSuccess) return read;
  const auto& countKvs = response.responses(0).response_range().kvs();
  if (countKvs.empty()) return kNotFound;
  entries = EntriesOf(response.responses(1).response_range());
  std::vector<uint8_t> countText;
  int64_t count = 0;
  if (Unseal(owner_.options_.clusterKey, countKvs[0].value(), countText) != kSuccess ||
      !ParseCount(countText, count)) {
    return kInvalidData;
  }
  // A snapshot took the entries right after `after` away.
  const bool gap = entries.empty() ? count > after : entries.front().generation != after + 1;
  return gap ? kNotFound : kSuccess;
}

// etcd answers a commit once a quorum of members has it on disk.
void EtcdStore::WhenDurable(std::function<void(std::error_code)> then) { then(kSuccess); }

std::error_code EtcdStore::Snapshot(const CommitEngine& engine) {
  const int64_t generation = engine.GenerationCount();
  const int64_t revision = RevisionOf(generation);
  if (revision == 0) return kTransactionConflict;
  std::vector<uint8_t> bytes;
  std::string sealed;
  std::error_code made = WriteByteForm(engine.Root(), bytes);
  if (made == kSuccess) made = Seal(owner_.options_.clusterKey, bytes, sealed);
  if (made != kSuccess) return made;
  etcdserverpb::TxnRequest request;
  OnlyIfUnchangedSince(request, base_ + "generation", revision);
  Put(request, base_ + "snapshot", sealed);
  auto* held = request.add_success()->mutable_request_delete_range();
  held->set_key(LogKey(1));
  held->set_range_end(LogKey(generation + 1));
  etcdserverpb::TxnResponse response;
  if (grpc::Status status = owner_.client_->Txn(request, response); !status.ok()) {
    return Failed("snapshot", status);
  }
  return response.succeeded() ? kSuccess : kTransactionConflict;
}

}  // namespace QelSS::service::etcd
