#include "persistence/ByteFormReference.h"

#include <climits>
#include <cstring>
#include <functional>

#include "persistence/ByteFormNames.h"
#include "persistence/ByteFormScalars.h"
#include "platform/report/Failure.h"
#include "platform/report/Report.h"
#include "platform/xml/Xml.h"
#include "qelss/platform/ErrorCode.h"
#include "qelss/values/ArrayFactory.h"
#include "qelss/values/HashFactory.h"
#include "qelss/values/IData.h"
#include "qelss/values/IDate.h"
#include "qelss/values/INull.h"
#include "qelss/values/INumber.h"
#include "qelss/values/IString.h"
#include "qelss/values/IUUID.h"

namespace QelSS::byteform {
namespace {

constexpr uint32_t kTag = QelErrTag("QSSH");

using ElementBody = std::function<std::error_code(xmlTextWriterPtr writer)>;

// One element on its own writer and buffer: the body writes it, and its bytes
// replace `out` when everything succeeded.
std::error_code WriteElement(const ElementBody& body, std::vector<uint8_t>& out) {
  platform::xml::XmlMemoryWriter memory;
  if (std::error_code code = memory.Open(); !Succeeded(code)) return code;
  if (std::error_code code = body(memory.writer()); !Succeeded(code)) return code;
  return memory.Finish(out);
}

std::error_code Written(int count) {
  return count < 0 ? make_error_code(kSerializationError) : make_error_code(kSuccess);
}

const xmlChar* Xml(const char* text) { return reinterpret_cast<const xmlChar*>(text); }

std::error_code WriteNull(const char* name, std::vector<uint8_t>& out) {
  return WriteElement(
      [&](xmlTextWriterPtr writer) -> std::error_code {
        if (xmlTextWriterStartElement(writer, Xml(name)) < 0) return kSerializationError;
        return Written(xmlTextWriterEndElement(writer));
      },
      out);
}

std::error_code WriteNumberContent(xmlTextWriterPtr writer, const INumber& number) {
  xpc_type_t kind = nullptr;
  if (std::error_code code = number.GetNumberType(kind); !Succeeded(code)) return code;
  std::error_code code = kFailure;
  int count = 0;
  auto attribute = [&](const char* text) {
    return xmlTextWriterWriteAttribute(writer, Xml("type"), Xml(text));
  };
  if (kind == XPC_TYPE_INT64) {
    int64_t value = 0;
    if (code = number.GetInt64(value); !Succeeded(code)) return code;
    if (attribute("int") < 0) return kSerializationError;
    count = xmlTextWriterWriteFormatString(writer, "%lld", static_cast<long long>(value));
  } else if (kind == XPC_TYPE_UINT64) {
    uint64_t value = 0;
    if (code = number.GetUInt64(value); !Succeeded(code)) return code;
    if (attribute("uint") < 0) return kSerializationError;
    count = xmlTextWriterWriteFormatString(writer, "%llu", static_cast<unsigned long long>(value));
  } else if (kind == XPC_TYPE_BOOL) {
    bool value = false;
    if (code = number.GetBool(value); !Succeeded(code)) return code;
    if (attribute("bool") < 0) return kSerializationError;
    count = xmlTextWriterWriteFormatString(writer, "%d", value);
  } else if (kind == XPC_TYPE_DOUBLE) {
    double value = 0;
    if (code = number.GetDouble(value); !Succeeded(code)) return code;
    if (attribute("double") < 0) return kSerializationError;
    count = xmlTextWriterWriteFormatString(writer, "%f", value);
  } else {
    return kFailure;
  }
  return Written(count);
}

std::error_code WriteNumber(const INumber& number, const char* name, std::vector<uint8_t>& out) {
  return WriteElement(
      [&](xmlTextWriterPtr writer) -> std::error_code {
        if (xmlTextWriterStartElement(writer, Xml(name)) < 0) return kSerializationError;
        if (std::error_code code = WriteNumberContent(writer, number); !Succeeded(code)) {
          return code;
        }
        return Written(xmlTextWriterEndElement(writer));
      },
      out);
}

// libxml2's formatted calls ("%s") grow their buffer 8 KiB at a time and print
// the whole text again after each step, which is quadratic in the text's
// length; the plain calls write the same bytes.
std::error_code WriteText(const char* text, const char* name, std::vector<uint8_t>& out) {
  return WriteElement(
      [&](xmlTextWriterPtr writer) {
        return Written(xmlTextWriterWriteElement(writer, Xml(name), Xml(text)));
      },
      out);
}

std::error_code WriteUuid(const IUUID& uuid, const char* name, std::vector<uint8_t>& out) {
  std::string text;
  if (std::error_code code = uuid.GetString(text); !Succeeded(code)) return code;
  return WriteText(text.c_str(), name, out);
}

std::error_code WriteData(const IData& data, const char* name, std::vector<uint8_t>& out) {
  if (data.GetLength() > static_cast<size_t>(INT_MAX)) return kSerializationError;
  return WriteElement(
      [&](xmlTextWriterPtr writer) -> std::error_code {
        if (xmlTextWriterStartElement(writer, Xml(name)) < 0) return kSerializationError;
        if (xmlTextWriterWriteBase64(writer, reinterpret_cast<const char*>(data.GetBytes()), 0,
                                     static_cast<int>(data.GetLength())) < 0) {
          return kSerializationError;
        }
        return Written(xmlTextWriterEndElement(writer));
      },
      out);
}

std::error_code WriteDate(const IDate& date, const char* name, std::vector<uint8_t>& out) {
  return WriteElement(
      [&](xmlTextWriterPtr writer) -> std::error_code {
        if (xmlTextWriterStartElement(writer, Xml(name)) < 0) return kSerializationError;
        if (xmlTextWriterWriteFormatString(writer, "%ld", static_cast<long>(date.GetTime())) < 0) {
          return kSerializationError;
        }
        return Written(xmlTextWriterEndElement(writer));
      },
      out);
}

// Children are written first and then inserted unescaped in one raw write, which
// also closes the start tag when there are none: "<Array></Array>".
std::error_code WriteContainer(const std::string& name, const std::vector<uint8_t>& children,
                               std::vector<uint8_t>& out) {
  const std::string raw(children.begin(), children.end());
  return WriteElement(
      [&](xmlTextWriterPtr writer) -> std::error_code {
        if (xmlTextWriterStartElement(writer, Xml(name.c_str())) < 0) return kSerializationError;
        if (xmlTextWriterWriteRaw(writer, Xml(raw.c_str())) < 0) return kSerializationError;
        return Written(xmlTextWriterEndElement(writer));
      },
      out);
}

std::error_code WriteValue(const std::shared_ptr<IValue>& value, std::vector<uint8_t>& out) {
  if (!value) return kInvalidArgument;
  const uint32_t type = value->GetType();
  const IValue* raw = value.get();
  switch (type) {
    case kValueTypeNull:
      if (dynamic_cast<const INull*>(raw) == nullptr) return kFailure;
      return WriteNull(ElementNameOfType(type), out);
    case kValueTypeNumber:
      if (auto* number = dynamic_cast<const INumber*>(raw)) {
        return WriteNumber(*number, ElementNameOfType(type), out);
      }
      return kFailure;
    case kValueTypeString:
      if (auto* string = dynamic_cast<const IString*>(raw)) {
        return WriteText(string->GetCString(), ElementNameOfType(type), out);
      }
      return kFailure;
    case kValueTypeData:
      if (auto* data = dynamic_cast<const IData*>(raw)) {
        return WriteData(*data, ElementNameOfType(type), out);
      }
      return kFailure;
    case kValueTypeDate:
      if (auto* date = dynamic_cast<const IDate*>(raw)) {
        return WriteDate(*date, ElementNameOfType(type), out);
      }
      return kFailure;
    case kValueTypeUUID:
      if (auto* uuid = dynamic_cast<const IUUID*>(raw)) {
        return WriteUuid(*uuid, ElementNameOfType(type), out);
      }
      return kFailure;
    case kValueTypeArray:
      if (auto array = std::dynamic_pointer_cast<IArray>(value)) {
        return writeArraytoXML(array, ElementNameOfType(type), out);
      }
      return kFailure;
    case kValueTypeHash:
      if (auto hash = std::dynamic_pointer_cast<IHash>(value)) {
        return writeHashtoXML(hash, ElementNameOfType(type), out);
      }
      return kFailure;
    default:
      return kFailure;
  }
}

void Append(const std::vector<uint8_t>& bytes, std::vector<uint8_t>& out) {
  out.insert(out.end(), bytes.begin(), bytes.end());
}

// ---- reading

std::error_code ReadElement(const xmlNode* node, std::shared_ptr<IValue>& out);

// A child of a container is turned back into bytes and read on its own.
std::error_code ReadChild(const xmlNode* child, std::shared_ptr<IValue>& out) {
  std::vector<uint8_t> bytes;
  if (std::error_code code = convertXMLNodeToBytes(child, bytes); !Succeeded(code)) return code;
  return ReadValueReference(bytes.data(), bytes.size(), out);
}

const xmlNode* NextElement(const xmlNode* node) {
  while (node != nullptr && node->type != XML_ELEMENT_NODE) node = node->next;
  return node;
}

std::error_code ReadArray(const xmlNode* node, std::shared_ptr<IArray>& out) {
  std::shared_ptr<IArray> array;
  if (std::error_code code = ArrayFactory::Create(array); !Succeeded(code)) return code;
  for (const xmlNode* child = NextElement(node->children); child != nullptr;
       child = NextElement(child->next)) {
    std::shared_ptr<IValue> element;
    if (std::error_code code = ReadChild(child, element); !Succeeded(code)) return code;
    if (std::error_code code = array->Append(element); !Succeeded(code)) return code;
  }
  out = std::move(array);
  return kSuccess;
}

// Children pair up as key and value. A key that is not a String ends the hash
// there, successfully; a key with nothing after it is refused.
std::error_code ReadHash(const xmlNode* node, std::shared_ptr<IHash>& out) {
  std::shared_ptr<IHash> hash;
  if (std::error_code code = HashFactory::Create(hash); !Succeeded(code)) return code;
  for (const xmlNode* child = NextElement(node->children); child != nullptr;
       child = NextElement(child->next)) {
    std::shared_ptr<IValue> key;
    if (std::error_code code = ReadChild(child, key); !Succeeded(code)) return code;
    if (!key || key->GetType() != kValueTypeString) break;
    auto keyString = std::dynamic_pointer_cast<IString>(key);
    if (!keyString) return kInvalidData;
    child = NextElement(child->next);
    if (child == nullptr) return kInvalidData;
    std::shared_ptr<IValue> value;
    if (std::error_code code = ReadChild(child, value); !Succeeded(code)) return code;
    if (std::error_code code = hash->Set(keyString, value); !Succeeded(code)) return code;
  }
  out = std::move(hash);
  return kSuccess;
}

std::error_code ReadElement(const xmlNode* node, std::shared_ptr<IValue>& out) {
  const uint32_t type = TypeOfElementName(reinterpret_cast<const char*>(node->name));
  if (type == kValueTypeArray) {
    std::shared_ptr<IArray> array;
    std::error_code code = ReadArray(node, array);
    if (Succeeded(code)) out = std::move(array);
    return code;
  }
  if (type == kValueTypeHash) {
    std::shared_ptr<IHash> hash;
    std::error_code code = ReadHash(node, hash);
    if (Succeeded(code)) out = std::move(hash);
    return code;
  }
  return ReadScalarElement(node, type, out);
}

std::error_code RewriteScalar(const xmlNode* node, std::vector<uint8_t>& out) {
  platform::xml::XmlText attribute = platform::xml::FirstAttributeText(node);
  platform::xml::XmlText content = platform::xml::NodeContent(node);
  if (!content) return kSerializationError;
  return WriteElement(
      [&](xmlTextWriterPtr writer) -> std::error_code {
        if (xmlTextWriterStartElement(writer, node->name) < 0) return kSerializationError;
        if (node->properties != nullptr &&
            xmlTextWriterWriteAttribute(writer, Xml("type"), attribute.get()) < 0) {
          return kSerializationError;
        }
        if (xmlTextWriterWriteString(writer, content.get()) < 0) return kSerializationError;
        return Written(xmlTextWriterEndElement(writer));
      },
      out);
}

}  // namespace

std::error_code WriteValueReference(const std::shared_ptr<IValue>& value,
                                    std::vector<uint8_t>& out) noexcept {
  std::error_code result = kFailure;
  try {
    std::vector<uint8_t> bytes;
    std::error_code code = WriteValue(value, bytes);
    if (Succeeded(code)) out = std::move(bytes);
    result = code;
  } catch (...) {
    ReportCaughtException(1, kTag, "Write");
  }
  return result;
}

std::error_code writeArraytoXML(std::shared_ptr<IArray>& array, std::string name,
                                std::vector<uint8_t>& out) noexcept {
  std::error_code result = kFailure;
  try {
    if (!array) return kInvalidArgument;
    std::vector<uint8_t> children;
    std::error_code walked =
        array->Iterate([&](const std::shared_ptr<IValue>& element, unsigned int, bool& stop) {
          std::vector<uint8_t> bytes;
          if (!Succeeded(WriteValueReference(element, bytes))) {
            stop = true;
            return;
          }
          Append(bytes, children);
        });
    if (!Succeeded(walked)) return walked;
    result = WriteContainer(name, children, out);
  } catch (...) {
    ReportCaughtException(1, kTag, "writeArraytoXML");
  }
  return result;
}

std::error_code writeHashtoXML(std::shared_ptr<IHash>& hash, std::string name,
                               std::vector<uint8_t>& out) noexcept {
  std::error_code result = kFailure;
  try {
    if (!hash) return kInvalidArgument;
    std::vector<uint8_t> children;
    std::error_code walked = hash->Iterate(
        [&](const std::shared_ptr<IString>& key, const std::shared_ptr<IValue>& value, bool& stop) {
          // An entry goes in whole or not at all: never a key without its value.
          std::vector<uint8_t> keyBytes;
          std::vector<uint8_t> valueBytes;
          if (!Succeeded(WriteValueReference(key, keyBytes)) ||
              !Succeeded(WriteValueReference(value, valueBytes))) {
            stop = true;
            return;
          }
          Append(keyBytes, children);
          Append(valueBytes, children);
        });
    if (!Succeeded(walked)) return walked;
    result = WriteContainer(name, children, out);
  } catch (...) {
    ReportCaughtException(1, kTag, "writeHashtoXML");
  }
  return result;
}

std::error_code ReadValueReference(const uint8_t* data, size_t size,
                                   std::shared_ptr<IValue>& out) noexcept {
  std::error_code result = kFailure;
  try {
    if (data == nullptr || size == 0) return kInvalidArgument;
    platform::xml::XmlDocument doc;
    if (std::error_code code = platform::xml::ParseXml(data, size, doc); !Succeeded(code))
      return code;
    const xmlNode* root = xmlDocGetRootElement(doc.get());
    if (root == nullptr) return kSerializationError;
    std::shared_ptr<IValue> value;
    std::error_code code = ReadElement(root, value);
    if (Succeeded(code)) out = std::move(value);
    result = code;
  } catch (...) {
    ReportCaughtException(1, kTag, "Read");
  }
  return result;
}

std::error_code convertXMLNodeToBytes(const xmlNode* node, std::vector<uint8_t>& out) noexcept {
  std::error_code result = kFailure;
  try {
    if (node == nullptr) return kInvalidArgument;
    const char* name = reinterpret_cast<const char*>(node->name);
    std::vector<uint8_t> bytes;
    std::error_code code = kFailure;
    if (std::strcmp(name, "Array") == 0) {
      std::shared_ptr<IArray> array;
      code = ReadArray(node, array);
      if (Succeeded(code)) code = writeArraytoXML(array, "Array", bytes);
    } else if (std::strcmp(name, "Hash") == 0) {
      std::shared_ptr<IHash> hash;
      code = ReadHash(node, hash);
      if (Succeeded(code)) code = writeHashtoXML(hash, "Hash", bytes);
    } else {
      code = RewriteScalar(node, bytes);
    }
    if (Succeeded(code)) out = std::move(bytes);
    result = code;
  } catch (...) {
    ReportCaughtException(1, kTag, "convertXMLNodeToBytes");
  }
  return result;
}

}  // namespace QelSS::byteform
