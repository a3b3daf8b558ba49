#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "qelss/Export.h"
#include "qelss/values/IValue.h"

namespace QelSS {

class IDomainSetting;

// Receives the changes applied to a domain. Register with
// IDomainSetting::AddObserver; the domain holds the observer weakly, so keep it
// alive for as long as it should hear of changes.
class QELSS_EXPORT IObserver {
 public:
  // Opposite in numbering to Constants::TransactionChangeType, on purpose.
  enum ChangeType : int32_t {
    Modified = 0,  // a value was stored at the path
    Deleted = 1,   // the value at the path was removed
  };

  // One entry per change of the applied transaction, in the order made: the key
  // path as the writer gave it, the kind of change, and the value stored (null
  // for a deletion). Values are shared with the domain's tree: treat them as
  // read-only.
  using ChangeList = std::vector<std::tuple<std::string, ChangeType, std::shared_ptr<IValue>>>;

  // Called once per applied transaction that notifies, asynchronously on the
  // queue given to AddObserver (or the domain's observer queue), never on the
  // thread that applied it and never while the domain holds a lock. `domain` is
  // the domain that changed. An exception thrown here is reported and dropped.
  virtual void OnChange(const std::shared_ptr<IDomainSetting>& domain,
                        const ChangeList& changes) = 0;

  virtual ~IObserver();
};

}  // namespace QelSS
