#pragma once

#include <memory>
#include <system_error>
#include <vector>

#include "domain/ChangeRecord.h"
#include "qelss/values/IHash.h"

namespace QelSS {

// The changes that turn settings tree `before` into `after`, for the observers
// of a domain whose whole tree was replaced (a copy fetched again from the
// service that keeps it). Applied in order to `before`, they give `after`.
//
// Keys are visited in byte order. A key only in `before` is deleted; a key
// only in `after`, or holding an unequal value that is not a hash on both
// sides, is set to the new value (shared, not copied); hashes on both sides are
// compared level by level, so a change deep in a large tree yields one change,
// not the whole subtree. Paths are the keys joined with "/".
//
// kInvalidArgument for a null tree; a string factory's code when a path
// cannot be made. `changes` gets the changes appended.
[[nodiscard]] std::error_code DiffTrees(const std::shared_ptr<IHash>& before,
                                        const std::shared_ptr<IHash>& after,
                                        std::vector<Change>& changes);

}  // namespace QelSS
