#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>

#include "qelss/Export.h"
#include "qelss/domain/IObserver.h"

namespace QelSS {

// An observer that forwards each change list to another observer or to a
// function, and that can be detached so that nothing more is forwarded, not
// even change lists already queued for delivery.
//
// Thread-safe. Deliveries to one SettingsObserver never overlap: each runs
// under the observer's mutex.
class QELSS_EXPORT SettingsObserver final : public IObserver {
 public:
  using Callback = std::function<void(const std::shared_ptr<IDomainSetting>&, const ChangeList&)>;

  // An observer forwarding to `target`, which it does not own: detach it before
  // `target` goes. kInvalidArgument for a null target, `observer` untouched.
  [[nodiscard]] static std::error_code Create(IObserver* target,
                                              std::shared_ptr<SettingsObserver>& observer);

  // An observer forwarding to `callback`. kInvalidArgument for an empty
  // callback, `observer` untouched.
  [[nodiscard]] static std::error_code Create(Callback callback,
                                              std::shared_ptr<SettingsObserver>& observer);

  // Forwards to the target, then to the callback, unless detached. Exceptions
  // thrown by them are reported and dropped.
  void OnChange(const std::shared_ptr<IDomainSetting>& domain, const ChangeList& changes) override;

  // Stops all forwarding for good. When Detach returns, the target and the
  // callback are not running and will never be called again: a delivery under
  // way on another thread is waited for, and deliveries that start later do
  // nothing. Called from inside this observer's own delivery, it returns at
  // once; the call under way finishes, nothing is forwarded after it, and the
  // callback is released when that delivery ends. The callback is destroyed
  // outside the observer's mutex.
  void Detach();

  struct ConstructionKey {
    explicit ConstructionKey() = default;
  };
  SettingsObserver(ConstructionKey, IObserver* target, Callback callback);
  ~SettingsObserver() override;

 private:
  std::mutex mutex_;
  IObserver* target_;  // guarded by mutex_
  Callback callback_;  // guarded by mutex_
  // Set by a Detach made from inside a delivery, which runs with mutex_ held.
  bool detachedDuringDelivery_ = false;
  // The thread running a delivery, so that Detach can tell that it is called
  // from inside one and must not wait for the mutex that thread already holds.
  std::atomic<std::thread::id> deliveringThread_{};
};

}  // namespace QelSS
