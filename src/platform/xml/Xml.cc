#include "platform/xml/Xml.h"

#include <libxml/SAX2.h>
#include <libxml/xmlerror.h>
#include <libxml/xmlversion.h>

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

#include "qelss/platform/ErrorCode.h"

namespace QelSS::platform::xml {
namespace {

// XML_PARSE_NONET only matters if something would fetch a resource, which the
// default options never do; it is there so that a later change cannot open the
// network by accident.
constexpr int kParseOptions = kQuietParseOptions;

constexpr const char* kTextNodeLimitText = "huge text node";

// The generic channel's context is a flag to raise when the text node limit
// refused the document: parsing goes on after that refusal, and the error
// left last is a later, unrelated one.
void IgnoreError(void* context, const char* format, ...) {
  if (context == nullptr || format == nullptr) return;
  char text[256];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  if (std::strstr(text, kTextNodeLimitText) != nullptr) *static_cast<bool*>(context) = true;
}

bool DeclaresEntities(xmlDoc* doc) {
  const xmlDtd* subset = xmlGetIntSubset(doc);
  return subset != nullptr && (subset->entities != nullptr || subset->pentities != nullptr);
}

// Some refusals (a text node over the size limit) ignore XML_PARSE_NOERROR and
// print through the thread's generic error channel. It is silenced for one
// parse only, as the thread may be the application's own.
class QuietGenericErrors {
 public:
  explicit QuietGenericErrors(bool* textLimit = nullptr)
      : function_(xmlGenericError), context_(xmlGenericErrorContext) {
    xmlSetGenericErrorFunc(textLimit, &IgnoreError);
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

// libxml2's own check prints to stderr on a mismatch; the same rule is applied
// first, so that its check then only initialises the library.
bool XmlLibraryMatches() noexcept {
  const int runtime = std::atoi(xmlParserVersion);
  const int built = LIBXML_VERSION;
  if (runtime / 10000 != built / 10000 || runtime / 100 < built / 100) return false;
  xmlCheckVersion(LIBXML_VERSION);
  return true;
}

void EnsureLibXml() noexcept {
  // xmlInitParser is not safe to enter from two threads at once the first time.
  static std::once_flag once;
  std::call_once(once, [] { xmlInitParser(); });
}

xmlDoc* ReadXmlQuietly(const char* data, size_t size, const char* url, const char* encoding,
                       int options, bool* textLimit) {
  EnsureLibXml();
  if (size > static_cast<size_t>(INT_MAX)) return nullptr;
  const QuietGenericErrors quiet(textLimit);
  return xmlReadMemory(data, static_cast<int>(size), url, encoding, options);
}

// libxml2 refuses text of over 10,000,000 bytes in one node, or in one run
// without markup, as if memory had run out or as an internal error. That is a
// limit of what a domain file can hold, not damage, and callers tell their
// users so.
bool HitLookupLimit() {
  const xmlError* error = xmlGetLastError();
  return error != nullptr && error->code == XML_ERR_INTERNAL_ERROR && error->message != nullptr &&
         std::strstr(error->message, "Huge input lookup") != nullptr;
}

std::error_code ParseXml(const uint8_t* data, size_t size, XmlDocument& out) {
  // The last-error slot belongs to libxml2's per-thread state, which must not
  // be touched before the one-time set-up.
  EnsureLibXml();
  xmlResetLastError();
  bool textLimit = false;
  XmlDocument doc(ReadXmlQuietly(reinterpret_cast<const char*>(data), size, nullptr, "UTF-8",
                                 kParseOptions, &textLimit));
  if (!doc && (textLimit || HitLookupLimit())) return kStorageError;
  if (!doc || DeclaresEntities(doc.get())) return kSerializationError;
  out = std::move(doc);
  return kSuccess;
}

std::error_code ParseXmlAccepts(const uint8_t* data, size_t size) {
  EnsureLibXml();
  if (size > static_cast<size_t>(INT_MAX)) return kSerializationError;
  // xmlReadMemory is this same call on a context of its own making.
  std::unique_ptr<xmlParserCtxt, ParserContextDeleter> context(xmlNewParserCtxt());
  if (!context || context->sax == nullptr) return kSerializationError;
  context->sax->endElementNs = &EndElementAndFree;
  xmlResetLastError();
  bool textLimit = false;
  XmlDocument doc;
  {
    const QuietGenericErrors quiet(&textLimit);
    doc.reset(xmlCtxtReadMemory(context.get(), reinterpret_cast<const char*>(data),
                                static_cast<int>(size), nullptr, "UTF-8", kParseOptions));
  }
  if (!doc && (textLimit || HitLookupLimit())) return kStorageError;
  if (!doc || DeclaresEntities(doc.get())) return kSerializationError;
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

}  // namespace QelSS::platform::xml
