#include "persistence/ByteFormStream.h"

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "persistence/ByteFormNames.h"
#include "persistence/ByteFormNormaliser.h"
#include "persistence/ByteFormScalars.h"
#include "persistence/XmlEscape.h"
#include "platform/xml/Xml.h"
#include "qelss/platform/ErrorCode.h"
#include "qelss/values/ArrayFactory.h"
#include "qelss/values/HashFactory.h"
#include "qelss/values/IArray.h"
#include "qelss/values/IHash.h"
#include "qelss/values/IString.h"
#include "values/ValueCast.h"

namespace QelSS::byteform {
namespace {

using ValuePtr = std::shared_ptr<IValue>;

// One open element. Containers collect their children; scalars their text.
// Slots are reused from one element to the next at the same depth, so their
// strings and vectors keep what they allocated.
struct Open {
  uint32_t type = 0;
  bool container = false;
  std::string_view name;  // libxml2's dictionary keeps it for the whole parse
  std::shared_ptr<IArray> array;
  std::shared_ptr<IHash> hash;
  std::shared_ptr<IString> key;      // read, waiting for its value
  bool ended = false;                // a hash whose key was not a String: the rest is not read
  unsigned int count = 0;            // children taken
  size_t written = 0;                // their rewrites' size (nested containers)
  std::vector<Normalised> replaced;  // children that read back as other values (nested)
  bool hasAttribute = false;
  std::string attribute;
  std::string text;

  void Reset(std::string_view elementName, uint32_t elementType) {
    name = elementName;
    type = elementType;
    container = type == kValueTypeArray || type == kValueTypeHash;
    array.reset();
    hash.reset();
    key.reset();
    ended = false;
    count = 0;
    written = 0;
    replaced.clear();
    hasAttribute = false;
    attribute.clear();
    text.clear();
  }
};

// Every step follows the tree reader's: a step that would fail there, or that
// is not certain to give what it gives there, stops the stream (false) and
// the tree reader takes over. The children of a nested container are
// normalised as they come (the tree reader does it once the container is
// read): only their sizes and the values they read back as matter, and any
// failure stops the stream whatever its order.
class Reader final : public platform::xml::XmlEventSink {
 public:
  // `size`: the document's. Escaping makes a text at most six times longer, so
  // in a document under a sixth of the limit no scalar's rewrite comes near it.
  explicit Reader(size_t size) : small_(size < kLargestSafeRewrite / 6) {}

  ValuePtr TakeResult() { return std::move(result_); }

  bool StartElement(std::string_view name, const std::string_view* attribute) override {
    if (skipped_ > 0 || (depth_ > 0 && Top().ended)) {
      ++skipped_;
      return true;
    }
    if (depth_ > 0 && !Top().container) return false;  // an element inside a scalar
    const uint32_t type = TypeOf(name);
    if (depth_ == stack_.size()) stack_.emplace_back();
    Open& element = stack_[depth_];
    element.Reset(name, type);
    if (depth_ == 0 && !element.container) return false;  // a scalar root: rare, the tree's
    ++depth_;
    if (element.container) {
      return element.type == kValueTypeArray ? Succeeded(ArrayFactory::Create(element.array))
                                             : Succeeded(HashFactory::Create(element.hash));
    }
    if (attribute != nullptr) {
      element.hasAttribute = true;
      element.attribute.assign(*attribute);
    }
    return true;
  }

  bool Text(std::string_view text) override {
    if (skipped_ == 0 && depth_ > 0 && !Top().container) Top().text.append(text);
    return true;
  }

  bool EndElement() override {
    if (skipped_ > 0) {
      --skipped_;
      return true;
    }
    Open& element = Top();
    --depth_;
    ValuePtr value;
    size_t written = 0;
    if (!(element.container ? Finish(element, value, written) : Scalar(element, value))) {
      return false;
    }
    if (depth_ == 0) {
      result_ = std::move(value);
      return true;
    }
    return Add(Top(), std::move(value), written);
  }

 private:
  Open& Top() { return stack_[depth_ - 1]; }

  bool Scalar(const Open& element, ValuePtr& out) const {
    if (element.type == kValueTypeNumber && !element.hasAttribute) return false;
    const char* const attribute = element.hasAttribute ? element.attribute.c_str() : nullptr;
    if (!small_ &&
        ScalarRewriteSize(element.name, attribute, element.text.c_str()) >= kLargestSafeRewrite) {
      return false;
    }
    return Succeeded(ScalarFromText(element.type, attribute, element.text.c_str(), out)) &&
           out != nullptr;
  }

  // A nested container's children take the values they read back as from its
  // rewrite, whose size goes to its parent in `written`; the root is never
  // rewritten.
  bool Finish(Open& element, ValuePtr& out, size_t& written) {
    if (element.key != nullptr) return false;  // a key with no value
    out = element.array ? ValuePtr(element.array) : ValuePtr(element.hash);
    if (depth_ == 0) return true;
    written = ElementSize(element.name, 0) + element.written;
    if (written >= kLargestSafeRewrite) return false;
    return Succeeded(Normaliser::Replace(out, element.replaced));
  }

  bool Add(Open& parent, ValuePtr value, size_t written) {
    // The root's children are not rewritten; deeper ones are.
    const bool nested = depth_ >= 2;
    if (parent.array) {
      if (!Succeeded(parent.array->Append(value))) return false;
      return !nested || Note(parent, value, written, nullptr, parent.count++);
    }
    if (parent.key == nullptr) {
      if (value->GetType() != kValueTypeString) {
        parent.ended = true;
        return true;
      }
      parent.key = AsString(value);
      return parent.key != nullptr;
    }
    const std::shared_ptr<IString> key = std::move(parent.key);
    parent.key.reset();
    if (!Succeeded(parent.hash->Set(key, value))) return false;
    if (!nested) return true;
    // A key given twice replaces a child already counted: the tree's way.
    if (parent.hash->GetCount() != ++parent.count) return false;
    parent.written += ElementSize("String", EscapedTextSize(key->GetCString()));
    return Note(parent, value, written, key, 0);
  }

  // Adds a child of a nested container to its rewrite.
  bool Note(Open& parent, const ValuePtr& value, size_t written,
            const std::shared_ptr<IString>& key, unsigned int index) {
    if (value->GetType() == kValueTypeArray || value->GetType() == kValueTypeHash) {
      parent.written += written;
      return true;
    }
    Normalised child = normaliser_.Normalise(value);
    if (!Succeeded(child.failure)) return false;
    parent.written += child.written;
    if (child.replacement) {
      child.key = key;
      child.index = index;
      parent.replaced.push_back(std::move(child));
    }
    return true;
  }

  // Element names come from libxml2's dictionary, one pointer per name, so the
  // few names of a document are looked up once each.
  uint32_t TypeOf(std::string_view name) {
    for (const auto& [known, type] : types_) {
      if (known == name.data()) return type;
    }
    const uint32_t type = TypeOfElementName(name);
    if (types_.size() < kRememberedNames) types_.emplace_back(name.data(), type);
    return type;
  }

  static constexpr size_t kRememberedNames = 8;

  const bool small_;
  std::vector<std::pair<const char*, uint32_t>> types_;
  std::vector<Open> stack_;
  size_t depth_ = 0;      // open elements being read, at the front of stack_
  unsigned skipped_ = 0;  // depth inside elements that are not read
  Normaliser normaliser_;
  ValuePtr result_;
};

}  // namespace

bool StreamPlainByteForm(const uint8_t* data, size_t size, std::shared_ptr<IValue>& out) noexcept {
  try {
    // Only rewrites can come near libxml2's limits, and each is checked; a
    // document that large goes the tree's way at once.
    if (size >= kLargestSafeRewrite) return false;
    Reader reader(size);
    if (!Succeeded(platform::xml::StreamXml(data, size, reader))) return false;
    ValuePtr result = reader.TakeResult();
    if (result == nullptr) return false;
    out = std::move(result);
    return true;
  } catch (...) {
    return false;
  }
}

}  // namespace QelSS::byteform
