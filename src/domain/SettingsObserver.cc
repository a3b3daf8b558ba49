#include "qelss/domain/SettingsObserver.h"

#include <type_traits>
#include <utility>

#include "platform/report/Failure.h"
#include "platform/report/Report.h"
#include "qelss/values/Exceptions.h"

namespace QelSS {
namespace {

constexpr uint32_t kReportTag = QelErrTag("DOST");

template <typename Target>
std::error_code Make(Target target, std::shared_ptr<SettingsObserver>& observer) {
  try {
    if constexpr (std::is_pointer_v<Target>) {
      observer = std::make_shared<SettingsObserver>(SettingsObserver::ConstructionKey(), target,
                                                    SettingsObserver::Callback());
    } else {
      observer = std::make_shared<SettingsObserver>(SettingsObserver::ConstructionKey(), nullptr,
                                                    std::move(target));
    }
    return kSuccess;
  } catch (const QelSharedSettingsException& e) {
    return e.code();
  } catch (...) {
    ReportCaughtException(1, kReportTag, "constructor");
    return kFailure;
  }
}

}  // namespace

std::error_code SettingsObserver::Create(IObserver* target,
                                         std::shared_ptr<SettingsObserver>& observer) {
  return Make(target, observer);
}

std::error_code SettingsObserver::Create(Callback callback,
                                         std::shared_ptr<SettingsObserver>& observer) {
  return Make(std::move(callback), observer);
}

SettingsObserver::SettingsObserver(ConstructionKey, IObserver* target, Callback callback)
    : target_(target), callback_(std::move(callback)) {
  if (target_ == nullptr && !callback_) {
    throw QelSharedSettingsException(make_error_code(kInvalidArgument), "Invalid argument");
  }
}

SettingsObserver::~SettingsObserver() = default;

void SettingsObserver::OnChange(const std::shared_ptr<IDomainSetting>& domain,
                                const ChangeList& changes) {
  // Destroyed after the mutex is given back when this delivery detached it.
  Callback running;
  std::unique_lock<std::mutex> lock(mutex_);
  if (target_ == nullptr && !callback_) return;
  // The callback runs from a local so that a Detach from inside it never
  // destroys the function while it executes.
  running = std::move(callback_);
  detachedDuringDelivery_ = false;
  deliveringThread_.store(std::this_thread::get_id(), std::memory_order_relaxed);
  try {
    if (target_ != nullptr) target_->OnChange(domain, changes);
    if (running && !detachedDuringDelivery_) running(domain, changes);
  } catch (...) {
    ReportCaughtException(1, kReportTag, "OnChange");
  }
  deliveringThread_.store(std::thread::id(), std::memory_order_relaxed);
  if (!detachedDuringDelivery_) callback_ = std::move(running);
  lock.unlock();
}

void SettingsObserver::Detach() {
  if (deliveringThread_.load(std::memory_order_relaxed) == std::this_thread::get_id()) {
    // This thread is inside OnChange and holds the mutex already.
    target_ = nullptr;
    callback_ = nullptr;
    detachedDuringDelivery_ = true;
    return;
  }
  Callback released;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    target_ = nullptr;
    released = std::move(callback_);
    callback_ = nullptr;
  }
}

}  // namespace QelSS
