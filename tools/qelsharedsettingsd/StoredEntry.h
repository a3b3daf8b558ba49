#pragma once

// One accepted commit as a store keeps it: the transaction record, the
// generation it made, and who made it. The same bytes go into the local
// journal and into a shared store's log.

#include <cstdint>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "Session.h"
#include "domain/ChangeRecord.h"
#include "domain/CommitEngine.h"
#include "qelss/values/IHash.h"
#include "qelss/values/XPCObject.h"

namespace QelSS::service {

struct StoredEntry {
  int64_t generation = 0;
  // Random, per commit: lets a service that lost the answer to its own write
  // recognise that write among those it missed.
  uint64_t commitId = 0;
  std::string client;
  PeerCredentials peer;
  XPCObject record;  // the transaction record dictionary
};

// The bytes of `entry`; kInvalidArgument without a record.
[[nodiscard]] std::error_code EncodeEntry(const StoredEntry& entry, std::vector<uint8_t>& payload);
// The entry of `payload`; kInvalidData for bytes that are not one.
[[nodiscard]] std::error_code DecodeEntry(const std::vector<uint8_t>& payload, StoredEntry& entry);

// Applies `entry`'s record to `engine` (`record` and `applied` get the record
// as a hash and its changes). A record the state refuses changes nothing, as
// it did when it was first applied; the count still becomes the entry's
// generation, so that every copy of the domain counts alike.
[[nodiscard]] std::error_code ApplyEntry(CommitEngine& engine, const StoredEntry& entry,
                                         std::shared_ptr<IHash>& record,
                                         std::vector<Change>& applied);

// A new commit id: random, never 0.
uint64_t NewCommitId();

}  // namespace QelSS::service
