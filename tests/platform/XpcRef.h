#pragma once

#include "qelss/platform/xpc.h"

namespace QelSS::testing {

// Owns one reference to a platform object for the length of a test.
struct Ref {
  explicit Ref(xpc_object_t o) : object(o) {}
  ~Ref() { xpc_release(object); }
  Ref(const Ref&) = delete;
  Ref& operator=(const Ref&) = delete;
  operator xpc_object_t() const { return object; }  // NOLINT: tests read better without .object
  xpc_object_t object;
};

}  // namespace QelSS::testing
