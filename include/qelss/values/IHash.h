#pragma once

#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <system_error>

#include "qelss/Export.h"
#include "qelss/values/IString.h"
#include "qelss/values/IValue.h"

namespace QelSS {

// Orders hash keys by the bytes of their UTF-8 text (strcmp), so "B" < "a" < "b".
struct HashKeyLess {
  bool operator()(const std::shared_ptr<IString>& a, const std::shared_ptr<IString>& b) const {
    return std::strcmp(a->GetCString(), b->GetCString()) < 0;
  }
};

using HashEntries = std::map<std::shared_ptr<IString>, std::shared_ptr<IValue>, HashKeyLess>;

using HashIterateFunction = std::function<void(const std::shared_ptr<IString>& key,
                                               const std::shared_ptr<IValue>& value, bool& stop)>;

// A map of string keys to values (tag kValueTypeHash): the tree type of every
// domain, record and message. Keys are unique by text and iterate in byte order.
// Keys and values are shared, not copied, by Set and Get; Clone, Assign and copy
// assignment copy deeply.
//
// Thread-safe: every operation runs on the hash's own serial queue. Operations
// that visit another container (equality, deep copy, Merge) work from a snapshot
// and never hold this hash's queue while waiting for another container's, so
// two threads may compare, merge or copy the same two hashes in opposite
// directions at once. Iterate calls its function outside the queue, on a
// snapshot taken when it starts: the function may use this hash freely.
// The values held are not locked by the hash.
class QELSS_EXPORT IHash : public virtual IValue {
 public:
  ~IHash() override;

  // Sets the entry for the key's text (replacing one that exists). kInvalidArgument
  // for a null key or value. The C-string form first makes a String of the key;
  // its failure is the result.
  [[nodiscard]] virtual std::error_code Set(const std::shared_ptr<IString>& key,
                                            const std::shared_ptr<IValue>& value) = 0;
  [[nodiscard]] virtual std::error_code Set(const char* key,
                                            const std::shared_ptr<IValue>& value) = 0;

  // Replaces every entry with those of `entries`, which is left empty.
  virtual void SetEntries(HashEntries&& entries) = 0;

  // Deep copy of `other` (keys and values cloned). Throws DataTypeException
  // ("Failed to copy in object") when a clone fails; this hash is then unchanged.
  // Assigning a hash to itself does nothing.
  virtual IHash& operator=(const IHash& other) = 0;
  // Takes over the entries of `other`, leaving it empty.
  virtual IHash& operator=(IHash&& other) = 0;

  // `out` shares the stored value. kInvalidArgument for a null key; kNotFound
  // when absent, `out` untouched.
  [[nodiscard]] virtual std::error_code Get(const std::shared_ptr<IString>& key,
                                            std::shared_ptr<IValue>& out) const = 0;
  [[nodiscard]] virtual std::error_code Get(const char* key,
                                            std::shared_ptr<IValue>& out) const = 0;

  // kSuccess when present, kNotFound when absent, kInvalidArgument for a null key.
  [[nodiscard]] virtual std::error_code Contains(const std::shared_ptr<IString>& key) const = 0;
  [[nodiscard]] virtual std::error_code Contains(const char* key) const = 0;

  // kNotFound when nothing was erased.
  [[nodiscard]] virtual std::error_code Delete(const std::shared_ptr<IString>& key) = 0;
  [[nodiscard]] virtual std::error_code Delete(const char* key) = 0;

  virtual void RemoveAll() = 0;

  // Calls `function` for each entry in key order until it sets `stop`.
  [[nodiscard]] virtual std::error_code Iterate(const HashIterateFunction& function) const = 0;

  virtual size_t GetCount() const = 0;

  // Deep copy from `other` as copy assignment does; kInvalidArgument for null,
  // a failed clone's code otherwise.
  [[nodiscard]] virtual std::error_code Assign(const std::shared_ptr<IHash>& other) = 0;

  // Adds what `other` has and this hash lacks, recursively through nested hashes
  // and through hashes inside arrays; never replaces an existing scalar.
  // kInvalidArgument for null; kInvalidData when a nested value is of another
  // type on the two sides; kIndexOutOfRange as described for arrays of hashes.
  [[nodiscard]] virtual std::error_code Merge(const std::shared_ptr<IHash>& other) = 0;
};

}  // namespace QelSS
