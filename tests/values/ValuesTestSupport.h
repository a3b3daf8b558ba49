#pragma once

// Values made in one call, and trees written as nested initializer lists, for
// every suite that needs a value to hand.

#include <gtest/gtest.h>

#include <initializer_list>
#include <memory>
#include <string>
#include <utility>

#include "qelss/values/ArrayFactory.h"
#include "qelss/values/HashFactory.h"
#include "qelss/values/INumber.h"
#include "qelss/values/IString.h"
#include "qelss/values/IValueInternal.h"
#include "qelss/values/StringFactory.h"
#include "qelss/values/ValueHelper.h"

namespace QelSS::testing {

inline const std::error_code kOk = make_error_code(kSuccess);

// The value ValueHelper makes of `in`: long long, unsigned long long, bool and
// double make numbers, long a date, strings a string, byte vectors data.
template <typename T>
std::shared_ptr<IValue> V(const T& in) {
  std::shared_ptr<IValue> value;
  EXPECT_EQ(ValueHelper::Set(in, value), kOk);
  return value;
}

inline std::shared_ptr<IValue> Int(long long value) { return V(value); }
inline std::shared_ptr<IValue> Text(const std::string& text) { return V(text); }

inline std::shared_ptr<IString> Key(const char* text) {
  std::shared_ptr<IString> string;
  EXPECT_EQ(StringFactory::Create(string, text), kOk);
  return string;
}

using Entry = std::pair<const char*, std::shared_ptr<IValue>>;

inline std::shared_ptr<IHash> MakeHash(std::initializer_list<Entry> entries = {}) {
  std::shared_ptr<IHash> hash;
  EXPECT_EQ(HashFactory::Create(hash), kOk);
  for (const auto& [key, value] : entries) EXPECT_EQ(hash->Set(key, value), kOk);
  return hash;
}

inline std::shared_ptr<IArray> MakeArray(
    std::initializer_list<std::shared_ptr<IValue>> elements = {}) {
  std::shared_ptr<IArray> array;
  EXPECT_EQ(ArrayFactory::Create(array), kOk);
  for (const auto& element : elements) EXPECT_EQ(array->Append(element), kOk);
  return array;
}

inline std::shared_ptr<IValue> GetKey(const IHash& hash, const char* key) {
  std::shared_ptr<IValue> value;
  EXPECT_EQ(hash.Get(key, value), kOk) << key;
  return value;
}

inline long long IntAt(const IHash& hash, const char* key) {
  int64_t number = -1;
  auto value = std::dynamic_pointer_cast<INumber>(GetKey(hash, key));
  EXPECT_TRUE(value && value->GetInt64(number) == kOk) << key;
  return number;
}

inline std::string Describe(const IValue& value, unsigned int indent = 0) {
  std::string text = "untouched";
  EXPECT_EQ(value.Description(text, indent), kOk);
  return text;
}

inline std::shared_ptr<IValue> CloneOf(const std::shared_ptr<IValue>& value) {
  std::shared_ptr<IValue> clone;
  EXPECT_EQ(value->Clone(clone), kOk);
  return clone;
}

inline xpc_object_t PlatformObject(const std::shared_ptr<IValue>& value) {
  return std::dynamic_pointer_cast<IValueInternal>(value)->GetXPCObject();
}

}  // namespace QelSS::testing
