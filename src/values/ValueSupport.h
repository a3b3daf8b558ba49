#pragma once

// Steps that every value class and value factory shares: the factory pattern,
// text descriptions, byte-form round trips and the reporting of unexpected
// exceptions.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "qelss/platform/ErrorCode.h"
#include "qelss/values/Exceptions.h"
#include "qelss/values/IValue.h"

namespace QelSS {

// Constructs a Concrete value into `out`. A DataTypeException becomes the
// result with `out` untouched; any other exception ends the process.
template <typename Concrete, typename Interface, typename... Args>
std::error_code MakeValue(std::shared_ptr<Interface>& out, Args&&... args) noexcept {
  std::error_code result = kFailure;
  try {
    out = std::make_shared<Concrete>(std::forward<Args>(args)...);
    result = kSuccess;
  } catch (const DataTypeException& exception) {
    result = exception.code();
  }
  return result;
}

// `text` right-aligned in a field `indent` wider than itself, into `out`.
// Exceptions are reported with `componentTag` and give kFailure, `out` untouched.
std::error_code DescribeText(std::string_view text, unsigned int indent, uint32_t componentTag,
                             std::string& out) noexcept;

// Clones `value`, writes the clone's byte form and replaces `bytes` with it on
// success. A DataTypeException becomes the result; other exceptions are
// reported with `componentTag` and give kFailure.
std::error_code SerializeValue(const IValue& value, uint32_t componentTag,
                               std::vector<uint8_t>& bytes) noexcept;

// Reads a value tree from `bytes` through the installed codec.
std::error_code DeserializeValue(const std::vector<uint8_t>& bytes, uint32_t componentTag,
                                 std::shared_ptr<IValue>& value) noexcept;

// The factories' CreateFromBytes: a read failure leaves `out` untouched;
// otherwise `out` takes the result cast to I, empty when the cast fails, which
// gives kInvalidData.
template <typename I>
std::error_code CreateValueFromBytes(std::shared_ptr<I>& out, const std::vector<uint8_t>& bytes,
                                     uint32_t componentTag) noexcept {
  std::shared_ptr<IValue> value;
  std::error_code result = DeserializeValue(bytes, componentTag, value);
  if (!Succeeded(result)) return result;
  out = std::dynamic_pointer_cast<I>(value);
  return out ? make_error_code(kSuccess) : make_error_code(kInvalidData);
}

}  // namespace QelSS
