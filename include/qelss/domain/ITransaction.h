#pragma once

#include <memory>
#include <string>
#include <system_error>

#include "qelss/Export.h"
#include "qelss/values/IValue.h"

namespace QelSS {

// A batch of pending changes to one domain, made with
// IDomainSetting::CreateTransaction and handed back to
// IDomainSetting::CommitTransaction.
//
// A transaction works on its own version of the domain's settings as they
// stood when it was made (sharing every hash it has not changed): its changes are invisible to readers of the domain until
// the commit, and changes committed meanwhile by others are invisible to it.
// Each effective change is recorded in order; changes that would change
// nothing (deleting what is absent, storing an equal value) are not recorded.
//
// Key paths separate the levels of nested hashes with "/"; empty components are
// skipped ("/a//b/" means key "b" of the hash under "a"), and the path is
// recorded exactly as given.
//
// Thread-safe: operations run one at a time on the transaction's own serial
// queue. Do not call a transaction from inside one of its own operations.
class QELSS_EXPORT ITransaction {
 public:
  // Removes the value at `path` and records a deletion.
  //   kSuccess          removed, or nothing was there (then nothing is recorded)
  //   kInvalidArgument  the path has no component
  //   kInvalidData      the copy's settings tree is not a hash
  //   other             the failure of the hash operation; nothing recorded
  [[nodiscard]] virtual std::error_code Delete(const std::string& path) = 0;

  // Stores `value` (shared, not copied) at `path`, creating missing levels, and
  // records a setting.
  //   kSuccess          stored, or an equal value was already there (then
  //                     nothing is recorded)
  //   kInvalidArgument  empty path, a path without components, a null value, or
  //                     a value that would contain the tree itself
  //   kInvalidType      a level on the way exists and is not a hash
  //   kInvalidData      the copy's settings tree is not a hash
  [[nodiscard]] virtual std::error_code Set(const std::string& path,
                                            const std::shared_ptr<IValue>& value) = 0;

  virtual ~ITransaction();
};

}  // namespace QelSS
