#include "values/Hash.h"

#include <cstring>
#include <utility>

#include "platform/report/Failure.h"
#include "platform/report/Report.h"
#include "qelss/values/StringFactory.h"
#include "values/ContainerSupport.h"
#include "values/ValueCast.h"
#include "values/ValueSupport.h"

namespace QelSS {
namespace {

constexpr uint32_t kTag = QelErrTag("SSHC");
constexpr const char* kQueueLabel = "com.qelvarin.hashsync";
constexpr unsigned int kChildIndent = 15;

}  // namespace

IHash::~IHash() = default;

Hash::Hash() : Value(kValueTypeHash) {
  std::error_code result = CreateContainerQueue(kQueueLabel, queue_);
  if (!Succeeded(result)) {
    throw DataTypeException(result, "Hash: Failed to create hash serialize queue");
  }
}

Hash::Hash(void* object) : Hash() {
  auto dictionary = static_cast<xpc_object_t>(object);
  if (xpc_get_type(dictionary) != XPC_TYPE_DICTIONARY) {
    throw DataTypeException(kInvalidType, "Hash: Invalid xpc object");
  }
  NestingGuard guard;
  std::error_code result = guard.Within() ? kSuccess : kOperationRefused;
  // Nobody else can see this hash yet, so the table is filled without the queue.
  // The dictionary hands its entries over in key order: each one goes last.
  xpc_dictionary_apply(dictionary, [&](const char* key, xpc_object_t value) {
    if (!Succeeded(result)) return false;
    std::shared_ptr<IString> madeKey;
    std::shared_ptr<IValue> madeValue;
    result = StringFactory::Create(madeKey, key);
    if (Succeeded(result)) result = MakeValueFromPlatform(value, madeValue);
    if (Succeeded(result)) entries_.Add({std::move(madeKey), std::move(madeValue)});
    return Succeeded(result);
  });
  if (!Succeeded(result)) throw DataTypeException(result, "Hash: failed to init");
}

Hash::Hash(HashTable&& entries) : Hash() { entries_ = std::move(entries); }

Hash::~Hash() = default;

template <typename Block>
bool Hash::OnQueue(uint32_t flags, Block&& block) const {
  return RunOnQueue(*queue_, kTag, flags, std::forward<Block>(block));
}

std::error_code Hash::Set(const std::shared_ptr<IString>& key,
                          const std::shared_ptr<IValue>& value) {
  if (!key || !value || IsSelf(value)) return kInvalidArgument;
  if (IsFrozen()) return kOperationRefused;
  std::shared_ptr<IValue> replaced;
  std::error_code result = kFailure;
  OnQueue(DispatchQueue::kRunChangesState, [&] {
    const char* text = key->GetCString();
    bool held = false;
    const HashTable::Slot slot = entries_.Locate(text, held);
    if (held) {
      replaced = std::exchange(entries_.At(slot).second, value);
    } else {
      entries_.InsertAt(slot, {key, value});
    }
    result = kSuccess;
  });
  return result;
}

std::error_code Hash::Set(const char* key, const std::shared_ptr<IValue>& value) {
  if (key == nullptr || !value || IsSelf(value)) return kInvalidArgument;
  if (IsFrozen()) return kOperationRefused;
  std::shared_ptr<IValue> replaced;
  std::error_code result = kFailure;
  OnQueue(DispatchQueue::kRunChangesState, [&] {
    // Replacing keeps the stored key, so only a new key costs a String.
    bool held = false;
    const HashTable::Slot slot = entries_.Locate(key, held);
    if (held) {
      replaced = std::exchange(entries_.At(slot).second, value);
      result = kSuccess;
      return;
    }
    std::shared_ptr<IString> madeKey;
    result = StringFactory::Create(madeKey, key);
    if (Succeeded(result)) entries_.InsertAt(slot, {std::move(madeKey), value});
  });
  return result;
}

void Hash::SwapEntries(HashTable& entries) {
  if (IsFrozen()) return;
  OnQueue(DispatchQueue::kRunChangesState, [&] { std::swap(entries_, entries); });
}

void Hash::SetEntries(HashEntries&& entries) {
  std::erase_if(entries, [this](const auto& entry) {
    return !entry.first || !entry.second || IsSelf(entry.second);
  });
  HashTable table(std::move(entries));
  SwapEntries(table);
  // The old entries are released here, off the queue.
}

Hash& Hash::operator=(const IHash& other) {
  if (&other == static_cast<const IHash*>(this)) return *this;
  if (IsFrozen()) throw DataTypeException(kOperationRefused, "Hash: frozen");
  HashTable copy;
  std::error_code result = CopyEntriesOf(other, copy);
  if (!Succeeded(result)) throw DataTypeException(result, "Failed to copy in object");
  // A copy of a hash that held this one holds this one's clone, never itself.
  SwapEntries(copy);
  return *this;
}

Hash& Hash::operator=(IHash&& other) {
  if (&other == static_cast<IHash*>(this)) return *this;
  if (IsFrozen()) throw DataTypeException(kOperationRefused, "Hash: frozen");
  HashTable taken;
  if (auto* hash = dynamic_cast<Hash*>(&other); hash != nullptr && hash->IsFrozen()) {
    // A frozen hash cannot be emptied: its entries are shared instead.
    hash->OnQueue(DispatchQueue::kRunNoFlags, [&] { taken = hash->entries_; });
  } else if (hash != nullptr) {
    taken = hash->TakeEntries();
  } else {
    (void)other.Iterate([&taken](const auto& key, const auto& value, bool&) {
      if (key && value) taken.Add({key, value});
    });
    other.RemoveAll();
  }
  // The other hash may have held this one; this hash must not hold itself.
  taken.RemoveIf([this](const HashTable::Entry& entry) { return IsSelf(entry.second); });
  SwapEntries(taken);
  return *this;
}

HashTable Hash::TakeEntries() {
  HashTable taken;
  SwapEntries(taken);
  return taken;
}

std::error_code Hash::Lookup(const char* key, std::shared_ptr<IValue>* out) const {
  if (IsFrozen()) {
    const std::shared_ptr<IValue>* held = FindFrozen(key);
    if (held == nullptr) return kNotFound;
    if (out != nullptr) *out = *held;
    return kSuccess;
  }
  std::shared_ptr<IValue> found;
  std::error_code result = kFailure;
  OnQueue(DispatchQueue::kRunNoFlags, [&] {
    const HashTable::Entry* entry = entries_.Find(key);
    if (entry == nullptr) {
      result = kNotFound;
      return;
    }
    if (out != nullptr) found = entry->second;
    result = kSuccess;
  });
  // Whatever `out` held before is released off the queue.
  if (out != nullptr && Succeeded(result)) *out = std::move(found);
  return result;
}

std::error_code Hash::Get(const std::shared_ptr<IString>& key, std::shared_ptr<IValue>& out) const {
  return key ? Lookup(key->GetCString(), &out) : make_error_code(kInvalidArgument);
}

std::error_code Hash::Get(const char* key, std::shared_ptr<IValue>& out) const {
  return key != nullptr ? Lookup(key, &out) : make_error_code(kInvalidArgument);
}

std::error_code Hash::Contains(const std::shared_ptr<IString>& key) const {
  return key ? Lookup(key->GetCString(), nullptr) : make_error_code(kInvalidArgument);
}

std::error_code Hash::Contains(const char* key) const {
  return key != nullptr ? Lookup(key, nullptr) : make_error_code(kInvalidArgument);
}

std::error_code Hash::Erase(const char* key) {
  if (IsFrozen()) return kOperationRefused;
  HashTable::Entry removed;
  std::error_code result = kFailure;
  OnQueue(DispatchQueue::kRunChangesState,
          [&] { result = entries_.Erase(key, removed) ? kSuccess : kNotFound; });
  return result;
}

std::error_code Hash::Delete(const std::shared_ptr<IString>& key) {
  return key ? Erase(key->GetCString()) : make_error_code(kInvalidArgument);
}

std::error_code Hash::Delete(const char* key) {
  return key != nullptr ? Erase(key) : make_error_code(kInvalidArgument);
}

void Hash::RemoveAll() {
  HashTable removed;
  SwapEntries(removed);
}

HashSnapshot Hash::Snapshot() const {
  HashSnapshot entries;
  auto take = [&] {
    entries.reserve(entries_.Size());
    entries_.VisitInOrder([&](const HashTable::Entry& entry) {
      entries.push_back(entry);
      return true;
    });
  };
  if (IsFrozen()) {
    take();
  } else {
    OnQueue(DispatchQueue::kRunNoFlags, take);
  }
  return entries;
}

std::error_code Hash::Iterate(const HashIterateFunction& function) const {
  if (!function) return kInvalidArgument;
  bool stop = false;
  for (const auto& [key, value] : Snapshot()) {
    function(key, value, stop);
    if (stop) break;
  }
  return kSuccess;
}

size_t Hash::GetCount() const {
  if (IsFrozen()) return entries_.Size();
  size_t count = 0;
  OnQueue(DispatchQueue::kRunNoFlags, [&] { count = entries_.Size(); });
  return count;
}

std::error_code Hash::CopyEntriesTo(HashTable& out) const {
  NestingGuard guard;
  if (!guard.Within()) return kOperationRefused;
  // Copying the table as it stands compares no keys; the queue is held only
  // for that. The copy is private, so its values are then cloned off the queue.
  if (!OnQueue(DispatchQueue::kRunNoFlags, [&] { out = entries_; })) return kFailure;
  std::error_code result = kSuccess;
  out.VisitInOrder([&](HashTable::Entry& entry) {
    std::shared_ptr<IValue> clone;
    result = entry.second->Clone(clone);
    if (Succeeded(result)) entry.second = std::move(clone);
    return Succeeded(result);
  });
  return result;
}

std::error_code Hash::CopyEntriesOf(const IHash& source, HashTable& out) {
  if (auto* hash = dynamic_cast<const Hash*>(&source)) return hash->CopyEntriesTo(out);
  std::error_code result = kSuccess;
  std::error_code walked = source.Iterate([&](const auto& key, const auto& value, bool& stop) {
    std::shared_ptr<IValue> clone;
    result = value->Clone(clone);
    if (Succeeded(result)) out.Add({key, std::move(clone)});
    stop = !Succeeded(result);
  });
  return Succeeded(walked) ? result : walked;
}

std::error_code Hash::ShallowCopy(std::shared_ptr<IHash>& out) const {
  HashTable copy;
  if (!OnQueue(DispatchQueue::kRunNoFlags, [&] { copy = entries_; })) return kFailure;
  return MakeValue<Hash>(out, std::move(copy));
}

void Hash::Freeze() {
  if (IsFrozen()) return;
  // Children first: a reader that finds this hash frozen may walk below it.
  // Nobody else sees the hash yet, so its table is read without the queue.
  const HashTable& entries = entries_;
  entries.VisitInOrder([](const HashTable::Entry& entry) {
    if (entry.second->GetType() == kValueTypeHash) {
      if (auto* hash = const_cast<Hash*>(ExactCast<Hash>(entry.second.get()))) hash->Freeze();
    }
    return true;
  });
  frozen_.store(true, std::memory_order_release);
}

const std::shared_ptr<IValue>* Hash::FindFrozen(std::string_view key) const {
  const HashTable::Entry* entry = entries_.Find(key);
  return entry != nullptr ? &entry->second : nullptr;
}

std::error_code Hash::Clone(std::shared_ptr<IValue>& out) const {
  HashTable copy;
  std::error_code result = CopyEntriesTo(copy);
  if (!Succeeded(result)) return result;
  return MakeValue<Hash>(out, std::move(copy));
}

std::error_code Hash::Assign(const std::shared_ptr<IHash>& other) {
  return AssignContainer(*this, other);
}

std::error_code Hash::CopyXPCObject(xpc_object_t* out) const {
  if (out == nullptr) return kInvalidArgument;
  NestingGuard guard;
  if (!guard.Within()) return kOperationRefused;
  HashSnapshot entries = Snapshot();
  xpc_object_t dictionary = xpc_dictionary_create(nullptr, nullptr, 0);
  if (dictionary == nullptr) return kAllocationFailed;
  for (const auto& [key, value] : entries) {
    xpc_object_t copy = nullptr;
    std::error_code result = value->CopyXPCObject(&copy);
    if (Succeeded(result) && copy == nullptr) result = kAllocationFailed;
    if (!Succeeded(result)) {
      xpc_release(dictionary);
      return result;
    }
    xpc_dictionary_set_value(dictionary, key->GetCString(), copy);
    xpc_release(copy);
  }
  *out = dictionary;
  return kSuccess;
}

bool Hash::operator==(const IValue& other) const {
  // The tag first: comparing with a scalar must never reach a queue.
  if (other.GetType() != kValueTypeHash) return false;
  auto* hash = dynamic_cast<const IHash*>(&other);
  if (hash == nullptr) return false;
  NestingGuard guard;
  if (!guard.Within()) return false;
  // Both sides are snapshots taken one after the other, never both queues at
  // once. Keys come in the same order on both sides, so equal counts and equal
  // keys position by position mean every key of this hash is in the other.
  const HashSnapshot mine = Snapshot();
  size_t matched = 0;
  bool equal = true;
  std::error_code walked = hash->Iterate([&](const auto& key, const auto& value, bool& stop) {
    equal = matched < mine.size() &&
            std::strcmp(mine[matched].first->GetCString(), key->GetCString()) == 0 &&
            *mine[matched].second == *value;
    ++matched;
    stop = !equal;
  });
  return Succeeded(walked) && equal && matched == mine.size();
}

std::error_code Hash::Description(std::string& out, unsigned int indent) const {
  std::error_code result = kFailure;
  try {
    NestingGuard guard;
    if (!guard.Within()) return kOperationRefused;
    const unsigned int childIndent = indent + kChildIndent;
    std::string text;
    std::string keyText;
    std::string valueText;
    AppendOpeningBrace(text, indent);
    bool first = true;
    for (const auto& [key, value] : Snapshot()) {
      if (!first) text += ",\n";
      first = false;
      result = key->Description(keyText, 0);
      if (Succeeded(result))
        result = value->Description(valueText, IsContainer(*value) ? childIndent : 0);
      if (!Succeeded(result)) return result;
      AppendAligned(text, keyText, childIndent);
      text += " : ";
      text += valueText;
    }
    AppendClosingBrace(text, indent);
    out = std::move(text);
    result = kSuccess;
  } catch (...) {
    ReportCaughtException(1, kTag, "Description");
    result = kFailure;
  }
  return result;
}

std::error_code Hash::Serialize(std::vector<uint8_t>& bytes) const {
  return SerializeValue(*this, kTag, bytes);
}

}  // namespace QelSS
