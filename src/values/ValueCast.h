#pragma once

// Casts from IValue to the library's own value classes for the paths that
// run on every read. IValue is a virtual base, so dynamic_cast walks the
// class hierarchy each time; but the IValue part of every object of one final
// class sits at the same offset, so once the type is known to match exactly,
// the object is one subtraction away.

#include <cstddef>
#include <typeinfo>

#include "qelss/values/IValue.h"

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

}  // namespace QelSS
