#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "qelss/Export.h"
#include "qelss/values/IArray.h"
#include "qelss/values/IData.h"
#include "qelss/values/IHash.h"
#include "qelss/values/IString.h"
#include "qelss/values/IUUID.h"
#include "qelss/values/IValue.h"
#include "qelss/values/ValueHelper.h"

namespace QelSS {

// Types HashHelper::Get reads from a key; conversions as for ValueHelper::Get.
template <typename T>
concept HashReadable = OneOf < T,
        bool, long long, unsigned long long, double, std::string, long, std::vector<unsigned char>,
short, unsigned short, std::shared_ptr<IValue>, std::shared_ptr<IArray>, std::shared_ptr<IHash>,
    std::shared_ptr<IUUID>, std::shared_ptr<IString>, std::shared_ptr < IData >>
    ;

// Types HashHelper::Set stores under a key. As for ValueHelper::Set, and:
// short is stored as an int64 number (sign-extended), unsigned short as a
// uint64 number.
template <typename T>
concept HashWritable = OneOf < T,
        bool, long long, unsigned long long, double, std::string, const char*, long,
        std::vector<unsigned char>,
short, unsigned short, std::shared_ptr<IValue>, std::shared_ptr<IArray>, std::shared_ptr<IHash>,
    std::shared_ptr<IUUID>, std::shared_ptr < IData >>
    ;

// Reads and writes one key of a hash as a plain type. Stateless and safe from
// any thread: each call is one Get or one Set on the hash, which locks itself.
class QELSS_EXPORT HashHelper {
 public:
  HashHelper() = delete;

  // Reads the value under `key` and converts it with ValueHelper::Get<T>.
  // kInvalidArgument for a null hash and kNotFound for an absent key, both with
  // `out` untouched; otherwise ValueHelper::Get's result and its rules for `out`
  // (a pointer `out` is reset on a type mismatch).
  template <HashReadable T>
  [[nodiscard]] static std::error_code Get(const std::shared_ptr<IHash>& hash,
                                           const std::string& key, T& out);

  // Makes a value from `in` with ValueHelper::Set<T> and sets it under `key`,
  // replacing what was there. kInvalidArgument for a null hash; a failure to
  // make the value is returned with the hash unchanged.
  template <HashWritable T>
  [[nodiscard]] static std::error_code Set(const std::shared_ptr<IHash>& hash,
                                           const std::string& key, const T& in);

  // A string literal, as const char*.
  template <std::size_t N>
  [[nodiscard]] static std::error_code Set(const std::shared_ptr<IHash>& hash,
                                           const std::string& key, const char (&in)[N]) {
    return Set<const char*>(hash, key, in);
  }
};

}  // namespace QelSS
