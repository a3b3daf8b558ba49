#include "qelss/values/ValueHelper.h"

#include <cstdint>
#include <type_traits>
#include <utility>

#include "qelss/values/DataFactory.h"
#include "qelss/values/DateFactory.h"
#include "qelss/values/NumberFactory.h"
#include "qelss/values/StringFactory.h"
#include "values/Number.h"
#include "values/String.h"
#include "values/ValueCast.h"

namespace QelSS {
namespace {

using ValuePtr = std::shared_ptr<IValue>;
using Bytes = std::vector<unsigned char>;

template <typename T>
struct IsSharedPtr : std::false_type {};
template <typename I>
struct IsSharedPtr<std::shared_ptr<I>> : std::true_type {};

// The interface a plain type is read from; ReadAs does the read itself.
template <typename T>
struct SourceOf {
  using type = INumber;
};
template <>
struct SourceOf<long> {
  using type = IDate;
};
template <>
struct SourceOf<std::string> {
  using type = IString;
};
template <>
struct SourceOf<std::vector<unsigned char>> {
  using type = IData;
};

// The class each interface is read from on every typed read, for the cast
// that skips the walk of the class hierarchy.
template <typename I>
const I* ReadSource(const IValue* value) {
  if constexpr (std::is_same_v<I, INumber>) {
    return FastCast<INumber, Number>(value);
  } else if constexpr (std::is_same_v<I, IString>) {
    return FastCast<IString, String>(value);
  } else {
    return dynamic_cast<const I*>(value);
  }
}

std::error_code ReadAs(const INumber& number, bool& out) { return number.GetBool(out); }
std::error_code ReadAs(const INumber& number, double& out) { return number.GetDouble(out); }

template <typename T>
requires OneOf<T, long long, short> std::error_code ReadAs(const INumber& number, T& out) {
  int64_t stored = 0;
  std::error_code result = number.GetInt64(stored);
  if (Succeeded(result)) out = static_cast<T>(stored);
  return result;
}

template <typename T>
requires OneOf<T, unsigned long long, unsigned short, unsigned char> std::error_code ReadAs(
    const INumber& number, T& out) {
  uint64_t stored = 0;
  std::error_code result = number.GetUInt64(stored);
  if (Succeeded(result)) out = static_cast<T>(stored);
  return result;
}

std::error_code ReadAs(const IDate& date, long& out) {
  out = static_cast<long>(date.GetTime());
  return kSuccess;
}

std::error_code ReadAs(const IString& string, std::string& out) {
  out.assign(string.GetCString(), string.GetLength());
  return kSuccess;
}

std::error_code ReadAs(const IData& data, std::vector<unsigned char>& out) {
  out.assign(data.GetBytes(), data.GetBytes() + data.GetLength());
  return kSuccess;
}

// `out` takes the factory's new value only when the factory succeeded.
template <typename I>
std::error_code Adopt(std::error_code result, std::shared_ptr<I>& made,
                      std::shared_ptr<IValue>& out) {
  if (Succeeded(result)) out = std::move(made);
  return result;
}

template <typename T>
requires OneOf<T, bool, long long, unsigned long long, double> std::error_code Make(
    T in, std::shared_ptr<IValue>& out) {
  std::shared_ptr<INumber> made;
  return Adopt(NumberFactory::Create(made, in), made, out);
}

template <typename T>
requires OneOf<T, const char*, std::string> std::error_code Make(const T& in,
                                                                 std::shared_ptr<IValue>& out) {
  std::shared_ptr<IString> made;
  return Adopt(StringFactory::Create(made, in), made, out);
}

std::error_code Make(long in, std::shared_ptr<IValue>& out) {
  std::shared_ptr<IDate> made;
  return Adopt(DateFactory::Create(made, in), made, out);
}

std::error_code Make(const std::vector<unsigned char>& in, std::shared_ptr<IValue>& out) {
  // The data factory refuses a null pointer even for no bytes, and an empty
  // vector may well hold one.
  static const unsigned char kNoBytes = 0;
  std::shared_ptr<IData> made;
  return Adopt(DataFactory::Create(made, in.empty() ? &kNoBytes : in.data(), in.size()), made, out);
}

template <typename I>
std::error_code Share(const std::shared_ptr<I>& in, std::shared_ptr<IValue>& out) {
  std::shared_ptr<IValue> value = std::dynamic_pointer_cast<IValue>(in);
  if (!value) return kInvalidArgument;
  out = std::move(value);
  return kSuccess;
}

}  // namespace

template <ValueReadable T>
std::error_code ValueHelper::Get(const std::shared_ptr<IValue>& value, T& out) {
  if constexpr (IsSharedPtr<T>::value) {
    if (!value) {
      out.reset();
      return kInvalidArgument;
    }
    return Move(value, out);
  } else {
    const auto* source = ReadSource<typename SourceOf<T>::type>(value.get());
    if (source == nullptr) return kInvalidData;
    return ReadAs(*source, out);
  }
}

template <ValuePointer T>
std::error_code ValueHelper::Move(const std::shared_ptr<IValue>& value, T& out) {
  out = std::dynamic_pointer_cast<typename T::element_type>(value);
  return out ? make_error_code(kSuccess) : make_error_code(kInvalidData);
}

template <ValueWritable T>
std::error_code ValueHelper::Set(const T& in, std::shared_ptr<IValue>& out) {
  if constexpr (IsSharedPtr<T>::value) {
    return Share(in, out);
  } else {
    return Make(in, out);
  }
}

template std::error_code ValueHelper::Get(const ValuePtr&, bool&);
template std::error_code ValueHelper::Get(const ValuePtr&, long long&);
template std::error_code ValueHelper::Get(const ValuePtr&, unsigned long long&);
template std::error_code ValueHelper::Get(const ValuePtr&, double&);
template std::error_code ValueHelper::Get(const ValuePtr&, short&);
template std::error_code ValueHelper::Get(const ValuePtr&, unsigned short&);
template std::error_code ValueHelper::Get(const ValuePtr&, unsigned char&);
template std::error_code ValueHelper::Get(const ValuePtr&, long&);
template std::error_code ValueHelper::Get(const ValuePtr&, std::string&);
template std::error_code ValueHelper::Get(const ValuePtr&, Bytes&);
template std::error_code ValueHelper::Get(const ValuePtr&, ValuePtr&);
template std::error_code ValueHelper::Get(const ValuePtr&, std::shared_ptr<IHash>&);
template std::error_code ValueHelper::Get(const ValuePtr&, std::shared_ptr<INumber>&);
template std::error_code ValueHelper::Get(const ValuePtr&, std::shared_ptr<IArray>&);
template std::error_code ValueHelper::Get(const ValuePtr&, std::shared_ptr<IString>&);
template std::error_code ValueHelper::Get(const ValuePtr&, std::shared_ptr<IUUID>&);
template std::error_code ValueHelper::Get(const ValuePtr&, std::shared_ptr<IData>&);
template std::error_code ValueHelper::Get(const ValuePtr&, std::shared_ptr<IDate>&);
template std::error_code ValueHelper::Get(const ValuePtr&, std::shared_ptr<INull>&);
template std::error_code ValueHelper::Get(const ValuePtr&, std::shared_ptr<IValueSerialize>&);

template std::error_code ValueHelper::Move(const ValuePtr&, ValuePtr&);
template std::error_code ValueHelper::Move(const ValuePtr&, std::shared_ptr<IHash>&);
template std::error_code ValueHelper::Move(const ValuePtr&, std::shared_ptr<INumber>&);
template std::error_code ValueHelper::Move(const ValuePtr&, std::shared_ptr<IArray>&);
template std::error_code ValueHelper::Move(const ValuePtr&, std::shared_ptr<IString>&);
template std::error_code ValueHelper::Move(const ValuePtr&, std::shared_ptr<IUUID>&);
template std::error_code ValueHelper::Move(const ValuePtr&, std::shared_ptr<IData>&);
template std::error_code ValueHelper::Move(const ValuePtr&, std::shared_ptr<IDate>&);
template std::error_code ValueHelper::Move(const ValuePtr&, std::shared_ptr<INull>&);
template std::error_code ValueHelper::Move(const ValuePtr&, std::shared_ptr<IValueSerialize>&);

template std::error_code ValueHelper::Set(const bool&, ValuePtr&);
template std::error_code ValueHelper::Set(const long long&, ValuePtr&);
template std::error_code ValueHelper::Set(const unsigned long long&, ValuePtr&);
template std::error_code ValueHelper::Set(const double&, ValuePtr&);
template std::error_code ValueHelper::Set(const std::string&, ValuePtr&);
template std::error_code ValueHelper::Set(const char* const&, ValuePtr&);
template std::error_code ValueHelper::Set(const Bytes&, ValuePtr&);
template std::error_code ValueHelper::Set(const long&, ValuePtr&);
template std::error_code ValueHelper::Set(const ValuePtr&, ValuePtr&);
template std::error_code ValueHelper::Set(const std::shared_ptr<IHash>&, ValuePtr&);
template std::error_code ValueHelper::Set(const std::shared_ptr<INumber>&, ValuePtr&);
template std::error_code ValueHelper::Set(const std::shared_ptr<IArray>&, ValuePtr&);
template std::error_code ValueHelper::Set(const std::shared_ptr<IString>&, ValuePtr&);
template std::error_code ValueHelper::Set(const std::shared_ptr<IUUID>&, ValuePtr&);
template std::error_code ValueHelper::Set(const std::shared_ptr<IData>&, ValuePtr&);
template std::error_code ValueHelper::Set(const std::shared_ptr<IDate>&, ValuePtr&);
template std::error_code ValueHelper::Set(const std::shared_ptr<INull>&, ValuePtr&);
template std::error_code ValueHelper::Set(const std::shared_ptr<IValueSerialize>&, ValuePtr&);

}  // namespace QelSS
