#include "qelss/values/ArrayHelper.h"

namespace QelSS {
namespace {

using ArrayPtr = std::shared_ptr<IArray>;
using Bytes = std::vector<unsigned char>;

// Makes the value for `in` and hands it to `operation` on the array.
template <typename T, typename Operation>
std::error_code WithValue(const ArrayPtr& array, const T& in, Operation operation) {
  if (!array) return kInvalidArgument;
  std::shared_ptr<IValue> value;
  std::error_code result = ValueHelper::Set(in, value);
  if (!Succeeded(result)) return result;
  return operation(*array, value);
}

}  // namespace

template <ArrayElement T>
std::error_code ArrayHelper::AppendObject(const std::shared_ptr<IArray>& array, const T& in) {
  return WithValue(array, in,
                   [](IArray& a, const std::shared_ptr<IValue>& v) { return a.Append(v); });
}

template <ArrayElement T>
std::error_code ArrayHelper::RemoveObject(const std::shared_ptr<IArray>& array, const T& in) {
  return WithValue(array, in,
                   [](IArray& a, const std::shared_ptr<IValue>& v) { return a.Remove(v); });
}

template <ArrayElement T>
std::error_code ArrayHelper::ContainsObject(const std::shared_ptr<IArray>& array, const T& in) {
  return WithValue(array, in,
                   [](const IArray& a, const std::shared_ptr<IValue>& v) { return a.Contains(v); });
}

template std::error_code ArrayHelper::AppendObject(const ArrayPtr&, const bool&);
template std::error_code ArrayHelper::AppendObject(const ArrayPtr&, const long long&);
template std::error_code ArrayHelper::AppendObject(const ArrayPtr&, const unsigned long long&);
template std::error_code ArrayHelper::AppendObject(const ArrayPtr&, const double&);
template std::error_code ArrayHelper::AppendObject(const ArrayPtr&, const std::string&);
template std::error_code ArrayHelper::AppendObject(const ArrayPtr&, const long&);
template std::error_code ArrayHelper::AppendObject(const ArrayPtr&, const Bytes&);
template std::error_code ArrayHelper::AppendObject(const ArrayPtr&, const std::shared_ptr<IValue>&);

template std::error_code ArrayHelper::RemoveObject(const ArrayPtr&, const bool&);
template std::error_code ArrayHelper::RemoveObject(const ArrayPtr&, const long long&);
template std::error_code ArrayHelper::RemoveObject(const ArrayPtr&, const unsigned long long&);
template std::error_code ArrayHelper::RemoveObject(const ArrayPtr&, const double&);
template std::error_code ArrayHelper::RemoveObject(const ArrayPtr&, const std::string&);
template std::error_code ArrayHelper::RemoveObject(const ArrayPtr&, const long&);
template std::error_code ArrayHelper::RemoveObject(const ArrayPtr&, const Bytes&);
template std::error_code ArrayHelper::RemoveObject(const ArrayPtr&, const std::shared_ptr<IValue>&);

template std::error_code ArrayHelper::ContainsObject(const ArrayPtr&, const bool&);
template std::error_code ArrayHelper::ContainsObject(const ArrayPtr&, const long long&);
template std::error_code ArrayHelper::ContainsObject(const ArrayPtr&, const unsigned long long&);
template std::error_code ArrayHelper::ContainsObject(const ArrayPtr&, const double&);
template std::error_code ArrayHelper::ContainsObject(const ArrayPtr&, const std::string&);
template std::error_code ArrayHelper::ContainsObject(const ArrayPtr&, const long&);
template std::error_code ArrayHelper::ContainsObject(const ArrayPtr&, const Bytes&);
template std::error_code ArrayHelper::ContainsObject(const ArrayPtr&,
                                                     const std::shared_ptr<IValue>&);

}  // namespace QelSS
