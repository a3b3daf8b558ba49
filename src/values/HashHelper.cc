#include "qelss/values/HashHelper.h"

namespace QelSS {
namespace {

using Bytes = std::vector<unsigned char>;
using HashPtr = std::shared_ptr<IHash>;

// short and unsigned short have no value kind of their own: they travel as the
// 64-bit number of their signedness, so that -2 reads back as -2.
template <typename T>
std::error_code MakeValue(const T& in, std::shared_ptr<IValue>& out) {
  if constexpr (std::same_as<T, short>) {
    return ValueHelper::Set(static_cast<long long>(in), out);
  } else if constexpr (std::same_as<T, unsigned short>) {
    return ValueHelper::Set(static_cast<unsigned long long>(in), out);
  } else {
    return ValueHelper::Set(in, out);
  }
}

}  // namespace

template <HashReadable T>
std::error_code HashHelper::Get(const std::shared_ptr<IHash>& hash, const std::string& key,
                                T& out) {
  if (!hash) return kInvalidArgument;
  std::shared_ptr<IValue> value;
  std::error_code result = hash->Get(key.c_str(), value);
  if (!Succeeded(result)) return result;
  return ValueHelper::Get(value, out);
}

template <HashWritable T>
std::error_code HashHelper::Set(const std::shared_ptr<IHash>& hash, const std::string& key,
                                const T& in) {
  if (!hash) return kInvalidArgument;
  std::shared_ptr<IValue> value;
  std::error_code result = MakeValue(in, value);
  if (!Succeeded(result)) return result;
  return hash->Set(key.c_str(), value);
}

template std::error_code HashHelper::Get(const HashPtr&, const std::string&, bool&);
template std::error_code HashHelper::Get(const HashPtr&, const std::string&, long long&);
template std::error_code HashHelper::Get(const HashPtr&, const std::string&, unsigned long long&);
template std::error_code HashHelper::Get(const HashPtr&, const std::string&, double&);
template std::error_code HashHelper::Get(const HashPtr&, const std::string&, std::string&);
template std::error_code HashHelper::Get(const HashPtr&, const std::string&, long&);
template std::error_code HashHelper::Get(const HashPtr&, const std::string&, Bytes&);
template std::error_code HashHelper::Get(const HashPtr&, const std::string&, short&);
template std::error_code HashHelper::Get(const HashPtr&, const std::string&, unsigned short&);
template std::error_code HashHelper::Get(const HashPtr&, const std::string&,
                                         std::shared_ptr<IValue>&);
template std::error_code HashHelper::Get(const HashPtr&, const std::string&,
                                         std::shared_ptr<IArray>&);
template std::error_code HashHelper::Get(const HashPtr&, const std::string&,
                                         std::shared_ptr<IHash>&);
template std::error_code HashHelper::Get(const HashPtr&, const std::string&,
                                         std::shared_ptr<IUUID>&);
template std::error_code HashHelper::Get(const HashPtr&, const std::string&,
                                         std::shared_ptr<IString>&);
template std::error_code HashHelper::Get(const HashPtr&, const std::string&,
                                         std::shared_ptr<IData>&);

template std::error_code HashHelper::Set(const HashPtr&, const std::string&, const bool&);
template std::error_code HashHelper::Set(const HashPtr&, const std::string&, const long long&);
template std::error_code HashHelper::Set(const HashPtr&, const std::string&,
                                         const unsigned long long&);
template std::error_code HashHelper::Set(const HashPtr&, const std::string&, const double&);
template std::error_code HashHelper::Set(const HashPtr&, const std::string&, const std::string&);
template std::error_code HashHelper::Set(const HashPtr&, const std::string&, const char* const&);
template std::error_code HashHelper::Set(const HashPtr&, const std::string&, const long&);
template std::error_code HashHelper::Set(const HashPtr&, const std::string&, const Bytes&);
template std::error_code HashHelper::Set(const HashPtr&, const std::string&, const short&);
template std::error_code HashHelper::Set(const HashPtr&, const std::string&, const unsigned short&);
template std::error_code HashHelper::Set(const HashPtr&, const std::string&,
                                         const std::shared_ptr<IValue>&);
template std::error_code HashHelper::Set(const HashPtr&, const std::string&,
                                         const std::shared_ptr<IArray>&);
template std::error_code HashHelper::Set(const HashPtr&, const std::string&,
                                         const std::shared_ptr<IHash>&);
template std::error_code HashHelper::Set(const HashPtr&, const std::string&,
                                         const std::shared_ptr<IUUID>&);
template std::error_code HashHelper::Set(const HashPtr&, const std::string&,
                                         const std::shared_ptr<IData>&);

}  // namespace QelSS
