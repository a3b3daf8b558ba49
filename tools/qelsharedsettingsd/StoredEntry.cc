#include "StoredEntry.h"

#include <openssl/rand.h>

#include <random>

#include "platform/xpc/XpcWire.h"
#include "qelss/platform/ErrorCode.h"
#include "qelss/values/HashFactory.h"

namespace QelSS::service {
namespace {

constexpr const char* kGeneration = "Generation";
constexpr const char* kCommitId = "CommitId";
constexpr const char* kClient = "Client";
constexpr const char* kUid = "PeerUid";
constexpr const char* kPid = "PeerPid";
constexpr const char* kRecord = "Record";

}  // namespace

std::error_code EncodeEntry(const StoredEntry& entry, std::vector<uint8_t>& payload) {
  if (entry.record.Get() == nullptr) return kInvalidArgument;
  XPCObject dictionary(xpc_dictionary_create(nullptr, nullptr, 0), false);
  xpc_dictionary_set_int64(dictionary.Get(), kGeneration, entry.generation);
  xpc_dictionary_set_uint64(dictionary.Get(), kCommitId, entry.commitId);
  xpc_dictionary_set_int64(dictionary.Get(), kUid, entry.peer.uid);
  xpc_dictionary_set_int64(dictionary.Get(), kPid, entry.peer.pid);
  xpc_dictionary_set_string(dictionary.Get(), kClient, entry.client.c_str());
  xpc_dictionary_set_value(dictionary.Get(), kRecord, entry.record.Get());
  return xpc::EncodeWire(dictionary.Get(), payload);
}

std::error_code DecodeEntry(const std::vector<uint8_t>& payload, StoredEntry& entry) {
  xpc_object_t decoded = nullptr;
  if (xpc::DecodeWire(payload, decoded) != kSuccess) return kInvalidData;
  XPCObject dictionary(decoded, false);
  xpc_object_t record = xpc_dictionary_get_value(decoded, kRecord);
  if (xpc_get_type(decoded) != XPC_TYPE_DICTIONARY || record == nullptr ||
      xpc_get_type(record) != XPC_TYPE_DICTIONARY) {
    return kInvalidData;
  }
  entry.generation = xpc_dictionary_get_int64(decoded, kGeneration);
  entry.commitId = xpc_dictionary_get_uint64(decoded, kCommitId);
  entry.peer.uid = static_cast<uid_t>(xpc_dictionary_get_int64(decoded, kUid));
  entry.peer.pid = static_cast<pid_t>(xpc_dictionary_get_int64(decoded, kPid));
  const char* client = xpc_dictionary_get_string(decoded, kClient);
  entry.client = client != nullptr ? client : "";
  entry.record = XPCObject(record, true);
  return kSuccess;
}

std::error_code ApplyEntry(CommitEngine& engine, const StoredEntry& entry,
                           std::shared_ptr<IHash>& record, std::vector<Change>& applied) {
  void* const dictionary = entry.record.Get();
  if (std::error_code made = HashFactory::Create<void*>(record, dictionary); made != kSuccess) {
    return made;
  }
  const int64_t before = engine.GenerationCount();
  const std::error_code result = engine.ApplyTransaction(record, applied);
  if (result != kSuccess && entry.generation == before + 1) {
    if (std::error_code raised = engine.IncrementGCCount(); raised != kSuccess) return raised;
  }
  return result;
}

uint64_t NewCommitId() {
  uint64_t id = 0;
  if (RAND_bytes(reinterpret_cast<unsigned char*>(&id), sizeof id) != 1 || id == 0) {
    std::random_device device;
    id = (uint64_t{device()} << 32 | device()) | 1;
  }
  return id;
}

}  // namespace QelSS::service
