#include "persistence/ByteFormReader.h"

#include <cstring>
#include <string_view>
#include <utility>
#include <vector>

#include "persistence/ByteForm.h"
#include "persistence/ByteFormNames.h"
#include "persistence/ByteFormNormaliser.h"
#include "persistence/ByteFormReference.h"
#include "persistence/ByteFormScalars.h"
#include "persistence/ByteFormWriter.h"
#include "persistence/XmlEscape.h"
#include "platform/report/Failure.h"
#include "platform/report/Report.h"
#include "platform/xml/Xml.h"
#include "qelss/platform/ErrorCode.h"
#include "qelss/values/ArrayFactory.h"
#include "qelss/values/HashFactory.h"
#include "qelss/values/IData.h"
#include "qelss/values/IString.h"

namespace QelSS::byteform {
namespace {

using ValuePtr = std::shared_ptr<IValue>;

constexpr uint32_t kTag = QelErrTag("QSSH");

const char* Name(const xmlNode* node) { return reinterpret_cast<const char*>(node->name); }

xmlNode* NextElement(xmlNode* node) {
  while (node != nullptr && node->type != XML_ELEMENT_NODE) node = node->next;
  return node;
}

// A child that has been read is not looked at again. Freeing it at once keeps
// the document and the values made from it from being held whole together.
void Discard(xmlNode* node) {
  xmlUnlinkNode(node);
  xmlFreeNode(node);
}

std::error_code Parses(const std::vector<uint8_t>& bytes) {
  return platform::xml::ParseXmlAccepts(bytes.data(), bytes.size());
}

bool IsContainer(const ValuePtr& value) {
  return value->GetType() == kValueTypeArray || value->GetType() == kValueTypeHash;
}

// A String or Data child of a container is rewritten a second time from the
// text of its written element; for data that text has LF where the writer put
// CR LF. The result is parsed to see whether libxml2 takes it.
std::error_code RewriteOfWrittenScalarParses(const ValuePtr& value) {
  std::vector<uint8_t> rewrite;
  if (auto* data = dynamic_cast<const IData*>(value.get())) {
    constexpr std::string_view kStart = "<Data>";
    constexpr std::string_view kEnd = "</Data>";
    rewrite.assign(kStart.begin(), kStart.end());
    AppendBase64Lines(data->GetBytes(), data->GetLength(), rewrite, "\n");
    rewrite.insert(rewrite.end(), kEnd.begin(), kEnd.end());
  } else if (!Succeeded(AppendByteForm(value, rewrite))) {
    return kSerializationError;
  }
  return Parses(rewrite);
}

// Counts one level of nesting for as long as it lives.
class Deeper {
 public:
  explicit Deeper(unsigned& level) : level_(level) { ++level_; }
  ~Deeper() { --level_; }
  Deeper(const Deeper&) = delete;
  Deeper& operator=(const Deeper&) = delete;

 private:
  unsigned& level_;
};

class Walk {
 public:
  std::error_code ReadRoot(xmlNode* root, ValuePtr& out) {
    const uint32_t type = TypeOfElementName(Name(root));
    if (type != kValueTypeArray && type != kValueTypeHash) {
      return ReadScalarElement(root, type, out);
    }
    return ReadContainer(root, type, out);
  }

 private:
  std::error_code ReadContainer(xmlNode* node, uint32_t type, ValuePtr& out) {
    return type == kValueTypeArray ? ReadArray(node, out) : ReadHash(node, out);
  }

  std::error_code ReadArray(xmlNode* node, ValuePtr& out) {
    std::shared_ptr<IArray> array;
    if (std::error_code code = ArrayFactory::Create(array); !Succeeded(code)) return code;
    for (xmlNode* child = NextElement(node->children); child != nullptr;) {
      ValuePtr element;
      if (std::error_code code = ReadChild(child, element); !Succeeded(code)) return code;
      if (std::error_code code = array->Append(element); !Succeeded(code)) return code;
      xmlNode* next = NextElement(child->next);
      Discard(child);
      child = next;
    }
    out = std::move(array);
    return kSuccess;
  }

  // Key and value alternate; a key that is not a String ends the hash there,
  // successfully, and a key with nothing after it is refused.
  std::error_code ReadHash(xmlNode* node, ValuePtr& out) {
    std::shared_ptr<IHash> hash;
    if (std::error_code code = HashFactory::Create(hash); !Succeeded(code)) return code;
    for (xmlNode* child = NextElement(node->children); child != nullptr;) {
      ValuePtr key;
      if (std::error_code code = ReadChild(child, key); !Succeeded(code)) return code;
      if (!key || key->GetType() != kValueTypeString) {
        rewrites_.erase(key);
        break;
      }
      auto keyString = std::dynamic_pointer_cast<IString>(key);
      if (!keyString) return kInvalidData;
      xmlNode* valueNode = NextElement(child->next);
      Discard(child);
      if (valueNode == nullptr) return kInvalidData;
      ValuePtr value;
      if (std::error_code code = ReadChild(valueNode, value); !Succeeded(code)) return code;
      if (std::error_code code = hash->Set(keyString, value); !Succeeded(code)) return code;
      child = NextElement(valueNode->next);
      Discard(valueNode);
    }
    out = std::move(hash);
    return kSuccess;
  }

  // What reading the child's rewrite gives. Exceptions are reported here, as
  // the reference reader reports them from its reading of that rewrite.
  std::error_code ReadChild(xmlNode* child, ValuePtr& out) noexcept {
    try {
      return IsContainerName(Name(child)) ? ReadContainerChild(child, out)
                                          : ReadScalarChild(child, out);
    } catch (...) {
      ReportCaughtException(1, kTag, "Read");
      return kFailure;
    }
  }

  std::error_code ReadScalarChild(const xmlNode* child, ValuePtr& out) {
    platform::xml::XmlText attribute = platform::xml::FirstAttributeText(child);
    platform::xml::XmlText content = platform::xml::NodeContent(child);
    if (!content) return kSerializationError;
    if (child->properties != nullptr && !attribute) return kSerializationError;
    if (ScalarRewriteSize(Name(child), reinterpret_cast<const char*>(attribute.get()),
                          reinterpret_cast<const char*>(content.get())) >= kLargestSafeRewrite) {
      std::vector<uint8_t> rewrite;
      if (std::error_code code = convertXMLNodeToBytes(child, rewrite); !Succeeded(code)) {
        return code;
      }
      if (std::error_code code = Parses(rewrite); !Succeeded(code)) return code;
    }
    const uint32_t type = TypeOfElementName(Name(child));
    if (type == kValueTypeNumber && child->properties == nullptr) return kFailure;
    return ScalarFromText(type, reinterpret_cast<const char*>(attribute.get()),
                          reinterpret_cast<const char*>(content.get()), out);
  }

  // The reference reader reads the container, writes it, parses that and reads
  // it again; the second reading fails only where normalising a direct scalar
  // child fails, or where libxml2 refuses a large rewrite.
  std::error_code ReadContainerChild(xmlNode* child, ValuePtr& out) {
    const uint32_t type = std::strcmp(Name(child), "Array") == 0 ? kValueTypeArray : kValueTypeHash;
    const Deeper deeper(level_);
    ValuePtr container;
    if (std::error_code code = ReadContainer(child, type, container); !Succeeded(code)) {
      return code;
    }
    size_t written = ElementSize(ElementNameOfType(type), 0);
    std::vector<Normalised> children = normaliser_.NormaliseChildren(container, written);
    if (written >= kLargestSafeRewrite) {
      if (std::error_code code = CheckLargeRewrite(container, children, written);
          !Succeeded(code)) {
        return code;
      }
    }
    for (const Normalised& normalised : children) {
      // Nested containers had their rewrites parsed when they were read.
      if (normalised.written >= kLargestSafeRewrite && !IsContainer(normalised.value)) {
        if (std::error_code code = RewriteOfWrittenScalarParses(normalised.value);
            !Succeeded(code)) {
          return code;
        }
      }
      if (!Succeeded(normalised.failure)) return normalised.failure;
    }
    if (std::error_code code = Normaliser::Replace(container, children); !Succeeded(code)) {
      return code;
    }
    normaliser_.Remember(container, written);
    out = std::move(container);
    return kSuccess;
  }

  // Writes the rewrite of a container nested `level_` deep and parses it. Its
  // nested containers' rewrites were kept when they were checked, and are
  // copied rather than written again; its own is kept for its parent's.
  std::error_code CheckLargeRewrite(const ValuePtr& container,
                                    const std::vector<Normalised>& children, size_t written) {
    if (!CountReferenceWork(written)) return kSerializationError;
    std::vector<uint8_t> rewrite;
    rewrite.reserve(written);
    const std::error_code code = AppendByteForm(container, rewrite, rewrites_);
    for (const Normalised& child : children) {
      if (child.value) rewrites_.erase(child.value);
    }
    if (!Succeeded(code)) return code;
    if (std::error_code parsed = Parses(rewrite); !Succeeded(parsed)) return parsed;
    // A container one level down is the child of one that is rewritten too.
    if (level_ >= 2) rewrites_.emplace(container, std::move(rewrite));
    return kSuccess;
  }

  // Adds what the reference reader spends on this rewrite: it writes and
  // parses it again for every reading of its parent, and each level of
  // nesting reads its containers twice. False past kReferenceWorkLimit.
  bool CountReferenceWork(size_t written) {
    const unsigned doublings = level_ - 1;
    if (doublings >= 64 || written > (kReferenceWorkLimit >> doublings)) return false;
    referenceWork_ += uint64_t{written} << doublings;
    return referenceWork_ <= kReferenceWorkLimit;
  }

  Normaliser normaliser_;
  // How deep the container being read lies: 0 for the root, which is never
  // rewritten.
  unsigned level_ = 0;
  // Bytes the reference reader would write and parse for the large rewrites
  // checked so far.
  uint64_t referenceWork_ = 0;
  // Large rewrites whose parent's rewrite is still to be written.
  WrittenContainers rewrites_;
};

}  // namespace

std::error_code ReadRootElement(xmlNode* root, std::shared_ptr<IValue>& out) noexcept {
  std::error_code result = kFailure;
  try {
    ValuePtr value;
    std::error_code code = Walk().ReadRoot(root, value);
    if (Succeeded(code)) out = std::move(value);
    result = code;
  } catch (...) {
    ReportCaughtException(1, kTag, "Read");
  }
  return result;
}

}  // namespace QelSS::byteform
