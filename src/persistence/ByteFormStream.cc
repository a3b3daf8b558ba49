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
struct Open {
  uint32_t type = 0;
  bool container = false;
  std::string_view name;  // libxml2's dictionary keeps it for the whole parse
  std::shared_ptr<IArray> array;
  std::shared_ptr<IHash> hash;
  std::shared_ptr<IString> key;  // read, waiting for its value
  bool ended = false;            // a hash whose key was not a String: the rest is not read
  bool hasAttribute = false;
  std::string attribute;
  std::string text;
};

// Every step follows the tree reader's: a step that would fail there, or that
// is not certain to give what it gives there, stops the stream (false) and
// the tree reader takes over.
class Reader final : public platform::xml::XmlEventSink {
 public:
  // `size`: the document's. Escaping makes a text at most six times longer, so
  // in a document under a sixth of the limit no scalar's rewrite comes near it.
  explicit Reader(size_t size) : small_(size < kLargestSafeRewrite / 6) {}

  ValuePtr TakeResult() { return std::move(result_); }

  bool StartElement(std::string_view name, const std::string_view* attribute) override {
    if (skipped_ > 0 || (!open_.empty() && open_.back().ended)) {
      ++skipped_;
      return true;
    }
    if (!open_.empty() && !open_.back().container) return false;  // an element inside a scalar
    Open element;
    element.name = name;
    element.type = TypeOf(name);
    element.container = element.type == kValueTypeArray || element.type == kValueTypeHash;
    if (open_.empty() && !element.container) return false;  // a scalar root: rare, the tree's
    if (element.container) {
      if (element.type == kValueTypeArray ? !Succeeded(ArrayFactory::Create(element.array))
                                          : !Succeeded(HashFactory::Create(element.hash))) {
        return false;
      }
    } else if (attribute != nullptr) {
      element.hasAttribute = true;
      element.attribute.assign(*attribute);
    }
    open_.push_back(std::move(element));
    return true;
  }

  bool Text(std::string_view text) override {
    if (skipped_ == 0 && !open_.empty() && !open_.back().container) open_.back().text.append(text);
    return true;
  }

  bool EndElement() override {
    if (skipped_ > 0) {
      --skipped_;
      return true;
    }
    Open element = std::move(open_.back());
    open_.pop_back();
    ValuePtr value;
    if (!(element.container ? Finish(element, value) : Scalar(element, value))) return false;
    if (open_.empty()) {
      result_ = std::move(value);
      return true;
    }
    return Add(open_.back(), std::move(value));
  }

 private:
  bool Scalar(const Open& element, ValuePtr& out) const {
    if (element.type == kValueTypeNumber && !element.hasAttribute) return false;
    if (!small_) {
      size_t rewrite = ElementSize(element.name, EscapedTextSize(element.text));
      if (element.hasAttribute) {
        rewrite += std::string_view(" type=\"\"").size() + EscapedAttributeSize(element.attribute);
      }
      if (rewrite >= kLargestSafeRewrite) return false;
    }
    return Succeeded(ScalarFromText(element.type,
                                    element.hasAttribute ? element.attribute.c_str() : nullptr,
                                    element.text.c_str(), out)) &&
           out != nullptr;
  }

  // A nested container's children read back from its rewrite; the root is
  // never rewritten.
  bool Finish(Open& element, ValuePtr& out) {
    if (element.key != nullptr) return false;  // a key with no value
    out = element.array ? ValuePtr(element.array) : ValuePtr(element.hash);
    if (open_.empty()) return true;
    size_t written = ElementSize(element.name, 0);
    const std::vector<Normalised> children = normaliser_.NormaliseChildren(out, written);
    if (written >= kLargestSafeRewrite) return false;
    for (const Normalised& child : children) {
      if (!Succeeded(child.failure)) return false;
    }
    if (!Succeeded(Normaliser::Replace(out, children))) return false;
    normaliser_.Remember(out, written);
    return true;
  }

  static bool Add(Open& parent, ValuePtr value) {
    if (parent.array) return Succeeded(parent.array->Append(value));
    if (parent.key == nullptr) {
      if (value->GetType() != kValueTypeString) {
        parent.ended = true;
        return true;
      }
      parent.key = AsString(value);
      return parent.key != nullptr;
    }
    const bool set = Succeeded(parent.hash->Set(parent.key, value));
    parent.key.reset();
    return set;
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
  std::vector<Open> open_;
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
