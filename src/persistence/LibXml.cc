#include "persistence/LibXml.h"

#include <libxml/SAX2.h>
#include <libxml/parser.h>
#include <libxml/xmlerror.h>

#include <climits>
#include <memory>
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

// Some refusals (a text node over the size limit) ignore XML_PARSE_NOERROR and
// print through the thread's generic error channel. It is silenced for one
// parse only, as the thread may be the application's own.
class QuietGenericErrors {
 public:
  QuietGenericErrors() : function_(xmlGenericError), context_(xmlGenericErrorContext) {
    xmlSetGenericErrorFunc(nullptr, &IgnoreError);
  }
  ~QuietGenericErrors() { xmlSetGenericErrorFunc(context_, function_); }
  QuietGenericErrors(const QuietGenericErrors&) = delete;
  QuietGenericErrors& operator=(const QuietGenericErrors&) = delete;

 private:
  const xmlGenericErrorFunc function_;
  void* const context_;
};

struct ParserContextDeleter {
  void operator()(xmlParserCtxt* context) const noexcept { xmlFreeParserCtxt(context); }
};

void EndElementAndFree(void* context, const xmlChar* localName, const xmlChar* prefix,
                       const xmlChar* uri) {
  auto* parser = static_cast<xmlParserCtxt*>(context);
  xmlNode* finished = parser->node;
  xmlSAX2EndElementNs(context, localName, prefix, uri);
  if (finished == nullptr || finished == parser->node || finished->prev != nullptr ||
      finished->parent == nullptr || finished->parent->type != XML_ELEMENT_NODE) {
    return;
  }
  xmlUnlinkNode(finished);
  xmlFreeNode(finished);
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
  const QuietGenericErrors quiet;
  return xmlReadMemory(data, static_cast<int>(size), url, encoding, options);
}

std::error_code ParseXml(const uint8_t* data, size_t size, XmlDocument& out) {
  XmlDocument doc(
      ReadXmlQuietly(reinterpret_cast<const char*>(data), size, nullptr, "UTF-8", kParseOptions));
  if (!doc || DeclaresEntities(doc.get())) return kSerializationError;
  out = std::move(doc);
  return kSuccess;
}

bool ParseXmlAccepts(const uint8_t* data, size_t size) {
  EnsureLibXml();
  if (size > static_cast<size_t>(INT_MAX)) return false;
  // xmlReadMemory is this same call on a context of its own making.
  std::unique_ptr<xmlParserCtxt, ParserContextDeleter> context(xmlNewParserCtxt());
  if (!context || context->sax == nullptr) return false;
  context->sax->endElementNs = &EndElementAndFree;
  const QuietGenericErrors quiet;
  XmlDocument doc(xmlCtxtReadMemory(context.get(), reinterpret_cast<const char*>(data),
                                    static_cast<int>(size), nullptr, "UTF-8", kParseOptions));
  return doc && !DeclaresEntities(doc.get());
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
