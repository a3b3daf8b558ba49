#pragma once

#include "qelss/Export.h"
#include "qelss/platform/xpc.h"

namespace QelSS {

// Companion interface of every value: direct access to the platform object a
// scalar value wraps, without the copy that CopyXPCObject makes.
class QELSS_EXPORT IValueInternal {
 public:
  virtual ~IValueInternal();

  // The wrapped object, lent: valid while the value lives; retain it to keep it
  // longer. NULL for containers, which build their platform form on request.
  virtual xpc_object_t GetXPCObject() const noexcept = 0;
};

}  // namespace QelSS
