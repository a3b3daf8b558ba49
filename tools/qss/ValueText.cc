#include "ValueText.h"

#include <charconv>
#include <cstdint>

#include "ByteFormText.h"
#include "DataText.h"
#include "DateText.h"
#include "qelss/values/IData.h"
#include "qelss/values/IDate.h"
#include "qelss/values/INumber.h"
#include "qelss/values/IString.h"
#include "qelss/values/IUUID.h"

namespace QelSS::Qss {
namespace {

std::string DoubleText(double value) {
  char text[64];
  const auto result = std::to_chars(text, text + sizeof text, value);
  return std::string(text, result.ptr);
}

// Kinds are fixed and never converted, so exactly one getter succeeds.
std::string NumberText(const INumber& number) {
  bool flag = false;
  if (Succeeded(number.GetBool(flag))) return flag ? "true" : "false";
  int64_t signedValue = 0;
  if (Succeeded(number.GetInt64(signedValue))) return std::to_string(signedValue);
  uint64_t unsignedValue = 0;
  if (Succeeded(number.GetUInt64(unsignedValue))) return std::to_string(unsignedValue);
  double real = 0;
  if (Succeeded(number.GetDouble(real))) return DoubleText(real);
  return "?";
}

// Plain text of a scalar; false for containers.
bool ScalarText(const IValue& value, std::string& out) {
  switch (value.GetType()) {
    case kValueTypeNull:
      out = "null";
      return true;
    case kValueTypeNumber:
      out = NumberText(dynamic_cast<const INumber&>(value));
      return true;
    case kValueTypeString:
      out = dynamic_cast<const IString&>(value).GetCString();
      return true;
    case kValueTypeData:
      out = FormatData(dynamic_cast<const IData&>(value));
      return true;
    case kValueTypeDate:
      out = FormatDate(static_cast<int64_t>(dynamic_cast<const IDate&>(value).GetTime()));
      return true;
    case kValueTypeUUID:
      return Succeeded(dynamic_cast<const IUUID&>(value).GetString(out));
    default:
      return false;
  }
}

}  // namespace

Status ValueText(const std::shared_ptr<IValue>& value, bool asByteForm, std::string& out) {
  if (!asByteForm && ScalarText(*value, out)) {
    out += '\n';
    return Status::Ok();
  }
  Status written = WriteByteForm(*value, true, out);
  if (written.ok() && !out.empty() && out.back() != '\n') out += '\n';
  return written;
}

Status ValueLine(const std::shared_ptr<IValue>& value, std::string& out) {
  if (ScalarText(*value, out)) return Status::Ok();
  return WriteByteForm(*value, false, out);
}

}  // namespace QelSS::Qss
