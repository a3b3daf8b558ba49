#include "ByteFormText.h"

#include <vector>

#include "qelss/persistence/SerializationHelpers.h"
#include "qelss/values/HashFactory.h"
#include "qelss/values/IArray.h"
#include "qelss/values/IHash.h"

namespace QelSS::Qss {
namespace {

constexpr std::string_view kBlanks = " \t\r\n";

// Drops surrounding blanks and an XML declaration: the text is about to be
// placed inside another element, where a declaration is not allowed.
std::string_view Body(std::string_view text) {
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  text.remove_prefix(first);
  if (text.starts_with("<?xml")) {
    const size_t end = text.find("?>");
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 2);
  }
  const size_t last = text.find_last_not_of(kBlanks);
  return last == std::string_view::npos ? std::string_view() : text.substr(0, last + 1);
}

Status Damaged(const std::string& source, const std::string& why, std::error_code code) {
  return Status::Failure(source + " " + why, code,
                         "give the XML byte form of one value, as `qss read` and "
                         "`qss export` print it");
}

// Only hashes and three scalar kinds have a public reader of their own, so the
// value is read as the single element of an array under the single key of a
// hash. Text that tries to close those wrappers early leaves more than one
// entry or element behind, and is refused.
Status ReadWrapped(std::string_view body, const std::string& source, std::shared_ptr<IValue>& out) {
  std::string document = "<Hash><String>v</String><Array>";
  document.append(body);
  document += "</Array></Hash>";
  const std::vector<unsigned char> bytes(document.begin(), document.end());
  std::shared_ptr<IHash> wrapper;
  const std::error_code read = HashFactory::CreateFromBytes(wrapper, bytes);
  if (read == make_error_code(kStorageError)) {
    return Status::Failure(source +
                               " holds a value of over 10,000,000 bytes of text, more than a "
                               "domain file keeps in one value",
                           read, "split the value, or keep large content in a file of its own");
  }
  if (!Succeeded(read)) return Damaged(source, "is not a well-formed value", read);

  std::shared_ptr<IValue> inner;
  if (wrapper->GetCount() != 1 || !Succeeded(wrapper->Get("v", inner))) {
    return Damaged(source, "holds more than one value", make_error_code(kInvalidData));
  }
  const auto list = std::dynamic_pointer_cast<IArray>(inner);
  std::shared_ptr<IValue> value;
  if (!list || list->GetCount() != 1 || !Succeeded(list->Get(0, value))) {
    return Damaged(source, "does not hold exactly one value", make_error_code(kInvalidData));
  }
  out = std::move(value);
  return Status::Ok();
}

}  // namespace

Status ReadByteForm(std::string_view text, const std::string& source,
                    std::shared_ptr<IValue>& out) {
  if (text.size() > kMaxByteFormSize) {
    return Damaged(source, "is larger than a domain may be (32,000,000 bytes)",
                   make_error_code(kInvalidArgument));
  }
  const std::string_view body = Body(text);
  if (body.empty()) return Damaged(source, "is empty", make_error_code(kInvalidArgument));
  return ReadWrapped(body, source, out);
}

Status WriteByteForm(const IValue& value, bool formatted, std::string& out) {
  std::vector<uint8_t> bytes;
  std::error_code result = value.Serialize(bytes);
  if (Succeeded(result) && formatted) {
    std::vector<unsigned char> pretty;
    result = serialization_helpers::FormatBytes(bytes, pretty);
    bytes.swap(pretty);
  }
  if (!Succeeded(result)) {
    return Status::Failure("cannot write the value's XML byte form", result, "");
  }
  out.assign(bytes.begin(), bytes.end());
  return Status::Ok();
}

}  // namespace QelSS::Qss
