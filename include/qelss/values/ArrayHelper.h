#pragma once

#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "qelss/Export.h"
#include "qelss/values/IArray.h"
#include "qelss/values/IValue.h"
#include "qelss/values/ValueHelper.h"

namespace QelSS {

// Plain types ArrayHelper adds, removes and finds; the value made from each is
// that of ValueHelper::Set (`long` is a date).
template <typename T>
concept ArrayElement = OneOf<T, bool, long long, unsigned long long, double, std::string, long,
                             std::vector<unsigned char>, std::shared_ptr<IValue>>;

// Works with array elements as plain types. Stateless and safe from any thread:
// each call is one operation on the array, which locks itself. Every function
// gives kInvalidArgument for a null array, and a failure to make the value from
// `in` is returned with the array unchanged.
class QELSS_EXPORT ArrayHelper {
 public:
  ArrayHelper() = delete;

  // Appends a value made from `in`.
  template <ArrayElement T>
  [[nodiscard]] static std::error_code AppendObject(const std::shared_ptr<IArray>& array,
                                                    const T& in);

  // Removes every element equal to a value made from `in`, keeping the order of
  // the rest; kNotFound when none is equal. Equality includes the number kind:
  // removing 5LL leaves a uint64 5 in place.
  template <ArrayElement T>
  [[nodiscard]] static std::error_code RemoveObject(const std::shared_ptr<IArray>& array,
                                                    const T& in);

  // kSuccess when some element is equal to a value made from `in`, kNotFound
  // otherwise.
  template <ArrayElement T>
  [[nodiscard]] static std::error_code ContainsObject(const std::shared_ptr<IArray>& array,
                                                      const T& in);
};

}  // namespace QelSS
