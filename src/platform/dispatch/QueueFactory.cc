#include <new>
#include <utility>

#include "platform/dispatch/MakeQueue.h"
#include "platform/dispatch/SerialQueue.h"
#include "qelss/platform/Dispatch.h"
#include "qelss/platform/ErrorCode.h"

namespace DispatchQueue {

namespace {

bool IsKnownQos(qos_class_t qos) {
  switch (qos) {
    case QOS_CLASS_USER_INTERACTIVE:
    case QOS_CLASS_USER_INITIATED:
    case QOS_CLASS_DEFAULT:
    case QOS_CLASS_UTILITY:
    case QOS_CLASS_BACKGROUND:
    case QOS_CLASS_UNSPECIFIED:
      return true;
    default:
      return false;
  }
}

}  // namespace

IQueue::~IQueue() = default;

bool IQueue::TrySync(uint32_t, uint32_t, QelSS::FunctionRef<void()>) { return false; }

std::error_code QueueFactory::Create(std::shared_ptr<IQueue>& out, Type type, const char* label,
                                     qos_class_t qos) {
  using QelSS::platform::SerialQueue;
  if ((type != kQueueTypeDefault && type != kQueueTypeSerial) || !IsKnownQos(qos)) {
    return QelSS::make_error_code(QelSS::kInvalidArgument);
  }
  try {
    // The shared_ptr owns one reference; should its control block fail to
    // allocate, it releases that reference itself.
    out = std::shared_ptr<IQueue>(SerialQueue::New(label), [](IQueue* queue) {
      static_cast<SerialQueue*>(queue)->Release();
    });
  } catch (const std::bad_alloc&) {
    return QelSS::make_error_code(QelSS::kAllocationFailed);
  }
  return {};
}

}  // namespace DispatchQueue

namespace QelSS::platform {

std::error_code MakeQueue(std::shared_ptr<DispatchQueue::IQueue>& out, DispatchQueue::Type type,
                          const char* label, qos_class_t qos) noexcept {
  std::shared_ptr<DispatchQueue::IQueue> made;
  const std::error_code rc = DispatchQueue::QueueFactory::Create(made, type, label, qos);
  if (rc.value() != 0) return rc;
  if (!made) return make_error_code(kAllocationFailed);
  out = std::move(made);
  return make_error_code(kSuccess);
}

}  // namespace QelSS::platform
