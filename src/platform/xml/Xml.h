#pragma once

// The library's one door to libxml2: no other folder includes its headers.
// The few services the byte form and the property lists use, with owners that
// free them on every path, and one parse policy for every document the
// library reads.

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlwriter.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <system_error>
#include <vector>

namespace QelSS::platform::xml {

// No network, no error text on stderr (a library never prints); libxml2's own
// limits on nesting and entity expansion stay in force (no huge mode).
inline constexpr int kQuietParseOptions = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;

// Whether the libxml2 loaded at run time serves the headers the library was
// built with (same major version, minor not older), learnt without libxml2's
// own check printing to stderr; on a match it is then initialised.
bool XmlLibraryMatches() noexcept;

// Initialises libxml2 once per process; cheap after the first call. Every
// function here calls it, so callers need not.
void EnsureLibXml() noexcept;

struct XmlDocDeleter {
  void operator()(xmlDoc* doc) const noexcept { xmlFreeDoc(doc); }
};
using XmlDocument = std::unique_ptr<xmlDoc, XmlDocDeleter>;

struct XmlCharDeleter {
  void operator()(xmlChar* text) const noexcept { xmlFree(text); }
};
using XmlText = std::unique_ptr<xmlChar, XmlCharDeleter>;

// xmlReadMemory without a word on stderr, whatever libxml2 refuses: a library
// never prints. Null when libxml2 makes no document (or `size` exceeds int).
// `textLimit`, when given, is set when libxml2's limit on one text node was
// among the refusals.
xmlDoc* ReadXmlQuietly(const char* data, size_t size, const char* url, const char* encoding,
                       int options, bool* textLimit = nullptr);

// Parses `size` bytes of UTF-8 XML. kSerializationError when libxml2 makes no
// document, and for a document that declares entities: byte forms never do, and
// refusing them closes every entity-expansion attack (xmlNodeGetContent would
// expand references that the parser leaves in the tree).
//
// Besides the defaults this adds only options that cannot change the tree of a
// document libxml2 accepts: no network access, and no error text on stderr (a
// library never prints). libxml2's own limits stay in force: 256 levels of
// nesting, about 10,000,000 bytes in one text node, and loops and gross
// amplification of entities (not reached, see above). kStorageError when the
// text node limit refused the document, kSerializationError for any other
// refusal.
[[nodiscard]] std::error_code ParseXml(const uint8_t* data, size_t size, XmlDocument& out);

// ParseXml's result for `size` bytes, learnt without keeping the document:
// every element below the root that has no sibling before it is freed as soon
// as it ends. Nothing libxml2 checks looks at a finished element: text is
// joined only to a text node that is the last child, and an element freed
// leaves no last child where a kept one would not be text either. So the
// answer is ParseXml's, while a document of many small elements needs memory
// for one path of open elements instead of the whole tree.
[[nodiscard]] std::error_code ParseXmlAccepts(const uint8_t* data, size_t size);

// What a streaming parse meets, in document order. Each call returns false to
// stop the parse; one that throws stops it too.
class XmlEventSink {
 public:
  virtual ~XmlEventSink() = default;
  // An element starts. `attribute` is the value of its first attribute, or
  // null when it has none.
  virtual bool StartElement(std::string_view name, const std::string_view* attribute) = 0;
  virtual bool EndElement() = 0;
  // Character data inside the current element, in one or more pieces.
  virtual bool Text(std::string_view text) = 0;
};

// Parses as ParseXml does, without building a tree, and tells `sink`. Only the
// plain subset of XML is streamed: a document type, a comment, a processing
// instruction, a character data section, an entity or character reference in
// an attribute, a namespace, or any error or warning of libxml2 ends the parse
// with kSerializationError, as does a sink that stops it. kSuccess means the
// document was well formed, plain, and streamed whole: then ParseXml would
// accept it, and a tree reader would meet the same elements, first attributes
// and texts. A caller that meets kSerializationError reads the document with
// ParseXml, which decides what it is.
[[nodiscard]] std::error_code StreamXml(const uint8_t* data, size_t size, XmlEventSink& sink);

// The text of a node and its descendants (xmlNodeGetContent); null only when
// libxml2 cannot make it.
XmlText NodeContent(const xmlNode* node);

// The text of the node's first attribute, whatever its name; null when the node
// has none or libxml2 cannot make the text.
XmlText FirstAttributeText(const xmlNode* node);

// A text writer on a memory buffer, without compression.
class XmlMemoryWriter {
 public:
  XmlMemoryWriter() = default;
  ~XmlMemoryWriter();
  XmlMemoryWriter(const XmlMemoryWriter&) = delete;
  XmlMemoryWriter& operator=(const XmlMemoryWriter&) = delete;

  // kSerializationError when the buffer or the writer cannot be made.
  [[nodiscard]] std::error_code Open();
  xmlTextWriterPtr writer() const noexcept { return writer_; }
  // Flushes the writer and replaces `out` with the buffer's bytes.
  // kSerializationError when the flush fails.
  [[nodiscard]] std::error_code Finish(std::vector<uint8_t>& out);

 private:
  xmlBufferPtr buffer_ = nullptr;
  xmlTextWriterPtr writer_ = nullptr;
};

}  // namespace QelSS::platform::xml
