#pragma once

#include <memory>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "domain/CommitEngine.h"
#include "qelss/values/IHash.h"
#include "qelss/values/IValue.h"

namespace QelSS {

// A transaction record, made from `engine`'s current generation, that sets
// each value at its key path exactly as a transaction of Set calls would: a
// value equal to the one already there is left out, and `record` stays null
// when nothing would change. For a process that changes a domain it keeps
// without a transaction object of its own (the service's imports).
//   kInvalidType      a level on a path holds a value that is not a hash
//   kInvalidArgument  a path without components, or a value a domain cannot keep
[[nodiscard]] std::error_code MakeSetRecord(
    const CommitEngine& engine,
    const std::vector<std::pair<std::string, std::shared_ptr<IValue>>>& values,
    std::shared_ptr<IHash>& record);

}  // namespace QelSS
