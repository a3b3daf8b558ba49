#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "qelss/values/IHash.h"
#include "qelss/values/IString.h"
#include "qelss/values/IValue.h"

namespace QelSS {

// The storage of a hash: entries ordered by the bytes of their keys (strcmp),
// unique by key text.
//
// A red-black tree node per entry costs 80 bytes on the heap for 32 bytes of
// pointers. Here the entries sit in sorted leaves of at most kLeafCapacity,
// and the leaves in key order in one index: a lookup is a binary search over
// the leaves' last keys and then within one leaf; an insertion shifts at most
// one leaf and splits it when full. Filled in key order (copies, loads,
// platform dictionaries) the leaves are full, about 33 bytes an entry; filled
// at random they are two-thirds full on average.
//
// A copy shares the leaves: it costs one pointer per leaf, so that a domain's
// commit, which copies the hashes on its path, does not pay for their width.
// A table changes only leaves it made itself since it was last copied (or
// copied from); any other leaf is copied first, so a shared leaf is never
// written and tables that share leaves may live on different threads.
//
// Beside each entry sit its key's first eight bytes as one number (in strcmp
// order): most comparisons of a lookup are then one comparison of numbers,
// without a call to the key or a walk to its bytes.
//
// Not thread-safe: the hash that owns it runs every access on its queue, a
// copy included (the copy takes the source's leaves from it).
class HashTable {
 public:
  using Entry = std::pair<std::shared_ptr<IString>, std::shared_ptr<IValue>>;

  // Where a key is or would go. Any change to the table invalidates it.
  struct Slot {
    size_t leaf = 0;
    size_t index = 0;
  };

  static constexpr size_t kLeafCapacity = 64;

  HashTable() = default;
  // Takes the entries of `entries`, leaving it empty.
  explicit HashTable(HashEntries&& entries);
  // Both tables share the leaves afterwards, and neither writes to them.
  HashTable(const HashTable& other);
  HashTable& operator=(const HashTable& other);
  // Moves leave the source empty.
  HashTable(HashTable&& other) noexcept
      : leaves_(std::move(other.leaves_)),
        owned_(std::move(other.owned_)),
        size_(std::exchange(other.size_, 0)) {
    other.leaves_.clear();
    other.owned_.clear();
  }
  HashTable& operator=(HashTable&& other) noexcept {
    leaves_ = std::move(other.leaves_);
    owned_ = std::move(other.owned_);
    other.leaves_.clear();
    other.owned_.clear();
    size_ = std::exchange(other.size_, 0);
    return *this;
  }

  size_t Size() const noexcept { return size_; }
  bool Empty() const noexcept { return size_ == 0; }

  // Where the entry with the text `key` is (`held` true), or would go.
  Slot Locate(const char* key, bool& held) const;
  // The key of the entry must stay as it is; its value may change.
  Entry& At(const Slot& slot) { return Own(slot.leaf)[slot.index].entry; }
  const Entry& At(const Slot& slot) const { return (*leaves_[slot.leaf])[slot.index].entry; }
  // The entry with exactly the text `key` (up to a zero byte in it), or null.
  const Entry* Find(std::string_view key) const;

  // Puts a new entry at `slot`, which Locate gave for the entry's key.
  void InsertAt(const Slot& slot, Entry&& entry);
  // Adds `entry` unless its key's text is held already (then it is dropped
  // and the answer is false). Keys in ascending order, as copies and platform
  // dictionaries give them, go straight to the end.
  bool Add(Entry&& entry);

  // Drops every entry for which `drop(entry)` is true.
  template <typename Drop>
  void RemoveIf(Drop&& drop) {
    if (VisitInOrder([&](const Entry& entry) { return !drop(entry); })) return;
    HashTable kept;
    for (size_t i = 0; i < leaves_.size(); ++i) {
      for (Item& item : Own(i)) {
        if (!drop(item.entry)) kept.InsertAt(kept.End(), std::move(item.entry));
      }
    }
    *this = std::move(kept);
  }

  // Removes the entry with the text `key` and hands it to `removed`, so that
  // the caller can release it later. False when there is none.
  bool Erase(const char* key, Entry& removed);

  // Calls `visit(entry)` in key order while it answers true; false when it
  // stopped the walk.
  template <typename Visit>
  bool VisitInOrder(Visit&& visit) const {
    for (const auto& leaf : leaves_) {
      for (const Item& item : *leaf) {
        if (!visit(item.entry)) return false;
      }
    }
    return true;
  }
  template <typename Visit>
  bool VisitInOrder(Visit&& visit) {
    for (size_t i = 0; i < leaves_.size(); ++i) {
      for (Item& item : Own(i)) {
        if (!visit(item.entry)) return false;
      }
    }
    return true;
  }

 private:
  // A key as lookups compare it.
  struct Probe {
    explicit Probe(std::string_view key) noexcept;
    uint64_t prefix;
    std::string_view text;
  };
  struct Item {
    explicit Item(Entry&& made) noexcept
        : entry(std::move(made)), prefix(Probe(entry.first->GetCString()).prefix) {}
    Entry entry;
    uint64_t prefix;  // Probe::prefix of the key
  };
  using Leaf = std::vector<Item>;

  // Negative, zero or positive as `item`'s key is less, equal or greater.
  static int Compare(const Item& item, const Probe& key) noexcept {
    if (item.prefix != key.prefix) return item.prefix < key.prefix ? -1 : 1;
    // The same first eight bytes: a zero among them ended both keys there.
    if ((key.prefix & 0xff) == 0) return 0;
    return CompareRest(item, key);
  }
  // The same for keys that share their first eight bytes.
  static int CompareRest(const Item& item, const Probe& key) noexcept;
  Slot LowerBound(const Probe& key) const;
  bool Holds(const Slot& slot, const Probe& key) const;

  Slot End() const noexcept;
  // Leaf `index`, made this table's own first when it is not.
  Leaf& Own(size_t index);
  // Puts `leaf` (this table's own) into the index at `index`.
  void InsertLeaf(size_t index, Leaf&& leaf);
  void EraseLeaf(size_t index);
  // Makes room in the full leaf of `slot` and answers where the entry now goes.
  Slot SplitFor(const Slot& slot);
  // Joins a leaf that erasing left sparse with a neighbour, or frees it when
  // empty, so that a table that shrinks gives its memory back.
  void AfterErase(size_t leaf);
  // Whether the leaves `left` and `left` + 1 fit in one, and joining them.
  bool FitInOne(size_t left) const noexcept;
  void Join(size_t left) noexcept;

  // Every leaf is sorted and non-empty; the last key of each is less than the
  // first key of the next.
  std::vector<std::shared_ptr<Leaf>> leaves_;
  // owned_[i]: leaves_[i] was made by this table and no other table holds it.
  // Mutable because a copy takes ownership away from its source too.
  mutable std::vector<bool> owned_;
  size_t size_ = 0;
};

}  // namespace QelSS
