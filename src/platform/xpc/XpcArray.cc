#include <new>

#include "platform/xpc/XpcObject.h"

namespace QelSS::xpc {

std::vector<xpc_object_t> SnapshotArray(Array& array) {
  std::lock_guard lock(array.mutex);
  for (xpc_object_t item : array.items) xpc_retain(item);
  return array.items;
}

void ReleaseAll(const std::vector<xpc_object_t>& objects) noexcept {
  for (xpc_object_t object : objects) xpc_release(object);
}

void DestroyArray(Array* array) noexcept {
  // The last reference is gone, so no other thread can reach the items.
  ReleaseAll(array->items);
  delete array;
}

xpc_object_t CopyArray(Array& array) noexcept {
  auto* copy = new (std::nothrow) Array();
  if (copy != nullptr) copy->items = SnapshotArray(array);  // the snapshot's references move in
  return copy;
}

}  // namespace QelSS::xpc

using namespace QelSS::xpc;

xpc_object_t xpc_array_create(const xpc_object_t* objects, size_t count) noexcept {
  if (objects == nullptr && count != 0) return nullptr;
  for (size_t i = 0; i < count; ++i) {
    if (objects[i] == nullptr) return nullptr;
  }
  auto* array = new (std::nothrow) Array();
  if (array == nullptr) return nullptr;
  array->items.reserve(count);
  for (size_t i = 0; i < count; ++i) array->items.push_back(xpc_retain(objects[i]));
  return array;
}

bool xpc_array_set_value(xpc_object_t xarray, size_t index, xpc_object_t value) noexcept {
  auto* array = As<Array>(xarray, XPC_TYPE_ARRAY);
  if (array == nullptr || value == nullptr || value == xarray) return false;
  xpc_object_t replaced = nullptr;
  {
    std::lock_guard lock(array->mutex);
    if (index == XPC_ARRAY_APPEND) {
      array->items.push_back(xpc_retain(value));
    } else if (index < array->items.size()) {
      replaced = array->items[index];
      array->items[index] = xpc_retain(value);
    } else {
      return false;
    }
  }
  // Outside the lock: the last release of a container frees its whole subtree.
  xpc_release(replaced);
  return true;
}

bool xpc_array_append_value(xpc_object_t xarray, xpc_object_t value) noexcept {
  return xpc_array_set_value(xarray, XPC_ARRAY_APPEND, value);
}

xpc_object_t xpc_array_get_value(xpc_object_t xarray, size_t index) noexcept {
  auto* array = As<Array>(xarray, XPC_TYPE_ARRAY);
  if (array == nullptr) return nullptr;
  std::lock_guard lock(array->mutex);
  return index < array->items.size() ? array->items[index] : nullptr;
}

size_t xpc_array_get_count(xpc_object_t xarray) noexcept {
  auto* array = As<Array>(xarray, XPC_TYPE_ARRAY);
  if (array == nullptr) return 0;
  std::lock_guard lock(array->mutex);
  return array->items.size();
}

bool xpc_array_apply(xpc_object_t xarray, const xpc_array_applier_t& applier) noexcept {
  auto* array = As<Array>(xarray, XPC_TYPE_ARRAY);
  if (array == nullptr) return false;
  auto items = SnapshotArray(*array);
  bool completed = true;
  for (size_t i = 0; completed && i < items.size(); ++i) completed = applier(i, items[i]);
  ReleaseAll(items);
  return completed;
}
