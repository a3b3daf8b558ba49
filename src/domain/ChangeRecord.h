#pragma once

// Reading the change records of a transaction record. A change record is a
// Hash:
//   "Path"      String  the key path, exactly as the writer gave it
//   "Change"    Number  a Constants::TransactionChangeType
//   "NewValue"  any     the value stored; present only when "Change" is Set
// The transaction record lists them, oldest first, in an Array under "NewValue".

#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "qelss/domain/Constants.h"
#include "qelss/domain/IObserver.h"
#include "qelss/values/IArray.h"
#include "qelss/values/IHash.h"
#include "qelss/values/IString.h"

namespace QelSS {

// Reads one change record. The outputs are filled one by one, so a failure
// leaves the earlier ones written:
//   kInvalidArgument  null change record
//   kInvalidData      "Path" is absent or not a String, or "Change" is absent or
//                     not an int64 Number
// `value` is written only for a change of type Set (null when "NewValue" is
// absent) and left as it was for any other type.
[[nodiscard]] std::error_code ReadChangeRecord(const std::shared_ptr<IHash>& change,
                                               std::shared_ptr<IString>& path,
                                               Constants::TransactionChangeType& type,
                                               std::shared_ptr<IValue>& value);

struct Change {
  std::shared_ptr<IString> path;
  Constants::TransactionChangeType type = Constants::Delete;
  std::shared_ptr<IValue> value;  // null for a deletion

  bool IsDeletion() const { return type == Constants::Delete; }
};

// A new change record of `type` at `path`, holding `value` when `type` is Set.
// Only allocation can fail.
[[nodiscard]] std::error_code MakeChangeRecord(const std::string& path,
                                               Constants::TransactionChangeType type,
                                               const std::shared_ptr<IValue>& value,
                                               std::shared_ptr<IHash>& change);

// Whether a domain can keep `value` at `path`: every component storable text,
// and the value's nesting within what a domain file holds below that many
// levels. kInvalidArgument otherwise. Refused when the change is made, where
// the caller learns of it, rather than when the domain's file is written: a
// file its reader refuses would lose the whole domain.
[[nodiscard]] std::error_code CheckStorablePath(const std::string& path,
                                                const std::shared_ptr<IValue>& value);

// The change array of a transaction record. kInvalidData when `record` has no
// Array under "NewValue"; kInvalidArgument for a null record.
[[nodiscard]] std::error_code GetChangeArray(const std::shared_ptr<IHash>& record,
                                             std::shared_ptr<IArray>& changes);

// Reads every change record of `changes` in order. kInvalidData, `out`
// untouched, when an element is not a Hash or ReadChangeRecord refuses it.
[[nodiscard]] std::error_code ReadChanges(const std::shared_ptr<IArray>& changes,
                                          std::vector<Change>& out);

// The list handed to observers: the same changes with the observer's numbering.
IObserver::ChangeList MakeChangeList(const std::vector<Change>& changes);

// `path` with empty components dropped ("/a//b/" becomes "a/b"), so that two
// spellings of one key compare equal.
std::string CanonicalPath(const char* path);

}  // namespace QelSS
