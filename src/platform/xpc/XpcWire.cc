// Wire form of one object, all integers little-endian:
//
//   object     = tag payload
//   tag        = one byte:
//     0x00 null        (no payload)
//     0x01 false       (no payload)
//     0x02 true        (no payload)
//     0x03 int64       8 bytes, two's complement
//     0x04 uint64      8 bytes
//     0x05 double      8 bytes, the IEEE 754 bit pattern
//     0x06 string      u32 length, that many bytes of text (no NUL among them)
//     0x07 data        u32 length, that many bytes
//     0x08 date        8 bytes, signed nanoseconds since 1970-01-01 UTC
//     0x09 uuid        16 bytes
//     0x0A array       u32 count, that many objects
//     0x0B dictionary  u32 count, that many entries; entry = u32 key length,
//                      key bytes (no NUL), object; keys strictly ascending
//                      in byte order, so one dictionary has one form
//
// A reader accepts exactly one object covering all its bytes.

#include "platform/xpc/XpcWire.h"

#include <cstring>
#include <new>
#include <string_view>

#include "qelss/platform/ErrorCode.h"

namespace QelSS::xpc {
namespace {

enum Tag : uint8_t {
  kTagNull = 0x00,
  kTagFalse = 0x01,
  kTagTrue = 0x02,
  kTagInt64 = 0x03,
  kTagUInt64 = 0x04,
  kTagDouble = 0x05,
  kTagString = 0x06,
  kTagData = 0x07,
  kTagDate = 0x08,
  kTagUuid = 0x09,
  kTagArray = 0x0A,
  kTagDictionary = 0x0B,
};

void PutU32(std::vector<uint8_t>& out, uint32_t v) {
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

void PutU64(std::vector<uint8_t>& out, uint64_t v) {
  for (int i = 0; i < 8; ++i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

void PutBytes(std::vector<uint8_t>& out, const void* bytes, size_t length) {
  const auto* p = static_cast<const uint8_t*>(bytes);
  out.insert(out.end(), p, p + length);
}

bool Encode(xpc_object_t object, std::vector<uint8_t>& out, size_t depth);

bool EncodeArray(xpc_object_t array, std::vector<uint8_t>& out, size_t depth) {
  out.push_back(kTagArray);
  PutU32(out, static_cast<uint32_t>(xpc_array_get_count(array)));
  // The count was taken before the walk; a container that another thread
  // changes meanwhile is the caller's fault, but must not give a form whose
  // count lies.
  size_t written = 0;
  const size_t countAt = out.size() - 4;
  bool ok = xpc_array_apply(array, [&](size_t, xpc_object_t value) {
    ++written;
    return Encode(value, out, depth + 1);
  });
  for (int i = 0; i < 4; ++i) out[countAt + i] = static_cast<uint8_t>(written >> (8 * i));
  return ok;
}

bool EncodeDictionary(xpc_object_t dictionary, std::vector<uint8_t>& out, size_t depth) {
  out.push_back(kTagDictionary);
  const size_t countAt = out.size();
  PutU32(out, 0);
  size_t written = 0;
  bool ok = xpc_dictionary_apply(dictionary, [&](const char* key, xpc_object_t value) {
    const size_t length = std::strlen(key);
    PutU32(out, static_cast<uint32_t>(length));
    PutBytes(out, key, length);
    ++written;
    return Encode(value, out, depth + 1);
  });
  for (int i = 0; i < 4; ++i) out[countAt + i] = static_cast<uint8_t>(written >> (8 * i));
  return ok;
}

bool Encode(xpc_object_t object, std::vector<uint8_t>& out, size_t depth) {
  if (depth > kMaxWireDepth) return false;
  const xpc_type_t type = xpc_get_type(object);
  if (type == XPC_TYPE_NULL) {
    out.push_back(kTagNull);
  } else if (type == XPC_TYPE_BOOL) {
    out.push_back(xpc_bool_get_value(object) ? kTagTrue : kTagFalse);
  } else if (type == XPC_TYPE_INT64) {
    out.push_back(kTagInt64);
    PutU64(out, static_cast<uint64_t>(xpc_int64_get_value(object)));
  } else if (type == XPC_TYPE_UINT64) {
    out.push_back(kTagUInt64);
    PutU64(out, xpc_uint64_get_value(object));
  } else if (type == XPC_TYPE_DOUBLE) {
    const double value = xpc_double_get_value(object);
    uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    out.push_back(kTagDouble);
    PutU64(out, bits);
  } else if (type == XPC_TYPE_STRING || type == XPC_TYPE_DATA) {
    const bool isString = type == XPC_TYPE_STRING;
    const size_t length = isString ? xpc_string_get_length(object) : xpc_data_get_length(object);
    if (length > UINT32_MAX) return false;
    out.push_back(isString ? kTagString : kTagData);
    PutU32(out, static_cast<uint32_t>(length));
    PutBytes(out,
             isString ? static_cast<const void*>(xpc_string_get_string_ptr(object))
                      : xpc_data_get_bytes_ptr(object),
             length);
  } else if (type == XPC_TYPE_DATE) {
    out.push_back(kTagDate);
    PutU64(out, static_cast<uint64_t>(xpc_date_get_value(object)));
  } else if (type == XPC_TYPE_UUID) {
    out.push_back(kTagUuid);
    PutBytes(out, xpc_uuid_get_bytes(object), 16);
  } else if (type == XPC_TYPE_ARRAY) {
    return EncodeArray(object, out, depth);
  } else if (type == XPC_TYPE_DICTIONARY) {
    return EncodeDictionary(object, out, depth);
  } else {
    return false;  // NULL and the error objects have no wire form
  }
  return true;
}

// Reads one object at a time from a span, counting objects and depth.
class Reader {
 public:
  explicit Reader(std::span<const uint8_t> bytes) : bytes_(bytes) {}

  // A new reference, or NULL for malformed input (`failed_` says whether
  // memory ran out instead).
  xpc_object_t Read(size_t depth) {
    if (depth > kMaxWireDepth || ++objects_ > kMaxWireObjects) return nullptr;
    uint8_t tag = 0;
    if (!Take(&tag, 1)) return nullptr;
    switch (tag) {
      case kTagNull:
        return xpc_null_create();
      case kTagFalse:
      case kTagTrue:
        return xpc_bool_create(tag == kTagTrue);
      case kTagInt64:
      case kTagUInt64:
      case kTagDouble:
      case kTagDate:
        return ReadWord(tag);
      case kTagString:
      case kTagData:
        return ReadBytes(tag);
      case kTagUuid: {
        unsigned char uuid[16];
        return Take(uuid, 16) ? Made(xpc_uuid_create(uuid)) : nullptr;
      }
      case kTagArray:
        return ReadArray(depth);
      case kTagDictionary:
        return ReadDictionary(depth);
      default:
        return nullptr;
    }
  }

  bool AtEnd() const { return position_ == bytes_.size(); }
  bool OutOfMemory() const { return outOfMemory_; }

 private:
  bool Take(void* into, size_t length) {
    if (bytes_.size() - position_ < length) return false;
    std::memcpy(into, bytes_.data() + position_, length);
    position_ += length;
    return true;
  }

  bool TakeU32(uint32_t& v) {
    uint8_t b[4];
    if (!Take(b, 4)) return false;
    v = uint32_t(b[0]) | uint32_t(b[1]) << 8 | uint32_t(b[2]) << 16 | uint32_t(b[3]) << 24;
    return true;
  }

  // A run of `length` bytes in place, or an empty view with false when the
  // input is shorter: lengths are checked against what is there before
  // anything is allocated for them.
  bool View(uint32_t length, std::string_view& view) {
    if (bytes_.size() - position_ < length) return false;
    view = {reinterpret_cast<const char*>(bytes_.data() + position_), length};
    position_ += length;
    return true;
  }

  xpc_object_t Made(xpc_object_t object) {
    if (object == nullptr) outOfMemory_ = true;
    return object;
  }

  xpc_object_t ReadWord(uint8_t tag) {
    uint8_t b[8];
    if (!Take(b, 8)) return nullptr;
    uint64_t v = 0;
    for (int i = 7; i >= 0; --i) v = v << 8 | b[i];
    switch (tag) {
      case kTagInt64:
        return Made(xpc_int64_create(static_cast<int64_t>(v)));
      case kTagUInt64:
        return Made(xpc_uint64_create(v));
      case kTagDate:
        return Made(xpc_date_create(static_cast<int64_t>(v)));
      default: {
        double d = 0;
        std::memcpy(&d, &v, sizeof d);
        return Made(xpc_double_create(d));
      }
    }
  }

  xpc_object_t ReadBytes(uint8_t tag) {
    uint32_t length = 0;
    std::string_view view;
    if (!TakeU32(length) || !View(length, view)) return nullptr;
    if (tag == kTagData) return Made(xpc_data_create(view.data(), view.size()));
    if (view.find('\0') != std::string_view::npos) return nullptr;
    return Made(xpc_string_create(std::string(view).c_str()));
  }

  xpc_object_t ReadArray(size_t depth) {
    uint32_t count = 0;
    if (!TakeU32(count)) return nullptr;
    xpc_object_t array = Made(xpc_array_create(nullptr, 0));
    if (array == nullptr) return nullptr;
    for (uint32_t i = 0; i < count; ++i) {
      xpc_object_t item = Read(depth + 1);
      if (item == nullptr) return Drop(array);
      xpc_array_append_value(array, item);
      xpc_release(item);
    }
    return array;
  }

  xpc_object_t ReadDictionary(size_t depth) {
    uint32_t count = 0;
    if (!TakeU32(count)) return nullptr;
    xpc_object_t dictionary = Made(xpc_dictionary_create(nullptr, nullptr, 0));
    if (dictionary == nullptr) return nullptr;
    std::string previous;
    for (uint32_t i = 0; i < count; ++i) {
      uint32_t length = 0;
      std::string_view key;
      if (!TakeU32(length) || !View(length, key)) return Drop(dictionary);
      if (key.find('\0') != std::string_view::npos) return Drop(dictionary);
      if (i > 0 && !(std::string_view(previous) < key)) return Drop(dictionary);
      previous.assign(key);
      xpc_object_t value = Read(depth + 1);
      if (value == nullptr) return Drop(dictionary);
      xpc_dictionary_set_value(dictionary, previous.c_str(), value);
      xpc_release(value);
    }
    return dictionary;
  }

  static xpc_object_t Drop(xpc_object_t container) {
    xpc_release(container);
    return nullptr;
  }

  std::span<const uint8_t> bytes_;
  size_t position_ = 0;
  size_t objects_ = 0;
  bool outOfMemory_ = false;
};

}  // namespace

std::error_code EncodeWire(xpc_object_t object, std::vector<uint8_t>& out) {
  const size_t before = out.size();
  try {
    if (object != nullptr && Encode(object, out, 0)) return make_error_code(kSuccess);
  } catch (const std::bad_alloc&) {
    out.resize(before);
    return make_error_code(kAllocationFailed);
  }
  out.resize(before);
  return make_error_code(kInvalidArgument);
}

std::error_code DecodeWire(std::span<const uint8_t> bytes, xpc_object_t& out) {
  Reader reader(bytes);
  xpc_object_t object = nullptr;
  try {
    object = reader.Read(0);
  } catch (const std::bad_alloc&) {
    return make_error_code(kAllocationFailed);
  }
  if (object == nullptr) {
    return make_error_code(reader.OutOfMemory() ? kAllocationFailed : kInvalidData);
  }
  if (!reader.AtEnd()) {
    xpc_release(object);
    return make_error_code(kInvalidData);
  }
  out = object;
  return make_error_code(kSuccess);
}

}  // namespace QelSS::xpc
