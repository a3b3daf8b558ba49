#include "values/ContainerSupport.h"

#include "platform/dispatch/MakeQueue.h"
#include "qelss/values/ArrayFactory.h"
#include "qelss/values/DataFactory.h"
#include "qelss/values/DateFactory.h"
#include "qelss/values/HashFactory.h"
#include "qelss/values/NullFactory.h"
#include "qelss/values/NumberFactory.h"
#include "qelss/values/StringFactory.h"
#include "qelss/values/UUIDFactory.h"

namespace QelSS {
namespace {

// Runs one factory into a typed pointer and widens it into `out` on success.
template <typename I, typename Make>
std::error_code Widen(std::shared_ptr<IValue>& out, Make&& make) {
  std::shared_ptr<I> typed;
  std::error_code result = make(typed);
  if (Succeeded(result)) out = std::move(typed);
  return result;
}

}  // namespace

std::error_code CreateContainerQueue(const char* label,
                                     std::shared_ptr<DispatchQueue::IQueue>& out) noexcept {
  return platform::MakeQueue(out, DispatchQueue::kQueueTypeSerial, label, kContainerQueueQos);
}

std::error_code OwnCopy(const std::shared_ptr<IValue>& value, std::shared_ptr<IValue>& out) {
  if (value == nullptr || !IsContainer(*value)) {
    out = value;
    return kSuccess;
  }
  return value->Clone(out);
}

void AppendAligned(std::string& out, std::string_view text, unsigned int width) {
  if (text.size() < width) out.append(width - text.size(), ' ');
  out.append(text);
}

void AppendOpeningBrace(std::string& out, unsigned int indent) {
  if (indent != 0) out += '\n';
  AppendAligned(out, "{", indent);
  out += '\n';
}

void AppendClosingBrace(std::string& out, unsigned int indent) {
  out += '\n';
  AppendAligned(out, "}", indent);
}

std::error_code MakeValueFromPlatform(xpc_object_t object, std::shared_ptr<IValue>& out) noexcept {
  void* raw = object;
  const xpc_type_t type = xpc_get_type(object);
  if (type == XPC_TYPE_DICTIONARY) {
    return Widen<IHash>(out, [&](auto& typed) { return HashFactory::Create(typed, raw); });
  }
  if (type == XPC_TYPE_ARRAY) {
    return Widen<IArray>(out, [&](auto& typed) { return ArrayFactory::Create(typed, raw); });
  }
  if (type == XPC_TYPE_BOOL || type == XPC_TYPE_INT64 || type == XPC_TYPE_UINT64 ||
      type == XPC_TYPE_DOUBLE) {
    return Widen<INumber>(out, [&](auto& typed) { return NumberFactory::Create(typed, raw); });
  }
  if (type == XPC_TYPE_STRING) {
    return Widen<IString>(out, [&](auto& typed) { return StringFactory::Create(typed, raw); });
  }
  if (type == XPC_TYPE_DATA) {
    return Widen<IData>(out, [&](auto& typed) { return DataFactory::Create(typed, raw); });
  }
  if (type == XPC_TYPE_DATE) {
    return Widen<IDate>(out, [&](auto& typed) { return DateFactory::Create(typed, raw); });
  }
  if (type == XPC_TYPE_UUID) {
    return Widen<IUUID>(out, [&](auto& typed) { return UUIDFactory::Create(typed, raw); });
  }
  if (type == XPC_TYPE_NULL) {
    return Widen<INull>(out, [&](auto& typed) { return NullFactory::Create(typed, raw); });
  }
  return kInvalidType;
}

}  // namespace QelSS
