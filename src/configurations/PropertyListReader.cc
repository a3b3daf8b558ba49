#include "configurations/PropertyListReader.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <memory>
#include <optional>
#include <vector>

#include "configurations/BoundedFile.h"
#include "platform/support/Base64.h"
#include "platform/xml/Xml.h"
#include "qelss/platform/ErrorCode.h"

namespace QelSS {
namespace {

constexpr size_t kMaxDocument = 8u << 20;
constexpr int kMaxDepth = 64;

struct XpcRelease {
  void operator()(_xpc_object_s* object) const { xpc_release(object); }
};
using XpcHolder = std::unique_ptr<_xpc_object_s, XpcRelease>;

bool Named(const xmlNode* node, const char* name) {
  return std::strcmp(reinterpret_cast<const char*>(node->name), name) == 0;
}

bool IsBlank(const xmlChar* text) {
  for (; text && *text; ++text) {
    if (*text != ' ' && *text != '\t' && *text != '\n' && *text != '\r') return false;
  }
  return true;
}

// The element children of `node`, or nullopt when it also holds text that is
// not white space, or anything that could hide content (entity references).
std::optional<std::vector<const xmlNode*>> ElementChildren(const xmlNode* node) {
  std::vector<const xmlNode*> elements;
  for (const xmlNode* child = node->children; child; child = child->next) {
    switch (child->type) {
      case XML_ELEMENT_NODE:
        elements.push_back(child);
        break;
      case XML_TEXT_NODE:
        if (!IsBlank(child->content)) return std::nullopt;
        break;
      case XML_COMMENT_NODE:
      case XML_PI_NODE:
        break;
      default:
        return std::nullopt;
    }
  }
  return elements;
}

// The text of a leaf element; nullopt when it holds elements or entity
// references.
std::optional<std::string> LeafText(const xmlNode* node) {
  std::string text;
  for (const xmlNode* child = node->children; child; child = child->next) {
    switch (child->type) {
      case XML_TEXT_NODE:
      case XML_CDATA_SECTION_NODE:
        if (child->content) text += reinterpret_cast<const char*>(child->content);
        break;
      case XML_COMMENT_NODE:
      case XML_PI_NODE:
        break;
      default:
        return std::nullopt;
    }
  }
  return text;
}

xpc_object_t ParseInteger(const std::string& text) {
  if (text.empty()) return nullptr;
  errno = 0;
  char* end = nullptr;
  if (text[0] == '-') {
    const long long value = std::strtoll(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0') return nullptr;
    return xpc_int64_create(value);
  }
  const char* digits = text[0] == '+' ? text.c_str() + 1 : text.c_str();
  if (*digits < '0' || *digits > '9') return nullptr;
  const unsigned long long value = std::strtoull(digits, &end, 10);
  if (errno != 0 || *end != '\0') return nullptr;
  if (value > static_cast<unsigned long long>(std::numeric_limits<int64_t>::max())) {
    return xpc_uint64_create(value);
  }
  return xpc_int64_create(static_cast<int64_t>(value));
}

xpc_object_t ParseReal(const std::string& text) {
  if (text.empty()) return nullptr;
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  if (*end != '\0') return nullptr;
  return xpc_double_create(value);
}

xpc_object_t ParseData(const std::string& text) {
  std::vector<uint8_t> bytes;
  if (QelBase64Decode(text.data(), text.size(), bytes) != 0) return nullptr;
  return xpc_data_create(bytes.data(), bytes.size());
}

xpc_object_t ParseDate(const std::string& text) {
  struct tm fields {};
  const char* end = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%SZ", &fields);
  if (!end || *end != '\0') return nullptr;
  const time_t seconds = timegm(&fields);
  // Dates are kept in nanoseconds in 64 bits: about the years 1678 to 2262.
  constexpr int64_t kLimit = std::numeric_limits<int64_t>::max() / 1000000000;
  if (seconds > kLimit || seconds < -kLimit) return nullptr;
  return xpc_date_create(static_cast<int64_t>(seconds) * 1000000000);
}

xpc_object_t ParseValue(const xmlNode* node, int depth);

xpc_object_t ParseDictionary(const xmlNode* node, int depth) {
  auto children = ElementChildren(node);
  if (!children || children->size() % 2 != 0) return nullptr;
  XpcHolder dictionary(xpc_dictionary_create(nullptr, nullptr, 0));
  if (!dictionary) return nullptr;
  for (size_t i = 0; i < children->size(); i += 2) {
    const xmlNode* keyNode = (*children)[i];
    if (!Named(keyNode, "key")) return nullptr;
    std::optional<std::string> key = LeafText(keyNode);
    if (!key) return nullptr;
    XpcHolder value(ParseValue((*children)[i + 1], depth + 1));
    if (!value || !xpc_dictionary_set_value(dictionary.get(), key->c_str(), value.get())) {
      return nullptr;
    }
  }
  return dictionary.release();
}

xpc_object_t ParseArray(const xmlNode* node, int depth) {
  auto children = ElementChildren(node);
  if (!children) return nullptr;
  XpcHolder array(xpc_array_create(nullptr, 0));
  if (!array) return nullptr;
  for (const xmlNode* child : *children) {
    XpcHolder value(ParseValue(child, depth + 1));
    if (!value || !xpc_array_append_value(array.get(), value.get())) return nullptr;
  }
  return array.release();
}

xpc_object_t ParseScalar(const xmlNode* node) {
  if (Named(node, "true") || Named(node, "false")) {
    auto children = ElementChildren(node);
    if (!children || !children->empty()) return nullptr;
    return xpc_bool_create(Named(node, "true"));
  }
  std::optional<std::string> text = LeafText(node);
  if (!text) return nullptr;
  if (Named(node, "string")) return xpc_string_create(text->c_str());
  if (Named(node, "integer")) return ParseInteger(*text);
  if (Named(node, "real")) return ParseReal(*text);
  if (Named(node, "data")) return ParseData(*text);
  if (Named(node, "date")) return ParseDate(*text);
  return nullptr;
}

xpc_object_t ParseValue(const xmlNode* node, int depth) {
  if (depth > kMaxDepth || node->ns) return nullptr;
  if (Named(node, "dict")) return ParseDictionary(node, depth);
  if (Named(node, "array")) return ParseArray(node, depth);
  return ParseScalar(node);
}

}  // namespace

std::error_code ParsePropertyList(std::string_view text, xpc_object_t& out) {
  if (text.size() > kMaxDocument) return make_error_code(kInvalidData);
  // No entity substitution and no external document type: the defaults.
  const platform::xml::XmlDocument document(
      platform::xml::ReadXmlQuietly(text.data(), text.size(), "Configurations.plist", nullptr,
                                    platform::xml::kQuietParseOptions));
  if (!document) return make_error_code(kInvalidData);
  const xmlNode* root = xmlDocGetRootElement(document.get());
  if (!root || root->ns || !Named(root, "plist")) return make_error_code(kInvalidData);
  auto children = ElementChildren(root);
  if (!children || children->size() != 1) return make_error_code(kInvalidData);
  xpc_object_t value = ParseValue(children->front(), 1);
  if (!value) return make_error_code(kInvalidData);
  out = value;
  return make_error_code(kSuccess);
}

std::error_code ReadPropertyListDictionary(const std::string& path, xpc_object_t& out) {
  std::string text;
  std::error_code rc = ReadBoundedFile(path, kMaxDocument, text);
  if (!Succeeded(rc)) return rc;
  xpc_object_t value = nullptr;
  rc = ParsePropertyList(text, value);
  if (!Succeeded(rc)) return rc;
  if (xpc_get_type(value) != XPC_TYPE_DICTIONARY) {
    xpc_release(value);
    return make_error_code(kInvalidData);
  }
  out = value;
  return make_error_code(kSuccess);
}

}  // namespace QelSS
