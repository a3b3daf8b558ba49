#pragma once

#include <memory>
#include <system_error>

#include "qelss/platform/Dispatch.h"

namespace QelSS::platform {

// QueueFactory::Create in the library's own convention: kSuccess with `out`
// holding the queue, or the factory's failure. The factory answers success
// with a value of 0, which the rest of the library never compares against.
[[nodiscard]] std::error_code MakeQueue(std::shared_ptr<DispatchQueue::IQueue>& out,
                                        DispatchQueue::Type type, const char* label,
                                        qos_class_t qos) noexcept;

}  // namespace QelSS::platform
