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
// Transparent, so that a lookup by C string needs no String value.
struct HashKeyLess {
  using is_transparent = void;

  bool operator()(const std::shared_ptr<IString>& a, const std::shared_ptr<IString>& b) const {
    return std::strcmp(a->GetCString(), b->GetCString()) < 0;
  }
  bool operator()(const std::shared_ptr<IString>& a, const char* b) const {
    return std::strcmp(a->GetCString(), b) < 0;
  }
  bool operator()(const char* a, const std::shared_ptr<IString>& b) const {
    return std::strcmp(a, b->GetCString()) < 0;
  }
};

using HashEntries = std::map<std::shared_ptr<IString>, std::shared_ptr<IValue>, HashKeyLess>;

using HashIterateFunction = std::function<void(const std::shared_ptr<IString>& key,
                                               const std::shared_ptr<IValue>& value, bool& stop)>;

// A map of string keys to values (tag kValueTypeHash): the tree type of every
// domain, record and message. Keys are unique by text and iterate in byte order.
// Keys and values are shared, not copied, by Set and Get; Clone, Assign and copy
// assignment copy deeply (every value cloned; keys, being immutable strings,
// are shared by the copy).
//
// Cycles. A hash refuses to hold itself (kInvalidArgument). A hash that holds
// itself through other containers cannot be refused cheaply and must not be
// built: it is never freed, and deep copies, comparisons, descriptions, merges
// and platform copies of it stop after 512 levels of nesting with
// kOperationRefused (comparisons answer false). Trees nested deeper than that
// are refused the same way.
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

  // Sets the entry for the key's text (replacing one that exists; the stored
  // key is kept). kInvalidArgument for a null key or value and for this hash
  // itself. The C-string form makes a String of the key only when the key is
  // new.
  [[nodiscard]] virtual std::error_code Set(const std::shared_ptr<IString>& key,
                                            const std::shared_ptr<IValue>& value) = 0;
  [[nodiscard]] virtual std::error_code Set(const char* key,
                                            const std::shared_ptr<IValue>& value) = 0;

  // Replaces every entry with those of `entries`, which is left empty. Entries
  // with a null key or value, or holding this hash itself, are dropped.
  virtual void SetEntries(HashEntries&& entries) = 0;

  // Deep copy of `other` (values cloned, keys shared). Throws DataTypeException
  // ("Failed to copy in object") when a clone fails; this hash is then unchanged.
  // Assigning a hash to itself does nothing.
  virtual IHash& operator=(const IHash& other) = 0;
  // Takes over the entries of `other`, leaving it empty. Assigning a hash to
  // itself does nothing.
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

  // Calls `function` for each entry in key order until it sets `stop`, on a
  // snapshot taken when the call starts: changes made meanwhile, by the
  // function or by other threads, are not seen. kInvalidArgument for an empty
  // function.
  [[nodiscard]] virtual std::error_code Iterate(const HashIterateFunction& function) const = 0;

  virtual size_t GetCount() const = 0;

  // Deep copy from `other` as copy assignment does; kInvalidArgument for null,
  // a failed clone's code otherwise.
  [[nodiscard]] virtual std::error_code Assign(const std::shared_ptr<IHash>& other) = 0;

  // Adds what `other` has and this hash lacks, walking `other` in key order:
  //  - a key this hash lacks is set to the other's value object (shared);
  //  - a hash under a key both have is merged into this hash's value by these
  //    same rules;
  //  - an array under a key both have: each hash element of the other's array
  //    (elements of other kinds are skipped) is inserted at its own index when
  //    this hash's array is empty, and otherwise merged into this array's
  //    element at the same index. The count is read afresh for each element, so
  //    two hash elements merged into an empty array insert the first and then
  //    fail with kIndexOutOfRange; callers rely on exactly that;
  //  - any other value already present is kept.
  // The first failure stops the walk, with what was merged so far kept:
  // kInvalidArgument for null; kInvalidData when the two sides hold different
  // kinds under a key, or at an array index, that needs merging;
  // kIndexOutOfRange when an array element has no counterpart.
  [[nodiscard]] virtual std::error_code Merge(const std::shared_ptr<IHash>& other) = 0;
};

}  // namespace QelSS
