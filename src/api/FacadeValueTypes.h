#pragma once

// The facade's value types in one list, for the explicit instantiations of the
// templates that take a FacadeValue: a type added to the concept is added here,
// and every such template then has it.

#include "qelss/api/IQSSDomain.h"

#define QELSS_FOR_EACH_FACADE_VALUE(X) \
  X(bool)                              \
  X(long long)                         \
  X(long)                              \
  X(unsigned long long)                \
  X(double)                            \
  X(std::string)                       \
  X(std::vector<unsigned char>)        \
  X(std::shared_ptr<QelSS::IValue>)    \
  X(std::shared_ptr<QelSS::IString>)   \
  X(std::shared_ptr<QelSS::IData>)     \
  X(std::shared_ptr<QelSS::IUUID>)     \
  X(std::shared_ptr<QelSS::IHash>)     \
  X(std::shared_ptr<QelSS::IArray>)    \
  X(std::shared_ptr<QelSS::IValueSerialize>)

namespace QelSS::facade_detail {
#define QELSS_CHECK_FACADE_VALUE(T) static_assert(FacadeValue<T>);
QELSS_FOR_EACH_FACADE_VALUE(QELSS_CHECK_FACADE_VALUE)
#undef QELSS_CHECK_FACADE_VALUE
}  // namespace QelSS::facade_detail
