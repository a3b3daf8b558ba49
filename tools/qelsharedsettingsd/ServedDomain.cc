#include "ServedDomain.h"

#include <unistd.h>

#include <cctype>
#include <future>
#include <stdexcept>

#include "Log.h"
#include "domain/RecordKeys.h"
#include "domain/SetRecord.h"
#include "platform/dispatch/MakeQueue.h"
#include "platform/ipc/Frame.h"
#include "qelss/ipc/DomainUtil.h"
#include "qelss/platform/ErrorCode.h"
#include "qelss/values/HashFactory.h"
#include "qelss/values/XPCObject.h"

namespace QelSS::service {
namespace {

constexpr uint32_t kQueueTag = DispatchQueue::MakeTag("QSSD");
constexpr size_t kMaxDomainNameLength = 200;

// The client name of the service's own imports, in journal and pushes.
constexpr const char* kImportClient = "com.qelvarin.predefine";

XPCObject Owned(xpc_object_t object) { return XPCObject(object, false); }

SharedFrame FrameOf(uint64_t request, xpc_object_t message) {
  auto frame = std::make_shared<std::vector<uint8_t>>();
  if (platform::ipc::EncodeFrame(request, message, *frame) != kSuccess) return nullptr;
  return frame;
}

// The frame of a message: `hash` under `key` of an outer dictionary.
SharedFrame MessageFrame(uint64_t request, const char* key, const std::shared_ptr<IHash>& hash) {
  xpc_object_t body = nullptr;
  if (hash->CopyXPCObject(&body) != kSuccess) return nullptr;
  XPCObject envelope = Owned(xpc_dictionary_create(nullptr, nullptr, 0));
  xpc_dictionary_set_value(envelope.Get(), key, body);
  xpc_release(body);
  return FrameOf(request, envelope.Get());
}

SharedFrame ResponseFrame(uint64_t request, std::error_code code,
                          const std::shared_ptr<IHash>& settings = nullptr) {
  std::shared_ptr<IHash> response;
  if (DomainUtil::CreateResponse(code, response) != kSuccess) return nullptr;
  if (settings != nullptr && response->Set(RecordKeys::kSettings, settings) != kSuccess) {
    return nullptr;
  }
  return MessageFrame(request, "IPCResponse", response);
}

void Answer(const std::shared_ptr<Session>& session, uint64_t request, std::error_code code) {
  if (request == platform::ipc::kNoRequest) return;
  if (SharedFrame frame = ResponseFrame(request, code)) session->Send(std::move(frame));
}

}  // namespace

// Who asks for a commit: a client, or the service itself (no session).
struct ServedDomain::Committer {
  std::shared_ptr<Session> session;
  std::string client;
  PeerCredentials peer;
  bool create = false;
};

struct ServedDomain::Command {
  int64_t code = -1;
  std::string name;
  std::string client;
  bool create = false;
};

bool IsValidDomainName(const std::string& name) {
  if (name.empty() || name.size() > kMaxDomainNameLength) return false;
  if (name.find('/') != std::string::npos || name.find("..") != std::string::npos) return false;
  for (unsigned char c : name) {
    if (c < 0x20 || c == 0x7f) return false;
  }
  return name != ".";
}

std::string CanonicalDomainName(std::string name) {
  for (char& c : name) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return name;
}

ServedDomain::ServedDomain(std::string name, const StoreSettings& settings)
    : name_(std::move(name)), settings_(settings) {
  if (platform::MakeQueue(queue_, DispatchQueue::kQueueTypeSerial, "com.qelvarin.served-domain",
                          QOS_CLASS_USER_INITIATED) != kSuccess) {
    throw std::runtime_error("no queue for domain " + name_);
  }
}

ServedDomain::~ServedDomain() {
  if (snapshotTimer_ != nullptr) {
    dispatch_source_cancel(snapshotTimer_);
    dispatch_release(snapshotTimer_);
  }
  (void)queue_->Finish(10, DispatchQueue::kFinishRunPending);
}

void ServedDomain::Handle(std::shared_ptr<Session> session, uint64_t request,
                          xpc_object_t command) {
  // A commit to a loaded domain with nothing else to do runs here, on the I/O
  // thread: handing it to a pool thread costs a wake-up, longer than the
  // commit itself (appending to the journal; the sync, if any, is the
  // syncer's). Anything that may take long (a first load, a fetch of a whole
  // domain) still goes to the domain's queue.
  const bool commit =
      xpc_dictionary_get_int64(command, RecordKeys::kCommand) == DomainUtil::kCommandCommit;
  if (commit && quickCommits_.load(std::memory_order_acquire) &&
      queue_->TrySync(kQueueTag, DispatchQueue::kRunChangesState,
                      [&] { Run(session, request, command); })) {
    xpc_release(command);
    return;
  }
  queue_->Async(kQueueTag, DispatchQueue::kRunChangesState,
                [self = shared_from_this(), session = std::move(session), request, command] {
                  self->Run(session, request, command);
                  xpc_release(command);
                });
}

void ServedDomain::Run(const std::shared_ptr<Session>& session, uint64_t request,
                       xpc_object_t commandObject) {
  std::shared_ptr<IHash> hash;
  void* const dictionary = commandObject;
  Command command;
  std::error_code read = HashFactory::Create<void*>(hash, dictionary);
  if (read == kSuccess) read = DomainUtil::GetCommand(hash, command.code);
  if (read == kSuccess)
    read = DomainUtil::GetCommandInfo(hash, command.name, command.client, command.create);
  if (read != kSuccess) {
    Log(LOG_WARNING, "malformed command from uid %u pid %d: %d", session->Peer().uid,
        session->Peer().pid, read.value());
    Answer(session, request, make_error_code(kInvalidCommand));
    return;
  }
  if (command.code == DomainUtil::kCommandFetch) {
    Fetch(session, request, command.create);
  } else if (command.code == DomainUtil::kCommandCommit) {
    Commit(session, request, command,
           xpc_dictionary_get_value(commandObject, RecordKeys::kTransaction));
  } else {
    Log(LOG_WARNING, "unknown command %lld from uid %u pid %d",
        static_cast<long long>(command.code), session->Peer().uid, session->Peer().pid);
    Answer(session, request, make_error_code(kInvalidCommand));
  }
}

void ServedDomain::Fetch(const std::shared_ptr<Session>& session, uint64_t request, bool create) {
  if (std::error_code loaded = EnsureLoaded(create); loaded != kSuccess) {
    Answer(session, request, loaded);
    return;
  }
  Follow(session);
  if (request == platform::ipc::kNoRequest) return;
  SharedFrame reply = ResponseFrame(request, make_error_code(kSuccess), engine_->Root());
  if (reply == nullptr) {
    Answer(session, request, make_error_code(kFailure));
    return;
  }
  // Never show a client a state that a crash could still take back.
  store_->WhenDurable([session, reply](std::error_code) { session->Send(reply); });
}

void ServedDomain::Commit(const std::shared_ptr<Session>& session, uint64_t request,
                          const Command& command, xpc_object_t recordObject) {
  std::shared_ptr<IHash> record;
  void* const dictionary = recordObject;
  if (xpc_get_type(recordObject) != XPC_TYPE_DICTIONARY ||
      HashFactory::Create<void*>(record, dictionary) != kSuccess) {
    Answer(session, request, make_error_code(kInvalidCommand));
    return;
  }
  const Committer committer{session, command.client, session->Peer(), command.create};
  Apply(record, recordObject, committer,
        [session, request](std::error_code code) { Answer(session, request, code); });
}

void ServedDomain::Apply(const std::shared_ptr<IHash>& record, xpc_object_t recordObject,
                         const Committer& committer, std::function<void(std::error_code)> done) {
  if (std::error_code loaded = EnsureLoaded(committer.create); loaded != kSuccess) {
    done(loaded);
    return;
  }
  if (std::error_code valid = engine_->IsTransactionValid(record); valid != kSuccess) {
    done(valid);
    return;
  }
  StoredEntry entry{engine_->GenerationCount() + 1, NewCommitId(), committer.client, committer.peer,
                    XPCObject(recordObject, true)};
  bool landed = false;
  if (std::error_code stored = Store(entry, record, committer, done, landed); stored != kSuccess) {
    done(stored);
    return;
  }
  if (!landed) Finish(entry, record, committer, std::move(done));
}

std::error_code ServedDomain::Store(StoredEntry& entry, const std::shared_ptr<IHash>& record,
                                    const Committer& committer,
                                    std::function<void(std::error_code)>& done, bool& landed) {
  // Each lost race means another machine committed: bounded, so that a
  // domain that others write without pause still answers.
  constexpr int kAttempts = 16;
  for (int attempt = 1;; ++attempt) {
    std::vector<StoredEntry> missed;
    const std::error_code stored = store_->Append(entry, missed);
    if (stored != kTransactionConflict) return stored;
    for (const StoredEntry& other : missed) {
      if (other.commitId != entry.commitId) {
        if (!TakeInOne(other)) CatchUp();
        continue;
      }
      if (landed) continue;
      // An earlier attempt landed although its answer was lost.
      landed = true;
      entry.generation = other.generation;
      Finish(entry, record, committer, std::move(done));
    }
    if (landed) return kSuccess;
    if (attempt == kAttempts) return kTransactionConflict;
    if (std::error_code valid = engine_->IsTransactionValid(record); valid != kSuccess) {
      return valid;
    }
    entry.generation = engine_->GenerationCount() + 1;
  }
}

void ServedDomain::Finish(const StoredEntry& entry, const std::shared_ptr<IHash>& record,
                          const Committer& committer, std::function<void(std::error_code)> done) {
  // The version replaced is let go of when this returns, after the answer
  // went out: in a large domain, freeing it costs more than the commit.
  const std::shared_ptr<IHash> replaced = engine_->Root();
  std::vector<Change> applied;
  std::error_code changed = engine_->ApplyTransaction(record, applied);
  if (changed != kSuccess && engine_->GenerationCount() + 1 == entry.generation) {
    // Stored, so counted everywhere: every copy of the domain counts alike.
    (void)engine_->IncrementGCCount();
  }
  ScheduleSnapshot();
  if (changed != kSuccess) {
    store_->WhenDurable([done = std::move(done), changed](std::error_code) { done(changed); });
    return;
  }
  // Followers hear first: their latency is the one that a committer waiting
  // for its answer does not see. The state has the change whatever the disk
  // said, so followers hear of it even when the sync failed.
  std::vector<std::shared_ptr<Session>> followers = FollowersBut(committer.session.get());
  store_->WhenDurable([this, self = shared_from_this(), done = std::move(done),
                       followers = std::move(followers), client = committer.client,
                       create = committer.create, record](std::error_code durable) {
    Push(followers, client, create, record);
    done(durable);
  });
  // Logged once everyone has been told, so that writing it delays no one.
  Log(LOG_INFO, "domain %s: generation %lld by uid %u pid %d client %s", name_.c_str(),
      static_cast<long long>(entry.generation), committer.peer.uid, committer.peer.pid,
      committer.client.c_str());
}

void ServedDomain::Push(const std::vector<std::shared_ptr<Session>>& followers,
                        const std::string& client, bool create,
                        const std::shared_ptr<IHash>& record) {
  // The push is built only when someone will receive it.
  if (followers.empty()) return;
  std::shared_ptr<IHash> push;
  if (DomainUtil::CreateCommand(name_, client, DomainUtil::kCommandCommit, create, push) !=
          kSuccess ||
      push->Set(RecordKeys::kTransaction, record) != kSuccess) {
    return;
  }
  SharedFrame frame = MessageFrame(platform::ipc::kNoRequest, "IPCCommand", push);
  if (frame == nullptr) return;
  for (const auto& follower : followers) follower->Send(frame);
}

void ServedDomain::TakeIn(const std::vector<StoredEntry>& entries) {
  if (engine_ == nullptr) return;  // loaded later, from the store as it is then
  if (entries.empty()) {
    CatchUp();
    return;
  }
  for (const StoredEntry& entry : entries) {
    if (!TakeInOne(entry)) {
      CatchUp();
      return;
    }
  }
}

bool ServedDomain::TakeInOne(const StoredEntry& entry) {
  const int64_t generation = engine_->GenerationCount();
  if (entry.generation <= generation) return true;  // had it already
  if (entry.generation != generation + 1) return false;
  std::shared_ptr<IHash> record;
  std::vector<Change> applied;
  const std::shared_ptr<IHash> replaced = engine_->Root();
  if (ApplyEntry(*engine_, entry, record, applied) == kSuccess) {
    Push(FollowersBut(nullptr), entry.client, false, record);
  }
  return true;
}

void ServedDomain::CatchUp() {
  std::vector<StoredEntry> entries;
  const std::error_code got = store_->Since(engine_->GenerationCount(), entries);
  if (got == kNotFound) {
    Reload();
    return;
  }
  if (got != kSuccess) {
    Log(LOG_WARNING, "domain %s: cannot catch up (%d)", name_.c_str(), got.value());
    return;
  }
  for (const StoredEntry& entry : entries) {
    if (!TakeInOne(entry)) {
      Reload();
      return;
    }
  }
}

void ServedDomain::Reload() {
  std::unique_ptr<CommitEngine> fresh;
  try {
    fresh = std::make_unique<CommitEngine>(name_, false);
  } catch (const std::exception&) {
    return;
  }
  if (std::error_code loaded = store_->Load(false, *fresh); loaded != kSuccess) {
    Log(LOG_WARNING, "domain %s: cannot load it again (%d)", name_.c_str(), loaded.value());
    return;
  }
  Log(LOG_INFO, "domain %s: loaded again at generation %lld", name_.c_str(),
      static_cast<long long>(fresh->GenerationCount()));
  engine_ = std::move(fresh);
  // The steps between are gone: clients fetch the whole state again when
  // they reconnect, and tell their observers the differences.
  for (const auto& follower : FollowersBut(nullptr)) follower->Close();
}

std::error_code ServedDomain::Import(
    const std::vector<std::pair<std::string, std::shared_ptr<IValue>>>& values,
    std::chrono::milliseconds limit) {
  auto outcome = std::make_shared<std::promise<std::error_code>>();
  std::future<std::error_code> result = outcome->get_future();
  queue_->Async(kQueueTag, DispatchQueue::kRunChangesState,
                [self = shared_from_this(), values, outcome] {
                  if (std::error_code loaded = self->EnsureLoaded(true); loaded != kSuccess) {
                    outcome->set_value(loaded);
                    return;
                  }
                  std::shared_ptr<IHash> record;
                  xpc_object_t object = nullptr;
                  std::error_code made = MakeSetRecord(*self->engine_, values, record);
                  if (made == kSuccess && record != nullptr) made = record->CopyXPCObject(&object);
                  if (made != kSuccess || record == nullptr) {
                    outcome->set_value(made);
                    return;
                  }
                  const Committer importer{nullptr, kImportClient, {::geteuid(), ::getpid()}, true};
                  self->Apply(record, object, importer,
                              [outcome](std::error_code code) { outcome->set_value(code); });
                  xpc_release(object);
                });
  if (result.wait_for(limit) != std::future_status::ready) return kTimeout;
  return result.get();
}

void ServedDomain::Follow(const std::shared_ptr<Session>& session) {
  for (const auto& follower : followers_) {
    if (follower.lock() == session) return;
  }
  followers_.push_back(session);
}

std::vector<std::shared_ptr<Session>> ServedDomain::FollowersBut(const Session* committer) {
  std::vector<std::shared_ptr<Session>> live;
  std::vector<std::weak_ptr<Session>> kept;
  for (const auto& weak : followers_) {
    auto follower = weak.lock();
    if (follower == nullptr || !follower->IsOpen()) continue;
    kept.push_back(weak);
    if (follower.get() != committer) live.push_back(std::move(follower));
  }
  followers_.swap(kept);
  return live;
}

std::error_code ServedDomain::EnsureLoaded(bool create) {
  if (engine_ != nullptr) return make_error_code(kSuccess);
  try {
    if (store_ == nullptr) {
      store_ = settings_.stores->Open(name_, [weak = weak_from_this()](auto entries) {
        if (auto self = weak.lock()) {
          self->queue_->Async(kQueueTag, DispatchQueue::kRunChangesState,
                              [self, entries = std::move(entries)] { self->TakeIn(entries); });
        }
      });
    }
    engine_ = std::make_unique<CommitEngine>(name_, false);
  } catch (const std::exception& e) {
    Log(LOG_ERR, "domain %s cannot be opened: %s", name_.c_str(), e.what());
    return make_error_code(kFailure);
  }
  std::error_code loaded = store_->Load(create, *engine_);
  if (loaded != kSuccess) {
    engine_.reset();
    if (loaded != kDomainNotOpen) {
      Log(LOG_ERR, "domain %s cannot be opened (%d)", name_.c_str(), loaded.value());
    }
    return loaded;
  }
  quickCommits_.store(store_->AppendsLocally(), std::memory_order_release);
  return loaded;
}

void ServedDomain::WriteSnapshot() {
  const std::error_code written = store_->Snapshot(*engine_);
  // A conflict: another machine committed since, and snapshots after its own.
  if (written == kSuccess || written == kTransactionConflict) dirty_ = false;
}

void ServedDomain::ScheduleSnapshot() {
  dirty_ = true;
  lastCommit_ = std::chrono::steady_clock::now();
  if (timerArmed_) return;
  if (snapshotTimer_ == nullptr) {
    snapshotTimer_ =
        dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 0, 0, queue_->GetDispatchQueue());
    if (snapshotTimer_ == nullptr) return;
    std::weak_ptr<ServedDomain> weak = weak_from_this();
    dispatch_source_set_event_handler(snapshotTimer_, [weak] {
      if (auto self = weak.lock()) self->SnapshotIfQuiet();
    });
    dispatch_source_set_timer(snapshotTimer_, DISPATCH_TIME_FOREVER, 0, 0);
    dispatch_resume(snapshotTimer_);
  }
  timerArmed_ = true;
  dispatch_source_set_timer(
      snapshotTimer_,
      dispatch_time(DISPATCH_TIME_NOW,
                    std::chrono::duration_cast<std::chrono::nanoseconds>(settings_.quiet).count()),
      0, 0);
}

void ServedDomain::SnapshotIfQuiet() {
  timerArmed_ = false;
  if (!dirty_ || engine_ == nullptr) return;
  const auto quietFor = std::chrono::steady_clock::now() - lastCommit_;
  if (quietFor < settings_.quiet) {
    const auto wait = lastCommit_ + settings_.quiet;
    timerArmed_ = true;
    dispatch_source_set_timer(
        snapshotTimer_,
        dispatch_time(DISPATCH_TIME_NOW, std::chrono::duration_cast<std::chrono::nanoseconds>(
                                             wait - std::chrono::steady_clock::now())
                                             .count()),
        0, 0);
    return;
  }
  WriteSnapshot();  // on failure the store keeps every entry; tried again later
  if (dirty_) ScheduleSnapshot();
}

void ServedDomain::SaveNow() {
  queue_->Sync(kQueueTag, DispatchQueue::kRunChangesState, [this] {
    if (dirty_ && engine_ != nullptr) WriteSnapshot();
  });
}

}  // namespace QelSS::service
