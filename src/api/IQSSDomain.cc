#include "qelss/api/IQSSDomain.h"

#include "api/FacadeReport.h"
#include "api/FacadeValueTypes.h"
#include "qelss/platform/ErrorCode.h"

namespace QelSS {

IQSSDomain::~IQSSDomain() = default;

template <FacadeValue T>
std::error_code IQSSDomain::Get(const char* key, T& value) const {
  try {
    std::shared_ptr<IValue> stored;
    const std::error_code rc = ReadValue(key, stored);
    if (!Succeeded(rc)) return rc;
    return ValueHelper::Get(stored, value);
  } catch (...) {
    return ReportTypedException("Get");
  }
}

template <FacadeValue T>
std::error_code IQSSDomain::Set(const char* key, const T& value) {
  try {
    return WriteValue(
        key, [&value](std::shared_ptr<IValue>& out) { return ValueHelper::Set(value, out); });
  } catch (...) {
    return ReportTypedException("Set");
  }
}

template <FacadeValue T>
std::error_code IQSSDomain::SetCommit(const char* key, const T& value) {
  try {
    return WriteValueAndCommit(
        key, [&value](std::shared_ptr<IValue>& out) { return ValueHelper::Set(value, out); });
  } catch (...) {
    return ReportTypedException("SetCommit");
  }
}

#define QELSS_FACADE_INSTANTIATE(T)                                \
  template std::error_code IQSSDomain::Get(const char*, T&) const; \
  template std::error_code IQSSDomain::Set(const char*, const T&); \
  template std::error_code IQSSDomain::SetCommit(const char*, const T&);

QELSS_FOR_EACH_FACADE_VALUE(QELSS_FACADE_INSTANTIATE)

#undef QELSS_FACADE_INSTANTIATE

}  // namespace QelSS
