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
#include <string_view>

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

// ---- Streaming: the callbacks find their stream in the context's user slot.

struct Stream {
  XmlEventSink* sink = nullptr;
  bool refused = false;
};

void Refuse(void* context) {
  auto* parser = static_cast<xmlParserCtxt*>(context);
  static_cast<Stream*>(parser->_private)->refused = true;
  xmlStopParser(parser);
}

// Hands one event to the sink. Nothing may unwind through libxml2's frames:
// a sink that throws stops the parse like one that refuses.
template <typename Event>
void Tell(void* context, Event&& event) {
  bool goOn = false;
  try {
    goOn = event(*static_cast<Stream*>(static_cast<xmlParserCtxt*>(context)->_private)->sink);
  } catch (...) {
    goOn = false;
  }
  if (!goOn) Refuse(context);
}

std::string_view View(const xmlChar* begin, const xmlChar* end) {
  return {reinterpret_cast<const char*>(begin), static_cast<size_t>(end - begin)};
}

// SAX2 hands attributes over as (name, prefix, URI, value, end of value).
void StreamStart(void* context, const xmlChar* localName, const xmlChar* prefix, const xmlChar* uri,
                 int namespaceCount, const xmlChar** /*namespaces*/, int attributeCount,
                 int defaultedCount, const xmlChar** attributes) {
  if (prefix != nullptr || uri != nullptr || namespaceCount != 0 || defaultedCount != 0) {
    Refuse(context);
    return;
  }
  for (int i = 0; i < attributeCount; ++i) {
    const xmlChar** attribute = attributes + 5 * i;
    // With references left unexpanded, a value with "&" reads differently
    // from the tree's attribute; such documents take the tree's way.
    if (attribute[1] != nullptr || attribute[2] != nullptr ||
        View(attribute[3], attribute[4]).find('&') != std::string_view::npos) {
      Refuse(context);
      return;
    }
  }
  const std::string_view first =
      attributeCount > 0 ? View(attributes[3], attributes[4]) : std::string_view();
  const std::string_view name(reinterpret_cast<const char*>(localName));
  Tell(context, [&](XmlEventSink& sink) {
    return sink.StartElement(name, attributeCount > 0 ? &first : nullptr);
  });
}

void StreamEnd(void* context, const xmlChar*, const xmlChar*, const xmlChar*) {
  Tell(context, [](XmlEventSink& sink) { return sink.EndElement(); });
}

void StreamText(void* context, const xmlChar* text, int length) {
  Tell(context, [&](XmlEventSink& sink) { return sink.Text(View(text, text + length)); });
}

void RefuseSubset(void* context, const xmlChar*, const xmlChar*, const xmlChar*) {
  Refuse(context);
}
void RefuseComment(void* context, const xmlChar*) { Refuse(context); }
void RefuseReference(void* context, const xmlChar*) { Refuse(context); }
void RefuseInstruction(void* context, const xmlChar*, const xmlChar*) { Refuse(context); }
void RefuseCharacterData(void* context, const xmlChar*, int) { Refuse(context); }
void RefuseError(void* context, xmlErrorPtr) { Refuse(context); }

xmlSAXHandler StreamHandler() {
  xmlSAXHandler handler{};
  handler.initialized = XML_SAX2_MAGIC;
  handler.startElementNs = &StreamStart;
  handler.endElementNs = &StreamEnd;
  // As in the tree builder, white space is text like any other.
  handler.characters = &StreamText;
  handler.ignorableWhitespace = &StreamText;
  handler.internalSubset = &RefuseSubset;
  handler.externalSubset = &RefuseSubset;
  handler.comment = &RefuseComment;
  handler.processingInstruction = &RefuseInstruction;
  handler.cdataBlock = &RefuseCharacterData;
  handler.reference = &RefuseReference;
  handler.serror = &RefuseError;
  return handler;
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

std::error_code StreamXml(const uint8_t* data, size_t size, XmlEventSink& sink) {
  EnsureLibXml();
  if (size > static_cast<size_t>(INT_MAX)) return kSerializationError;
  std::unique_ptr<xmlParserCtxt, ParserContextDeleter> context(xmlNewParserCtxt());
  if (!context || context->sax == nullptr) return kSerializationError;
  // The same call as ParseXml's, with the context's handler swapped: the
  // parser and its options, limits and encoding are the same.
  *context->sax = StreamHandler();
  Stream stream{&sink};
  context->_private = &stream;
  XmlDocument doc;
  {
    const QuietGenericErrors quiet;
    doc.reset(xmlCtxtReadMemory(context.get(), reinterpret_cast<const char*>(data),
                                static_cast<int>(size), nullptr, "UTF-8", kParseOptions));
  }
  const bool clean = !stream.refused && doc == nullptr && context->wellFormed == 1 &&
                     context->nsWellFormed == 1 && context->errNo == XML_ERR_OK;
  return clean ? make_error_code(kSuccess) : make_error_code(kSerializationError);
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
