#pragma once

// The root of a domain's stored tree: exactly two entries, the generation count
// (a Number of kind int64) under "QelSharedSettingsGenerationCount" and the
// settings tree proper (a Hash) under "DomainInternalSettings". A fetch reply
// carries the same root. These functions never log: callers decide.

#include <cstdint>
#include <memory>
#include <system_error>

#include "qelss/values/IHash.h"
#include "qelss/values/IString.h"

namespace QelSS::DomainRoot {

// A new root with the count 0 and an empty settings tree. The first failing
// factory's or hash's code; `root` may then hold a partly built hash.
[[nodiscard]] std::error_code Create(std::shared_ptr<IHash>& root);

// Replaces the stored count with a new Number one higher. kInvalidData when
// the count is absent or not an int64 Number; kInvalidArgument for a null root.
[[nodiscard]] std::error_code IncrementGenerationCount(const std::shared_ptr<IHash>& root);

// `settings` shares the settings tree. kInvalidData when it is absent or not a
// Hash; kInvalidArgument for a null root.
[[nodiscard]] std::error_code GetInternalSettings(const std::shared_ptr<IHash>& root,
                                                  std::shared_ptr<IHash>& settings);

// Reads the count of a root or of a transaction record (same key). kInvalidData
// when absent or not an int64 Number; kInvalidArgument for a null hash.
[[nodiscard]] std::error_code GetGenerationCount(const std::shared_ptr<IHash>& hash,
                                                 int64_t& count);

// The value under `key`, or null when the key is absent. Lookup failures other
// than absence are returned.
[[nodiscard]] std::error_code LookUp(const IHash& hash, const char* key,
                                     std::shared_ptr<IValue>& value);

// The string under `key`: kInvalidData when absent or of another kind; `text`
// is left alone on failure.
[[nodiscard]] std::error_code LookUpString(const IHash& hash, const char* key,
                                           std::shared_ptr<IString>& text);

}  // namespace QelSS::DomainRoot
