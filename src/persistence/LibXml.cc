#include "persistence/LibXml.h"

#include <libxml/parser.h>
#include <libxml/xmlerror.h>

#include <climits>
#include <mutex>

#include "qelss/values/ErrorCode.h"

namespace QelSS::byteform {
namespace {

// XML_PARSE_NONET only matters if something would fetch a resource, which the
// default options never do; it is there so that a later change cannot open the
// network by accident. NOERROR and NOWARNING silence libxml2's stderr channel.
constexpr int kParseOptions = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;

void IgnoreError(void* /*context*/, const char* /*format*/, ...) {}

bool DeclaresEntities(xmlDoc* doc) {
  const xmlDtd* subset = xmlGetIntSubset(doc);
  return subset != nullptr && (subset->entities != nullptr || subset->pentities != nullptr);
}

}  // namespace

void EnsureLibXml() noexcept {
  // xmlInitParser is not safe to enter from two threads at once the first time.
  static std::once_flag once;
  std::call_once(once, [] { xmlInitParser(); });
}

xmlDoc* ReadXmlQuietly(const char* data, size_t size, const char* url, const char* encoding,
                       int options) {
  EnsureLibXml();
  if (size > static_cast<size_t>(INT_MAX)) return nullptr;
  // Some refusals (a text node over the size limit) ignore XML_PARSE_NOERROR
  // and print through the thread's generic error channel. It is silenced for
  // the parse only, as the thread may be the application's own.
  const xmlGenericErrorFunc savedFunction = xmlGenericError;
  void* const savedContext = xmlGenericErrorContext;
  xmlSetGenericErrorFunc(nullptr, &IgnoreError);
  xmlDoc* doc = xmlReadMemory(data, static_cast<int>(size), url, encoding, options);
  xmlSetGenericErrorFunc(savedContext, savedFunction);
  return doc;
}

std::error_code ParseXml(const uint8_t* data, size_t size, XmlDocument& out) {
  XmlDocument doc(
      ReadXmlQuietly(reinterpret_cast<const char*>(data), size, nullptr, "UTF-8", kParseOptions));
  if (!doc || DeclaresEntities(doc.get())) return kSerializationError;
  out = std::move(doc);
  return kSuccess;
}

XmlText NodeContent(const xmlNode* node) { return XmlText(xmlNodeGetContent(node)); }

XmlText FirstAttributeText(const xmlNode* node) {
  if (node->properties == nullptr) return nullptr;
  return XmlText(xmlNodeGetContent(reinterpret_cast<const xmlNode*>(node->properties)));
}

XmlMemoryWriter::~XmlMemoryWriter() {
  // The writer flushes into the buffer when freed, so it goes first.
  if (writer_ != nullptr) xmlFreeTextWriter(writer_);
  if (buffer_ != nullptr) xmlBufferFree(buffer_);
}

std::error_code XmlMemoryWriter::Open() {
  EnsureLibXml();
  buffer_ = xmlBufferCreate();
  if (buffer_ == nullptr) return kSerializationError;
  writer_ = xmlNewTextWriterMemory(buffer_, 0);
  if (writer_ == nullptr) return kSerializationError;
  return kSuccess;
}

std::error_code XmlMemoryWriter::Finish(std::vector<uint8_t>& out) {
  if (xmlTextWriterFlush(writer_) < 0) return kSerializationError;
  const xmlChar* content = xmlBufferContent(buffer_);
  const int length = xmlBufferLength(buffer_);
  if (content == nullptr || length < 0) return kSerializationError;
  out.assign(content, content + length);
  return kSuccess;
}

}  // namespace QelSS::byteform
