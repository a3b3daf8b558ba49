#include "persistence/ByteFormNormaliser.h"

#include <cmath>
#include <cstring>
#include <string>
#include <typeinfo>

#include "persistence/ByteFormScalars.h"
#include "persistence/XmlEscape.h"
#include "qelss/platform/ErrorCode.h"
#include "qelss/values/DateFactory.h"
#include "qelss/values/IArray.h"
#include "qelss/values/IData.h"
#include "qelss/values/IDate.h"
#include "qelss/values/IHash.h"
#include "qelss/values/INumber.h"
#include "qelss/values/NumberFactory.h"
#include "values/ValueCast.h"

namespace QelSS::byteform {
namespace {

using ValuePtr = std::shared_ptr<IValue>;

// `value` as Interface; std::bad_cast, as from dynamic_cast, when it is not one.
template <typename Interface, typename Concrete>
const Interface& As(const ValuePtr& value) {
  const Interface* cast = FastCast<Interface, Concrete>(value.get());
  if (cast == nullptr) throw std::bad_cast();
  return *cast;
}

bool SameBits(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// Only doubles change: the other kinds print and parse back exactly.
void NormaliseNumber(const INumber& number, Normalised& child) {
  NumberText text;
  if (child.failure = FormatNumber(number, text); !Succeeded(child.failure)) return;
  child.written = ElementSize("Number", std::string_view(" type=\"\"").size() +
                                            std::strlen(text.kind) + std::strlen(text.digits));
  double before = 0;
  if (!Succeeded(number.GetDouble(before))) return;
  // A whole number prints exactly and so reads back unchanged; parsing the
  // hundreds of digits of a large one would cost microseconds for nothing.
  if (std::isfinite(before) && std::trunc(before) == before) return;
  const double after = std::stod(text.digits);
  if (SameBits(before, after)) return;
  std::shared_ptr<INumber> normalised;
  child.failure = NumberFactory::Create(normalised, after);
  child.replacement = std::move(normalised);
}

// Read dates hold whole seconds, so a date comes back equal, or not at all
// when it lies before 1970 (its time prints as a number no date can hold).
void NormaliseDate(const IDate& date, Normalised& child) {
  DateText text;
  FormatDate(date, text);
  child.written = ElementSize("Date", std::strlen(text.digits));
  std::shared_ptr<IDate> again;
  child.failure = DateFactory::Create(again, std::stol(text.digits, nullptr, 10));
}

}  // namespace

size_t ElementSize(std::string_view name, size_t contentSize) {
  return 2 * name.size() + std::string_view("<></>").size() + contentSize;
}

size_t ScalarRewriteSize(std::string_view name, const char* attribute, const char* content) {
  size_t size = ElementSize(name, EscapedTextSize(content));
  if (attribute != nullptr) {
    size += std::string_view(" type=\"\"").size() + EscapedAttributeSize(attribute);
  }
  return size;
}

std::vector<Normalised> Normaliser::NormaliseChildren(const ValuePtr& container, size_t& written) {
  std::vector<Normalised> children;
  std::error_code walked = kSuccess;
  if (auto array = AsArray(container)) {
    children.reserve(array->GetCount());
    walked = array->Iterate([&](const ValuePtr& element, unsigned int index, bool&) {
      Normalised& child = children.emplace_back(Normalise(element));
      child.index = index;
      written += child.written;
    });
  } else if (auto hash = AsHash(container)) {
    children.reserve(hash->GetCount());
    walked = hash->Iterate([&](const std::shared_ptr<IString>& key, const ValuePtr& value, bool&) {
      Normalised& child = children.emplace_back(Normalise(value));
      child.key = key;
      written += ElementSize("String", EscapedTextSize(key->GetCString())) + child.written;
    });
  }
  if (!Succeeded(walked)) {
    Normalised failed;
    failed.failure = walked;
    children.push_back(std::move(failed));
  }
  return children;
}

std::error_code Normaliser::Replace(const ValuePtr& container,
                                    const std::vector<Normalised>& children) {
  auto array = AsArray(container);
  auto hash = AsHash(container);
  for (const Normalised& child : children) {
    if (!child.replacement) continue;
    std::error_code code = array ? array->Set(child.index, child.replacement)
                                 : hash->Set(child.key, child.replacement);
    if (!Succeeded(code)) return code;
  }
  return kSuccess;
}

Normalised Normaliser::Normalise(const ValuePtr& value) {
  Normalised child;
  child.value = value;
  child.failure = kSuccess;
  switch (value->GetType()) {
    case kValueTypeArray:
    case kValueTypeHash:
      // Read by this walk, and normalised then.
      child.written = writtenSizes_.at(value);
      break;
    case kValueTypeNumber:
      NormaliseNumber(As<INumber, Number>(value), child);
      break;
    case kValueTypeDate:
      NormaliseDate(dynamic_cast<const IDate&>(*value), child);
      break;
    case kValueTypeString:
      child.written =
          ElementSize("String", EscapedTextSize(As<IString, String>(value).GetCString()));
      break;
    case kValueTypeData:
      child.written =
          ElementSize("Data", Base64LinesSize(dynamic_cast<const IData&>(*value).GetLength()));
      break;
    case kValueTypeUUID:
      child.written = ElementSize("UUID", 36);
      break;
    default:
      child.written = std::string_view("<NULL/>").size();
  }
  return child;
}

}  // namespace QelSS::byteform
