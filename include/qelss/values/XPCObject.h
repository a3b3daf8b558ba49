#pragma once

#include "qelss/platform/xpc.h"

namespace QelSS {

// Owns one reference to a platform object (or nothing). Copies share the object
// and add a reference; moves hand the reference over; destruction gives it back.
// Nothing here throws.
class XPCObject {
 public:
  XPCObject() noexcept = default;

  // With `retain` true the handle takes a reference of its own; with false it
  // adopts the one the caller owns, as returned by an xpc_*_create call.
  XPCObject(xpc_object_t object, bool retain) noexcept : object_(object) {
    if (object_ != nullptr && retain) xpc_retain(object_);
  }

  XPCObject(const XPCObject& other) noexcept : object_(other.object_) {
    if (object_ != nullptr) xpc_retain(object_);
  }

  XPCObject(XPCObject&& other) noexcept : object_(other.object_) { other.object_ = nullptr; }

  ~XPCObject() { Reset(); }

  // Drops its own reference before taking the source's. Assigning a handle to
  // itself therefore leaves it empty.
  XPCObject& operator=(const XPCObject& other) noexcept {
    Reset();
    if (other.object_ != nullptr) object_ = xpc_retain(other.object_);
    return *this;
  }

  XPCObject& operator=(XPCObject&& other) noexcept {
    if (object_ != nullptr) xpc_release(object_);
    object_ = other.object_;
    other.object_ = nullptr;
    return *this;
  }

  // The object, lent: valid while this handle holds it.
  xpc_object_t Get() const noexcept { return object_; }
  explicit operator bool() const noexcept { return object_ != nullptr; }

 private:
  void Reset() noexcept {
    if (object_ != nullptr) xpc_release(object_);
    object_ = nullptr;
  }

  xpc_object_t object_ = nullptr;
};

}  // namespace QelSS
