#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "qelss/platform/Dispatch.h"
#include "qelss/values/IHash.h"
#include "values/HashTable.h"
#include "values/Value.h"

namespace QelSS {

// The entries of a hash as they were at one moment, in key order.
using HashSnapshot = std::vector<HashTable::Entry>;

// The dictionary value. Its entries live in an ordered table guarded by the
// hash's own serial queue (see ContainerSupport.h for the lock discipline).
//
// Keys are immutable strings, so copies share them; values are cloned. A
// hash refuses to hold itself directly (kInvalidArgument). Holding itself
// through another container cannot be refused cheaply and is the caller's
// mistake: the cycle is never freed, and deep copies, comparisons and
// descriptions of it stop at kMaxContainerNesting with kOperationRefused.
//
// Constructors throw DataTypeException.
class Hash final : public IHash, public Value {
 public:
  Hash();
  // Converts a platform dictionary (xpc_object_t), nested containers included.
  explicit Hash(void* object);
  // Adopts `entries` as they are: the caller hands over a table nobody else sees.
  explicit Hash(HashTable&& entries);
  Hash(const Hash&) = delete;
  ~Hash() override;

  Hash& operator=(const Hash& other) { return *this = static_cast<const IHash&>(other); }
  Hash& operator=(Hash&& other) { return *this = static_cast<IHash&&>(other); }

  using Value::Description;
  std::error_code Description(std::string& out, unsigned int indent) const override;
  bool operator==(const IValue& other) const override;

  std::error_code Set(const std::shared_ptr<IString>& key,
                      const std::shared_ptr<IValue>& value) override;
  std::error_code Set(const char* key, const std::shared_ptr<IValue>& value) override;
  void SetEntries(HashEntries&& entries) override;
  Hash& operator=(const IHash& other) override;
  Hash& operator=(IHash&& other) override;
  std::error_code Get(const std::shared_ptr<IString>& key,
                      std::shared_ptr<IValue>& out) const override;
  std::error_code Get(const char* key, std::shared_ptr<IValue>& out) const override;
  std::error_code Contains(const std::shared_ptr<IString>& key) const override;
  std::error_code Contains(const char* key) const override;
  std::error_code Delete(const std::shared_ptr<IString>& key) override;
  std::error_code Delete(const char* key) override;
  void RemoveAll() override;
  std::error_code Iterate(const HashIterateFunction& function) const override;
  std::error_code CopyXPCObject(xpc_object_t* out) const override;
  size_t GetCount() const override;
  std::error_code Clone(std::shared_ptr<IValue>& out) const override;
  std::error_code Assign(const std::shared_ptr<IHash>& other) override;
  std::error_code Merge(const std::shared_ptr<IHash>& other) override;
  std::error_code Serialize(std::vector<uint8_t>& bytes) const override;

  // The entries as they are now, in key order.
  HashSnapshot Snapshot() const;
  // A new hash holding the same values (shared, not cloned) under the same
  // keys: the first step of changing a hash that others may still read.
  [[nodiscard]] std::error_code ShallowCopy(std::shared_ptr<IHash>& out) const;

  // Makes this hash, and every Hash it holds directly, read-only for good:
  // a committed version that readers on any thread walk without its queue.
  // Changes are then refused with kOperationRefused (RemoveAll and
  // SetEntries, which answer nothing, leave it as it is). Only the hash's
  // owner freezes it, before anyone else can see it.
  void Freeze();
  // The same when every Hash this one holds is frozen already: nothing below
  // is visited.
  void MarkFrozen() noexcept { frozen_.store(true, std::memory_order_release); }
  bool IsFrozen() const noexcept { return frozen_.load(std::memory_order_acquire); }
  // The stored value under `key` of a frozen hash, or null; it lives as long
  // as the hash holds it, which for a frozen hash is as long as the hash.
  const std::shared_ptr<IValue>* FindFrozen(std::string_view key) const;

 private:
  template <typename Block>
  bool OnQueue(uint32_t flags, Block&& block) const;

  bool IsSelf(const std::shared_ptr<IValue>& value) const noexcept {
    return value.get() == static_cast<const IValue*>(this);
  }

  // Deep copy of the entries into `out`, which must be empty; on failure it
  // holds a partial copy.
  std::error_code CopyEntriesTo(HashTable& out) const;
  // The same for any hash, through the fast path when it is a Hash.
  static std::error_code CopyEntriesOf(const IHash& source, HashTable& out);
  // Empties this hash and hands its entries over.
  HashTable TakeEntries();
  // Replaces the entries with `entries` (left holding the old ones, for the
  // caller to release off the queue).
  void SwapEntries(HashTable& entries);
  std::error_code Lookup(const char* key, std::shared_ptr<IValue>* out) const;
  std::error_code Erase(const char* key);

  // Protected by queue_ until frozen_, constant after.
  HashTable entries_;
  std::atomic<bool> frozen_{false};
  // Constant after construction.
  std::shared_ptr<DispatchQueue::IQueue> queue_;
};

}  // namespace QelSS
