#pragma once

#include <memory>
#include <mutex>
#include <system_error>
#include <vector>

#include "domain/RetainedQueue.h"
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
  std::error_code Add(dispatch_queue_t queue, const std::shared_ptr<IObserver>& observer);

  // Removes every entry of `observer` and every entry whose observer is gone;
  // the others keep their order. kSuccess when something went, else kNotFound.
  std::error_code Remove(const std::shared_ptr<IObserver>& observer);

  // The entries whose observer still exists, in order of registration.
  std::vector<Delivery> Live() const;

 private:
  struct Entry {
    std::weak_ptr<IObserver> observer;
    RetainedQueue queue;
  };

  mutable std::mutex mutex_;
  std::vector<Entry> entries_;  // guarded by mutex_
};

}  // namespace QelSS
