#pragma once

#include <concepts>
#include <cstddef>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "qelss/Export.h"
#include "qelss/values/IArray.h"
#include "qelss/values/IData.h"
#include "qelss/values/IDate.h"
#include "qelss/values/IHash.h"
#include "qelss/values/INull.h"
#include "qelss/values/INumber.h"
#include "qelss/values/IString.h"
#include "qelss/values/IUUID.h"
#include "qelss/values/IValue.h"
#include "qelss/values/IValueSerialize.h"

namespace QelSS {

// True when T is exactly one of Ts. The typed helpers accept only the types they
// list, so that a near miss (int, unsigned long, char*) fails to compile instead
// of quietly becoming another kind of value.
template <typename T, typename... Ts>
concept OneOf = (std::same_as<T, Ts> || ...);

// Shared pointers to the interfaces a value can be reached through.
template <typename T>
concept ValuePointer =
    OneOf<T, std::shared_ptr<IValue>, std::shared_ptr<IHash>, std::shared_ptr<INumber>,
          std::shared_ptr<IArray>, std::shared_ptr<IString>, std::shared_ptr<IUUID>,
          std::shared_ptr<IData>, std::shared_ptr<IDate>, std::shared_ptr<INull>,
          std::shared_ptr<IValueSerialize>>;

// Plain types ValueHelper::Get reads, and the value each must be:
//   bool                        Number of kind bool
//   long long                   Number of kind int64
//   unsigned long long          Number of kind uint64
//   double                      Number of kind double
//   short                       Number of kind int64, low 16 bits (no range check)
//   unsigned short              Number of kind uint64, low 16 bits (no range check)
//   unsigned char               Number of kind uint64, low 8 bits (no range check)
//   long                        Date: whole seconds since 1970 (IDate::GetTime)
//   std::string                 String, copied
//   std::vector<unsigned char>  Data, copied
//
// `long` is a date throughout the library. On this platform int64_t is `long`,
// so an int64_t reads and writes a date: use `long long` for int64 numbers.
template <typename T>
concept ValuePlainReadable =
    OneOf<T, bool, long long, unsigned long long, double, short, unsigned short, unsigned char,
          long, std::string, std::vector<unsigned char>>;

template <typename T>
concept ValueReadable = ValuePlainReadable<T> || ValuePointer<T>;

// Types ValueHelper::Set turns into a new value, and the value made:
//   bool, long long, unsigned long long, double   Number of that kind
//   std::string, const char*                      String
//   std::vector<unsigned char>                    Data
//   long                                          Date from seconds since 1970
// and every ValuePointer, which is shared rather than copied.
template <typename T>
concept ValueWritable = OneOf < T,
        bool, long long, unsigned long long, double, std::string, const char*,
        std::vector<unsigned char>,
long > || ValuePointer<T>;

// Conversions between a generic value and plain types or typed value pointers.
// Stateless; every function is safe to call from any thread (values are shared,
// and a container locks itself). Unsupported types do not compile.
class QELSS_EXPORT ValueHelper {
 public:
  ValueHelper() = delete;

  // Plain T: `value` must be of the kind listed at ValuePlainReadable. A null
  // `value` or a value of another type gives kInvalidData; a number of another
  // kind gives kInvalidType (kinds are never converted: a short cannot be read
  // from a uint64 number). `out` is written only on kSuccess.
  //
  // std::shared_ptr<I>: `out` shares `value` when it implements I (any value
  // for IValue). A null `value` gives kInvalidArgument, a value of another type
  // kInvalidData; in both cases `out` is reset to null.
  //
  // A date before 1970 reads as a very large `long`, as IDate::GetTime does.
  template <ValueReadable T>
  [[nodiscard]] static std::error_code Get(const std::shared_ptr<IValue>& value, T& out);

  // `out` shares `value` when it implements I. A null `value` or a value of
  // another type gives kInvalidData and resets `out` to null. `value` keeps its
  // reference either way.
  template <ValuePointer T>
  [[nodiscard]] static std::error_code Move(const std::shared_ptr<IValue>& value, T& out);

  // Makes a new value from `in` (see ValueWritable) and stores it in `out`,
  // releasing what `out` held. A failing factory's code is returned with `out`
  // untouched: kInvalidArgument for a null C string, kInvalidArgument for a
  // `long` beyond the dates that can be stored (about the years 1678 to 2262).
  // A pointer `in` is shared, not copied; a null pointer, or an IValueSerialize
  // that is not a value, gives kInvalidArgument with `out` untouched.
  template <ValueWritable T>
  [[nodiscard]] static std::error_code Set(const T& in, std::shared_ptr<IValue>& out);

  // A string literal, as const char*.
  template <std::size_t N>
  [[nodiscard]] static std::error_code Set(const char (&in)[N], std::shared_ptr<IValue>& out) {
    return Set<const char*>(in, out);
  }
};

}  // namespace QelSS
