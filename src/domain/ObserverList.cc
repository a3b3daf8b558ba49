#include "domain/ObserverList.h"

#include <utility>

#include "qelss/platform/ErrorCode.h"

namespace QelSS {
namespace {

// Never locks an entry of another owner: the reference that lock() makes could
// turn out to be the observer's last and destroy it under the list's mutex.
// The caller's own reference keeps a matching observer alive.
bool HoldsObserver(const std::weak_ptr<IObserver>& held,
                   const std::shared_ptr<IObserver>& observer) {
  if (held.owner_before(observer) || observer.owner_before(held)) return false;
  return held.lock() == observer;
}

}  // namespace

std::error_code ObserverList::Add(dispatch_queue_t queue,
                                  const std::shared_ptr<IObserver>& observer) {
  if (!observer) return kInvalidArgument;
  Entry entry{observer, RetainedQueue(queue)};
  platform::MutexLock lock(mutex_);
  entries_.push_back(std::move(entry));
  return kSuccess;
}

std::error_code ObserverList::Remove(const std::shared_ptr<IObserver>& observer) {
  // Released after the mutex is given back: the last release of a queue may
  // run work of the queue library.
  std::vector<Entry> removed;
  {
    platform::MutexLock lock(mutex_);
    std::vector<Entry> kept;
    kept.reserve(entries_.size());
    for (Entry& entry : entries_) {
      if (entry.observer.expired() || HoldsObserver(entry.observer, observer)) {
        removed.push_back(std::move(entry));
      } else {
        kept.push_back(std::move(entry));
      }
    }
    entries_ = std::move(kept);
  }
  return removed.empty() ? make_error_code(kNotFound) : make_error_code(kSuccess);
}

std::vector<ObserverList::Delivery> ObserverList::Live() const {
  std::vector<Delivery> live;
  platform::MutexLock lock(mutex_);
  live.reserve(entries_.size());
  for (const Entry& entry : entries_) {
    if (std::shared_ptr<IObserver> observer = entry.observer.lock()) {
      live.push_back(Delivery{std::move(observer), entry.queue});
    }
  }
  return live;
}

}  // namespace QelSS
