#include "ServedDomain.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <future>
#include <stdexcept>

#include "Log.h"
#include "domain/RecordKeys.h"
#include "domain/SetRecord.h"
#include "persistence/DomainFile.h"
#include "platform/dispatch/MakeQueue.h"
#include "platform/ipc/Frame.h"
#include "platform/support/FileSystem.h"
#include "platform/xpc/XpcWire.h"
#include "qelss/ipc/DomainUtil.h"
#include "qelss/platform/ErrorCode.h"
#include "qelss/values/HashFactory.h"
#include "qelss/values/XPCObject.h"

namespace QelSS::service {
namespace {

constexpr uint32_t kQueueTag = DispatchQueue::MakeTag("QSSD");
constexpr size_t kMaxDomainNameLength = 200;

// Keys of a journal record's payload.
constexpr const char* kJournalGeneration = "Generation";
constexpr const char* kJournalClient = "Client";
constexpr const char* kJournalUid = "PeerUid";
constexpr const char* kJournalPid = "PeerPid";
constexpr const char* kJournalRecord = "Record";
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

std::string ServedDomain::SnapshotPath() const { return settings_.stateDir + "/domains/" + name_; }
std::string ServedDomain::JournalPath() const { return settings_.stateDir + "/journals/" + name_; }

void ServedDomain::Handle(std::shared_ptr<Session> session, uint64_t request,
                          xpc_object_t command) {
  // A commit to a loaded domain with nothing else to do runs here, on the I/O
  // thread: handing it to a pool thread costs a wake-up, longer than the
  // commit itself (appending to the journal; the sync, if any, is the
  // syncer's). Anything that may take long (a first load, a fetch of a whole
  // domain) still goes to the domain's queue.
  const bool commit =
      xpc_dictionary_get_int64(command, RecordKeys::kCommand) == DomainUtil::kCommandCommit;
  if (commit && loaded_.load(std::memory_order_acquire) &&
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
  journal_->WhenDurable([session, reply](std::error_code) { session->Send(reply); });
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
  const int64_t generation = engine_->GenerationCount() + 1;
  const PeerCredentials& peer = committer.peer;
  // Written before the state changes: replay applies exactly what was applied.
  XPCObject entry = Owned(xpc_dictionary_create(nullptr, nullptr, 0));
  xpc_dictionary_set_int64(entry.Get(), kJournalGeneration, generation);
  xpc_dictionary_set_int64(entry.Get(), kJournalUid, peer.uid);
  xpc_dictionary_set_int64(entry.Get(), kJournalPid, peer.pid);
  xpc_dictionary_set_string(entry.Get(), kJournalClient, committer.client.c_str());
  xpc_dictionary_set_value(entry.Get(), kJournalRecord, recordObject);
  std::vector<uint8_t> payload;
  std::error_code stored = xpc::EncodeWire(entry.Get(), payload);
  if (stored == kSuccess) stored = journal_->Append(payload);
  if (stored != kSuccess) {
    Log(LOG_ERR, "domain %s: journal append failed (%d)", name_.c_str(), stored.value());
    done(make_error_code(kFileWriteError));
    return;
  }
  // The version replaced is let go of when this returns, after the answer
  // went out: in a large domain, freeing it costs more than the commit.
  const std::shared_ptr<IHash> replaced = engine_->Root();
  std::vector<Change> applied;
  if (std::error_code changed = engine_->ApplyTransaction(record, applied); changed != kSuccess) {
    done(changed);
    return;
  }
  ScheduleSnapshot();

  // The push is built only when someone will receive it.
  std::vector<std::shared_ptr<Session>> followers = FollowersBut(committer.session.get());
  std::shared_ptr<IHash> push;
  SharedFrame pushFrame;
  if (!followers.empty() &&
      DomainUtil::CreateCommand(name_, committer.client, DomainUtil::kCommandCommit,
                                committer.create, push) == kSuccess &&
      push->Set(RecordKeys::kTransaction, record) == kSuccess) {
    pushFrame = MessageFrame(platform::ipc::kNoRequest, "IPCCommand", push);
  }
  // Followers hear first: their latency is the one that a committer waiting
  // for its answer does not see. The state has the change whatever the disk
  // said, so followers hear of it even when the sync failed.
  journal_->WhenDurable([done = std::move(done), pushFrame,
                         followers = std::move(followers)](std::error_code durable) {
    if (pushFrame != nullptr) {
      for (const auto& follower : followers) follower->Send(pushFrame);
    }
    done(durable);
  });
  // Logged once everyone has been told, so that writing it delays no one.
  Log(LOG_INFO, "domain %s: generation %lld by uid %u pid %d client %s", name_.c_str(),
      static_cast<long long>(generation), peer.uid, peer.pid, committer.client.c_str());
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
  auto files = platform::DefaultFileSystem();
  bool snapshotExists = false;
  if (std::error_code looked = DomainFileExists(*files, SnapshotPath(), snapshotExists);
      looked != kSuccess) {
    return looked;
  }
  struct stat info {};
  const bool journalExists = ::stat(JournalPath().c_str(), &info) == 0 && info.st_size > 0;
  if (!snapshotExists && !journalExists && !create) return make_error_code(kDomainNotOpen);
  std::error_code loaded = LoadExisting(snapshotExists);
  if (loaded == kSuccess && !snapshotExists) loaded = WriteSnapshot();
  if (loaded != kSuccess) {
    engine_.reset();
    journal_.reset();
    Log(LOG_ERR, "domain %s cannot be opened (%d)", name_.c_str(), loaded.value());
  } else {
    loaded_.store(true, std::memory_order_release);
  }
  return loaded;
}

std::error_code ServedDomain::LoadExisting(bool snapshotExists) {
  try {
    engine_ = std::make_unique<CommitEngine>(name_, false);
  } catch (const std::exception&) {
    return make_error_code(kFailure);
  }
  if (snapshotExists) {
    std::shared_ptr<IHash> root;
    std::error_code read = ReadDomainFile(*platform::DefaultFileSystem(), SnapshotPath(), root);
    if (read == kSuccess) read = engine_->ReplaceSettings(root);
    if (read != kSuccess) return read;
  }
  if (std::error_code opened = Journal::Open(JournalPath(), settings_.sync, journal_);
      opened != kSuccess) {
    return opened;
  }
  return ReplayJournal();
}

std::error_code ServedDomain::ReplayJournal() {
  const int64_t snapshotGeneration = engine_->GenerationCount();
  uint64_t replayed = 0;
  std::error_code result = journal_->Replay([&](const std::vector<uint8_t>& payload) {
    xpc_object_t decoded = nullptr;
    if (xpc::DecodeWire(payload, decoded) != kSuccess) return make_error_code(kInvalidData);
    XPCObject entry = Owned(decoded);
    if (xpc_dictionary_get_int64(entry.Get(), kJournalGeneration) <= snapshotGeneration) {
      return make_error_code(kSuccess);  // already in the snapshot
    }
    std::shared_ptr<IHash> record;
    void* const dictionary = xpc_dictionary_get_value(entry.Get(), kJournalRecord);
    if (std::error_code made = HashFactory::Create<void*>(record, dictionary); made != kSuccess) {
      return made;
    }
    std::vector<Change> applied;
    // A record the live state refused part of is refused the same way here.
    (void)engine_->ApplyTransaction(record, applied);
    ++replayed;
    return make_error_code(kSuccess);
  });
  if (replayed > 0) {
    Log(LOG_INFO, "domain %s: replayed %llu commits to generation %lld", name_.c_str(),
        static_cast<unsigned long long>(replayed),
        static_cast<long long>(engine_->GenerationCount()));
    ScheduleSnapshot();
  }
  return result;
}

std::error_code ServedDomain::WriteSnapshot() {
  std::error_code written =
      WriteDomainFile(*platform::DefaultFileSystem(), SnapshotPath(), engine_->Root());
  if (written == kSuccess) written = journal_->Reset();
  if (written != kSuccess) {
    Log(LOG_ERR, "domain %s: snapshot failed (%d)", name_.c_str(), written.value());
    return written;
  }
  dirty_ = false;
  return written;
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
  (void)WriteSnapshot();  // on failure the journal keeps everything; tried again later
  if (dirty_) ScheduleSnapshot();
}

void ServedDomain::SaveNow() {
  queue_->Sync(kQueueTag, DispatchQueue::kRunChangesState, [this] {
    if (dirty_ && engine_ != nullptr) (void)WriteSnapshot();
  });
}

}  // namespace QelSS::service
