#include "values/HashTable.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <new>

namespace QelSS {

HashTable::Probe::Probe(std::string_view key) noexcept : prefix(0), text(key) {
  // Big-endian, padded with zeros after the end: numbers order as strcmp
  // orders the first eight bytes. A zero byte ends the key, as in C.
  bool ended = false;
  for (size_t i = 0; i < 8; ++i) {
    ended = ended || i >= key.size() || key[i] == '\0';
    prefix = prefix << 8 | (ended ? 0u : static_cast<unsigned char>(key[i]));
  }
}

int HashTable::CompareRest(const Item& item, const Probe& key) noexcept {
  // Both keys have eight bytes before any zero.
  const char* stored = item.entry.first->GetCString() + 8;
  const size_t rest = key.text.size() - 8;
  if (const int order = std::strncmp(stored, key.text.data() + 8, rest); order != 0) return order;
  // Equal so far: both ended at one zero byte inside the key, or the stored
  // key goes on.
  if (std::memchr(stored, '\0', rest) != nullptr) return 0;
  return stored[rest] == '\0' ? 0 : 1;
}

HashTable::HashTable(HashEntries&& entries) {
  // Node by node: the map's nodes hand over their keys without touching the
  // reference counts and are freed as the table grows.
  while (!entries.empty()) {
    auto node = entries.extract(entries.begin());
    InsertAt(End(), {std::move(node.key()), std::move(node.mapped())});
  }
}

HashTable::HashTable(const HashTable& other)
    : leaves_(other.leaves_), owned_(other.leaves_.size(), false), size_(other.size_) {
  other.owned_.assign(other.leaves_.size(), false);
}

HashTable& HashTable::operator=(const HashTable& other) {
  if (this != &other) {
    leaves_ = other.leaves_;
    owned_.assign(leaves_.size(), false);
    other.owned_.assign(other.leaves_.size(), false);
    size_ = other.size_;
  }
  return *this;
}

HashTable::Slot HashTable::End() const noexcept {
  if (leaves_.empty()) return {};
  return {leaves_.size() - 1, leaves_.back()->size()};
}

HashTable::Leaf& HashTable::Own(size_t index) {
  if (!owned_[index]) {
    leaves_[index] = std::make_shared<Leaf>(*leaves_[index]);
    owned_[index] = true;
  }
  return *leaves_[index];
}

void HashTable::InsertLeaf(size_t index, Leaf&& leaf) {
  // Room first, so that nothing fails once the two indexes start to change.
  leaves_.reserve(leaves_.size() + 1);
  owned_.reserve(owned_.size() + 1);
  auto made = std::make_shared<Leaf>(std::move(leaf));
  leaves_.insert(leaves_.begin() + static_cast<std::ptrdiff_t>(index), std::move(made));
  owned_.insert(owned_.begin() + static_cast<std::ptrdiff_t>(index), true);
}

void HashTable::EraseLeaf(size_t index) {
  leaves_.erase(leaves_.begin() + static_cast<std::ptrdiff_t>(index));
  owned_.erase(owned_.begin() + static_cast<std::ptrdiff_t>(index));
  if (leaves_.size() * 4 < leaves_.capacity()) {
    leaves_.shrink_to_fit();
    owned_.shrink_to_fit();
  }
}

HashTable::Slot HashTable::Locate(const char* key, bool& held) const {
  const Probe probe(key);
  const Slot slot = LowerBound(probe);
  held = Holds(slot, probe);
  return slot;
}

HashTable::Slot HashTable::LowerBound(const Probe& key) const {
  auto leaf = std::partition_point(leaves_.begin(), leaves_.end(),
                                   [&key](const std::shared_ptr<Leaf>& candidate) {
                                     return Compare(candidate->back(), key) < 0;
                                   });
  if (leaf == leaves_.end()) return End();
  auto item = std::partition_point((*leaf)->begin(), (*leaf)->end(),
                                   [&key](const Item& each) { return Compare(each, key) < 0; });
  return {static_cast<size_t>(leaf - leaves_.begin()),
          static_cast<size_t>(item - (*leaf)->begin())};
}

const HashTable::Entry* HashTable::Find(std::string_view key) const {
  const Probe probe(key);
  const Slot slot = LowerBound(probe);
  return Holds(slot, probe) ? &At(slot) : nullptr;
}

bool HashTable::Add(Entry&& entry) {
  const Probe key(entry.first->GetCString());
  Slot slot = End();
  if (!leaves_.empty() && Compare(leaves_.back()->back(), key) >= 0) {
    slot = LowerBound(key);
    if (Holds(slot, key)) return false;
  }
  InsertAt(slot, std::move(entry));
  return true;
}

bool HashTable::Holds(const Slot& slot, const Probe& key) const {
  return slot.leaf < leaves_.size() && slot.index < leaves_[slot.leaf]->size() &&
         Compare((*leaves_[slot.leaf])[slot.index], key) == 0;
}

void HashTable::InsertAt(const Slot& slot, Entry&& entry) {
  const bool pastFullLastLeaf =
      !leaves_.empty() && slot.leaf + 1 == leaves_.size() && slot.index == kLeafCapacity;
  if (leaves_.empty() || pastFullLastLeaf) {
    // A new last leaf instead of a split, so that a table filled in key order
    // is left with full leaves.
    Leaf fresh;
    fresh.reserve(1);
    fresh.emplace_back(std::move(entry));
    InsertLeaf(leaves_.size(), std::move(fresh));
  } else {
    const Slot target = leaves_[slot.leaf]->size() < kLeafCapacity ? slot : SplitFor(slot);
    Leaf& leaf = Own(target.leaf);
    leaf.insert(leaf.begin() + static_cast<std::ptrdiff_t>(target.index), Item(std::move(entry)));
  }
  ++size_;
}

HashTable::Slot HashTable::SplitFor(const Slot& slot) {
  Leaf& full = Own(slot.leaf);
  const auto half = static_cast<std::ptrdiff_t>(full.size() / 2);
  Leaf upper(full.begin() + half, full.end());
  InsertLeaf(slot.leaf + 1, std::move(upper));
  // Only now, with the upper half safely in the index, may the lower shrink.
  Leaf& lower = *leaves_[slot.leaf];
  lower.erase(lower.begin() + half, lower.end());
  if (slot.index <= static_cast<size_t>(half)) return slot;
  return {slot.leaf + 1, slot.index - static_cast<size_t>(half)};
}

bool HashTable::Erase(const char* key, Entry& removed) {
  const Probe probe(key);
  const Slot slot = LowerBound(probe);
  if (!Holds(slot, probe)) return false;
  Leaf& leaf = Own(slot.leaf);
  removed = std::move(leaf[slot.index].entry);
  leaf.erase(leaf.begin() + static_cast<std::ptrdiff_t>(slot.index));
  --size_;
  AfterErase(slot.leaf);
  return true;
}

void HashTable::AfterErase(size_t index) {
  const Leaf& leaf = *leaves_[index];
  if (leaf.empty()) {
    EraseLeaf(index);
    return;
  }
  if (leaf.size() > kLeafCapacity / 4) return;
  if (index + 1 < leaves_.size() && FitInOne(index)) {
    Join(index);
  } else if (index > 0 && FitInOne(index - 1)) {
    Join(index - 1);
  } else if (leaf.size() * 4 <= leaf.capacity()) {
    Own(index).shrink_to_fit();
  }
}

bool HashTable::FitInOne(size_t left) const noexcept {
  return leaves_[left]->size() + leaves_[left + 1]->size() <= kLeafCapacity;
}

void HashTable::Join(size_t left) noexcept {
  // Joining may need memory. Without it the table stays as it is, which is
  // still valid: the leaf is only sparse.
  try {
    Leaf& into = Own(left);
    const Leaf& from = *leaves_[left + 1];
    into.insert(into.end(), from.begin(), from.end());
    EraseLeaf(left + 1);
  } catch (const std::bad_alloc&) {
  }
}

}  // namespace QelSS
