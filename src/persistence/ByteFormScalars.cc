#include "persistence/ByteFormScalars.h"

#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "platform/support/Base64.h"
#include "platform/support/Uuid.h"
#include "platform/xml/Xml.h"
#include "qelss/platform/ErrorCode.h"
#include "qelss/values/DataFactory.h"
#include "qelss/values/DateFactory.h"
#include "qelss/values/NullFactory.h"
#include "qelss/values/NumberFactory.h"
#include "qelss/values/StringFactory.h"
#include "qelss/values/UUIDFactory.h"

namespace QelSS::byteform {
namespace {

template <typename I>
std::error_code Publish(std::error_code result, std::shared_ptr<I>& made,
                        std::shared_ptr<IValue>& out) {
  if (Succeeded(result)) out = std::move(made);
  return result;
}

std::error_code NumberFromText(const char* kind, const char* content,
                               std::shared_ptr<IValue>& out) {
  if (kind == nullptr) return kFailure;  // a Number without attributes
  std::shared_ptr<INumber> number;
  std::error_code result = kFailure;
  if (std::strcmp(kind, "int") == 0) {
    result = NumberFactory::Create(number, std::stoll(content, nullptr, 10));
  } else if (std::strcmp(kind, "uint") == 0) {
    result = NumberFactory::Create(number, std::stoull(content, nullptr, 10));
  } else if (std::strcmp(kind, "bool") == 0) {
    result = NumberFactory::Create(number, std::stoi(content, nullptr, 10) != 0);
  } else if (std::strcmp(kind, "double") == 0) {
    result = NumberFactory::Create(number, std::stod(content));
  } else {
    // An unknown kind reads as success without a value; callers that need a
    // number turn the empty result into kInvalidData.
    out.reset();
    return kSuccess;
  }
  return Publish(result, number, out);
}

std::error_code DataFromText(const char* content, std::shared_ptr<IValue>& out) {
  std::vector<uint8_t> bytes;
  if (QelBase64Decode(content, std::strlen(content), bytes) != 0) return kSerializationError;
  // The factory refuses a null pointer even for no bytes.
  static const unsigned char kNoBytes = 0;
  std::shared_ptr<IData> data;
  return Publish(DataFactory::Create(data, bytes.empty() ? &kNoBytes : bytes.data(), bytes.size()),
                 data, out);
}

std::error_code UuidFromText(const char* content, std::shared_ptr<IValue>& out) {
  platform::UuidBytes bytes{};
  if (!platform::ParseUuid(content, bytes)) return kInvalidData;
  std::shared_ptr<IUUID> uuid;
  return Publish(UUIDFactory::Create(uuid, bytes), uuid, out);
}

}  // namespace

std::error_code FormatNumber(const INumber& number, NumberText& out) {
  xpc_type_t kind = nullptr;
  if (std::error_code code = number.GetNumberType(kind); !Succeeded(code)) return code;
  std::error_code result = kFailure;
  if (kind == XPC_TYPE_INT64) {
    int64_t value = 0;
    result = number.GetInt64(value);
    out.kind = "int";
    *std::to_chars(out.digits, out.digits + sizeof out.digits - 1, value).ptr = '\0';
  } else if (kind == XPC_TYPE_UINT64) {
    uint64_t value = 0;
    result = number.GetUInt64(value);
    out.kind = "uint";
    *std::to_chars(out.digits, out.digits + sizeof out.digits - 1, value).ptr = '\0';
  } else if (kind == XPC_TYPE_BOOL) {
    bool value = false;
    result = number.GetBool(value);
    out.kind = "bool";
    *std::to_chars(out.digits, out.digits + sizeof out.digits - 1, value ? 1 : 0).ptr = '\0';
  } else if (kind == XPC_TYPE_DOUBLE) {
    double value = 0;
    result = number.GetDouble(value);
    out.kind = "double";
    // The same text as "%f" (both print the exact value, rounded half to
    // even), without the arbitrary-precision arithmetic that makes printf take
    // microseconds for a large double: a file of them would take seconds.
    const std::to_chars_result end = std::to_chars(out.digits, out.digits + sizeof out.digits - 1,
                                                   value, std::chars_format::fixed, 6);
    *end.ptr = '\0';
  }
  return result;
}

void FormatDate(const IDate& date, DateText& out) {
  // GetTime() is unsigned: a date before 1970 prints as a large positive number
  // that no reader accepts back. Kept, as it is what the byte form has always held.
  std::snprintf(out.digits, sizeof out.digits, "%ld", static_cast<long>(date.GetTime()));
}

std::error_code ScalarFromText(uint32_t type, const char* attribute, const char* content,
                               std::shared_ptr<IValue>& out) {
  switch (type) {
    case kValueTypeNull: {
      std::shared_ptr<INull> null;
      return Publish(NullFactory::Create(null), null, out);
    }
    case kValueTypeNumber:
      return NumberFromText(attribute, content, out);
    case kValueTypeString: {
      std::shared_ptr<IString> string;
      return Publish(StringFactory::Create(string, content), string, out);
    }
    case kValueTypeData:
      return DataFromText(content, out);
    case kValueTypeDate: {
      std::shared_ptr<IDate> date;
      return Publish(DateFactory::Create(date, std::stol(content, nullptr, 10)), date, out);
    }
    case kValueTypeUUID:
      return UuidFromText(content, out);
    default:
      return kFailure;
  }
}

std::error_code ReadScalarElement(const xmlNode* node, uint32_t type,
                                  std::shared_ptr<IValue>& out) {
  if (type == kValueTypeNull) return ScalarFromText(type, nullptr, nullptr, out);
  platform::xml::XmlText attribute;
  if (type == kValueTypeNumber) {
    attribute = platform::xml::FirstAttributeText(node);
    if (!attribute) return kFailure;
  }
  platform::xml::XmlText content = platform::xml::NodeContent(node);
  if (!content) return kSerializationError;
  return ScalarFromText(type, reinterpret_cast<const char*>(attribute.get()),
                        reinterpret_cast<const char*>(content.get()), out);
}

}  // namespace QelSS::byteform
