#include "domain/ChangeRecord.h"

#include "domain/DomainRoot.h"
#include "domain/RecordKeys.h"
#include "qelss/values/HashFactory.h"
#include "qelss/values/INumber.h"
#include "qelss/values/NumberFactory.h"
#include "qelss/values/StringFactory.h"
#include "values/KeyPath.h"
#include "values/StorableText.h"
#include "values/ValueCast.h"

namespace QelSS {

std::error_code MakeChangeRecord(const std::string& path, Constants::TransactionChangeType type,
                                 const std::shared_ptr<IValue>& value,
                                 std::shared_ptr<IHash>& change) {
  std::shared_ptr<IHash> made;
  if (std::error_code created = HashFactory::Create(made); created != kSuccess) return created;
  std::shared_ptr<IString> pathValue;
  if (std::error_code created = StringFactory::Create(pathValue, path); created != kSuccess) {
    return created;
  }
  if (std::error_code set = made->Set(RecordKeys::kPath, pathValue); set != kSuccess) return set;
  std::shared_ptr<INumber> kind;
  if (std::error_code created = NumberFactory::Create(kind, static_cast<long long>(type));
      created != kSuccess) {
    return created;
  }
  if (std::error_code set = made->Set(RecordKeys::kChange, kind); set != kSuccess) return set;
  if (type == Constants::Set) {
    if (std::error_code set = made->Set(RecordKeys::kNewValue, value); set != kSuccess) {
      return set;
    }
  }
  change = std::move(made);
  return kSuccess;
}

// Below the file's top sit the root and the settings tree.
std::error_code CheckStorablePath(const std::string& path, const std::shared_ptr<IValue>& value) {
  const std::vector<std::string> components = KeyPath::Split(path);
  for (const std::string& component : components) {
    if (!IsStorableText(component)) return kInvalidArgument;
  }
  return CheckStorable(value, kMaxStorableDepth - 2 - static_cast<int>(components.size()));
}

std::error_code ReadChangeRecord(const std::shared_ptr<IHash>& change,
                                 std::shared_ptr<IString>& path,
                                 Constants::TransactionChangeType& type,
                                 std::shared_ptr<IValue>& value) {
  if (!change) return kInvalidArgument;
  if (std::error_code read = DomainRoot::LookUpString(*change, RecordKeys::kPath, path);
      read != kSuccess) {
    return read;
  }

  std::shared_ptr<IValue> found;
  if (std::error_code read = DomainRoot::LookUp(*change, RecordKeys::kChange, found);
      read != kSuccess) {
    return read;
  }
  auto number = AsNumber(found);
  int64_t kind = 0;
  if (!number || number->GetInt64(kind) != kSuccess) return kInvalidData;
  type = static_cast<Constants::TransactionChangeType>(kind);

  if (type == Constants::Set) {
    if (std::error_code read = DomainRoot::LookUp(*change, RecordKeys::kNewValue, found);
        read != kSuccess) {
      return read;
    }
    value = std::move(found);
  }
  return kSuccess;
}

std::error_code GetChangeArray(const std::shared_ptr<IHash>& record,
                               std::shared_ptr<IArray>& changes) {
  if (!record) return kInvalidArgument;
  std::shared_ptr<IValue> found;
  if (std::error_code read = DomainRoot::LookUp(*record, RecordKeys::kChanges, found);
      read != kSuccess) {
    return read;
  }
  auto array = AsArray(found);
  if (!array) return kInvalidData;
  changes = std::move(array);
  return kSuccess;
}

std::error_code ReadChanges(const std::shared_ptr<IArray>& changes, std::vector<Change>& out) {
  if (!changes) return kInvalidArgument;
  std::vector<Change> read;
  read.reserve(changes->GetCount());
  std::error_code result = make_error_code(kSuccess);
  // Iterate works on a snapshot, so the array may change meanwhile without
  // tearing the list read here.
  std::error_code walked =
      changes->Iterate([&](const std::shared_ptr<IValue>& element, unsigned int, bool& stop) {
        Change change;
        if (ReadChangeRecord(AsHash(element), change.path, change.type, change.value) != kSuccess) {
          result = make_error_code(kInvalidData);
          stop = true;
          return;
        }
        if (change.IsDeletion()) change.value.reset();
        read.push_back(std::move(change));
      });
  if (walked != kSuccess) return walked;
  if (result != kSuccess) return result;
  out = std::move(read);
  return kSuccess;
}

IObserver::ChangeList MakeChangeList(const std::vector<Change>& changes) {
  IObserver::ChangeList list;
  list.reserve(changes.size());
  for (const Change& change : changes) {
    list.emplace_back(change.path->GetCString(),
                      change.IsDeletion() ? IObserver::Deleted : IObserver::Modified, change.value);
  }
  return list;
}

std::string CanonicalPath(const char* path) {
  std::string canonical;
  for (const std::string& component : KeyPath::Split(path)) {
    if (!canonical.empty()) canonical += '/';
    canonical += component;
  }
  return canonical;
}

}  // namespace QelSS
