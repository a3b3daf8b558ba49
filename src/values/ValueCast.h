#pragma once

// Casts from IValue to the library's own value classes for the paths that
// run on every read. IValue is a virtual base, so dynamic_cast walks the
// class hierarchy each time; but the IValue part of every object of one final
// class sits at the same offset, so once the type is known to match exactly,
// the object is one subtraction away.

#include <cstddef>
#include <memory>
#include <typeinfo>

#include "qelss/values/IValue.h"
#include "values/Array.h"
#include "values/Hash.h"
#include "values/Number.h"
#include "values/String.h"

namespace QelSS {

// `value` as the final class Concrete when that is exactly its class; null
// otherwise (also for null).
template <typename Concrete>
const Concrete* ExactCast(const IValue* value) noexcept {
  if (value == nullptr || typeid(*value) != typeid(Concrete)) return nullptr;
  static const std::ptrdiff_t offset =
      reinterpret_cast<const char*>(value) -
      reinterpret_cast<const char*>(dynamic_cast<const Concrete*>(value));
  return reinterpret_cast<const Concrete*>(reinterpret_cast<const char*>(value) - offset);
}

// `value` as Interface: through Concrete when that is its class, through
// dynamic_cast for any other implementation.
template <typename Interface, typename Concrete>
const Interface* FastCast(const IValue* value) noexcept {
  if (const Concrete* exact = ExactCast<Concrete>(value)) return exact;
  return dynamic_cast<const Interface*>(value);
}

// Shares ownership with `value` as Interface, or null. The type tag answers
// the common "no" before any cast is tried: a failing dynamic_cast is the
// slowest of all, since it walks the whole hierarchy.
template <typename Interface, typename Concrete, uint32_t kTag>
std::shared_ptr<Interface> FastPointerCast(const std::shared_ptr<IValue>& value) noexcept {
  if (value == nullptr || value->GetType() != kTag) return nullptr;
  const Interface* raw = FastCast<Interface, Concrete>(value.get());
  if (raw == nullptr) return nullptr;
  return std::shared_ptr<Interface>(value, const_cast<Interface*>(raw));
}

inline std::shared_ptr<IHash> AsHash(const std::shared_ptr<IValue>& value) noexcept {
  return FastPointerCast<IHash, Hash, kValueTypeHash>(value);
}
inline std::shared_ptr<IArray> AsArray(const std::shared_ptr<IValue>& value) noexcept {
  return FastPointerCast<IArray, Array, kValueTypeArray>(value);
}
inline std::shared_ptr<INumber> AsNumber(const std::shared_ptr<IValue>& value) noexcept {
  return FastPointerCast<INumber, Number, kValueTypeNumber>(value);
}
inline std::shared_ptr<IString> AsString(const std::shared_ptr<IValue>& value) noexcept {
  return FastPointerCast<IString, String, kValueTypeString>(value);
}

}  // namespace QelSS
