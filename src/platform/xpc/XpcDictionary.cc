#include <new>
#include <string_view>

#include "platform/xpc/XpcObject.h"

namespace QelSS::xpc {

std::vector<std::pair<std::string, xpc_object_t>> SnapshotDictionary(Dictionary& dictionary) {
  std::lock_guard lock(dictionary.mutex);
  std::vector<std::pair<std::string, xpc_object_t>> entries;
  entries.reserve(dictionary.entries.size());
  for (const auto& [key, value] : dictionary.entries) entries.emplace_back(key, xpc_retain(value));
  return entries;
}

void ReleaseAll(const std::vector<std::pair<std::string, xpc_object_t>>& entries) noexcept {
  for (const auto& entry : entries) xpc_release(entry.second);
}

void DestroyDictionary(Dictionary* dictionary) noexcept {
  for (const auto& entry : dictionary->entries) xpc_release(entry.second);
  delete dictionary;
}

xpc_object_t CopyDictionary(Dictionary& dictionary) noexcept {
  auto* copy = new (std::nothrow) Dictionary();
  if (copy == nullptr) return nullptr;
  for (auto& [key, value] : SnapshotDictionary(dictionary)) {
    copy->entries.emplace_hint(copy->entries.end(), std::move(key), value);
  }
  return copy;
}

}  // namespace QelSS::xpc

using namespace QelSS::xpc;

namespace {

bool StoreScalar(xpc_object_t xdict, const char* key, xpc_object_t value) noexcept {
  if (value == nullptr) return false;
  bool stored = xpc_dictionary_set_value(xdict, key, value);
  xpc_release(value);
  return stored;
}

}  // namespace

xpc_object_t xpc_dictionary_create(const char* const* keys, const xpc_object_t* values,
                                   size_t count) noexcept {
  if ((keys == nullptr || values == nullptr) && count != 0) return nullptr;
  for (size_t i = 0; i < count; ++i) {
    if (keys[i] == nullptr || values[i] == nullptr) return nullptr;
  }
  auto* dictionary = new (std::nothrow) Dictionary();
  if (dictionary == nullptr) return nullptr;
  for (size_t i = 0; i < count; ++i) xpc_dictionary_set_value(dictionary, keys[i], values[i]);
  return dictionary;
}

bool xpc_dictionary_set_value(xpc_object_t xdict, const char* key, xpc_object_t value) noexcept {
  auto* dictionary = As<Dictionary>(xdict, XPC_TYPE_DICTIONARY);
  if (dictionary == nullptr || key == nullptr || value == xdict) return false;
  xpc_object_t dropped = nullptr;
  {
    std::lock_guard lock(dictionary->mutex);
    auto& entries = dictionary->entries;
    const std::string_view wanted(key);
    // Dictionaries are mostly filled in key order (from a hash, from the
    // wire): a key past the last one goes at the end after one comparison.
    const bool last = entries.empty() || entries.rbegin()->first < wanted;
    auto found = last ? entries.end() : entries.lower_bound(wanted);
    const bool present = found != entries.end() && found->first == wanted;
    if (value == nullptr) {
      if (present) {
        dropped = found->second;
        entries.erase(found);
      }
    } else if (present) {
      dropped = found->second;
      found->second = xpc_retain(value);
    } else {
      entries.emplace_hint(found, key, xpc_retain(value));
    }
  }
  // Outside the lock: the last release of a container frees its whole subtree.
  xpc_release(dropped);
  return true;
}

xpc_object_t xpc_dictionary_get_value(xpc_object_t xdict, const char* key) noexcept {
  auto* dictionary = As<Dictionary>(xdict, XPC_TYPE_DICTIONARY);
  if (dictionary == nullptr || key == nullptr) return nullptr;
  std::lock_guard lock(dictionary->mutex);
  auto found = dictionary->entries.find(std::string_view(key));
  return found != dictionary->entries.end() ? found->second : nullptr;
}

size_t xpc_dictionary_get_count(xpc_object_t xdict) noexcept {
  auto* dictionary = As<Dictionary>(xdict, XPC_TYPE_DICTIONARY);
  if (dictionary == nullptr) return 0;
  std::lock_guard lock(dictionary->mutex);
  return dictionary->entries.size();
}

bool xpc_dictionary_apply(xpc_object_t xdict, const xpc_dictionary_applier_t& applier) noexcept {
  auto* dictionary = As<Dictionary>(xdict, XPC_TYPE_DICTIONARY);
  if (dictionary == nullptr) return false;
  auto entries = SnapshotDictionary(*dictionary);
  bool completed = true;
  for (size_t i = 0; completed && i < entries.size(); ++i) {
    completed = applier(entries[i].first.c_str(), entries[i].second);
  }
  ReleaseAll(entries);
  return completed;
}

bool xpc_dictionary_set_bool(xpc_object_t xdict, const char* key, bool value) noexcept {
  return StoreScalar(xdict, key, xpc_bool_create(value));
}

bool xpc_dictionary_set_int64(xpc_object_t xdict, const char* key, int64_t value) noexcept {
  return StoreScalar(xdict, key, xpc_int64_create(value));
}

bool xpc_dictionary_set_uint64(xpc_object_t xdict, const char* key, uint64_t value) noexcept {
  return StoreScalar(xdict, key, xpc_uint64_create(value));
}

bool xpc_dictionary_set_double(xpc_object_t xdict, const char* key, double value) noexcept {
  return StoreScalar(xdict, key, xpc_double_create(value));
}

bool xpc_dictionary_set_string(xpc_object_t xdict, const char* key, const char* string) noexcept {
  return StoreScalar(xdict, key, xpc_string_create(string));
}

bool xpc_dictionary_get_bool(xpc_object_t xdict, const char* key) noexcept {
  return xpc_bool_get_value(xpc_dictionary_get_value(xdict, key));
}

int64_t xpc_dictionary_get_int64(xpc_object_t xdict, const char* key) noexcept {
  return xpc_int64_get_value(xpc_dictionary_get_value(xdict, key));
}

uint64_t xpc_dictionary_get_uint64(xpc_object_t xdict, const char* key) noexcept {
  return xpc_uint64_get_value(xpc_dictionary_get_value(xdict, key));
}

double xpc_dictionary_get_double(xpc_object_t xdict, const char* key) noexcept {
  return xpc_double_get_value(xpc_dictionary_get_value(xdict, key));
}

const char* xpc_dictionary_get_string(xpc_object_t xdict, const char* key) noexcept {
  if (xpc_get_type(xdict) == XPC_TYPE_ERROR) {
    return key != nullptr && std::string_view(key) == XPC_ERROR_KEY_DESCRIPTION
               ? ErrorDescription(xdict)
               : nullptr;
  }
  return xpc_string_get_string_ptr(xpc_dictionary_get_value(xdict, key));
}
