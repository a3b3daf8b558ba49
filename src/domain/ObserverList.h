#pragma once

#include <memory>
#include <system_error>
#include <vector>

#include "domain/RetainedQueue.h"
#include "platform/support/Mutex.h"
#include "qelss/domain/IObserver.h"

namespace QelSS {

// The observers of one domain, held weakly, each with the queue to deliver on.
// Thread-safe: a mutex of its own guards the list, and no observer code and no
// release of a queue or an observer runs while it is held.
class ObserverList {
 public:
  // One live observer, kept alive for the delivery; a null queue means the
  // domain's default observer queue.
  struct Delivery {
    std::shared_ptr<IObserver> observer;
    RetainedQueue queue;
  };

  // Appends an entry; `queue` (may be null) is retained while the entry lives.
  // kInvalidArgument for a null observer.
  std::error_code Add(dispatch_queue_t queue, const std::shared_ptr<IObserver>& observer)
      QELSS_EXCLUDES(mutex_);

  // Removes every entry of `observer` and every entry whose observer is gone;
  // the others keep their order. kSuccess when something went, else kNotFound.
  std::error_code Remove(const std::shared_ptr<IObserver>& observer) QELSS_EXCLUDES(mutex_);

  // The entries whose observer still exists, in order of registration.
  std::vector<Delivery> Live() const QELSS_EXCLUDES(mutex_);

 private:
  struct Entry {
    std::weak_ptr<IObserver> observer;
    RetainedQueue queue;
  };

  mutable platform::Mutex mutex_;
  std::vector<Entry> entries_ QELSS_GUARDED_BY(mutex_);
};

}  // namespace QelSS
