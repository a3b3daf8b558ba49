#include "persistence/ByteFormWriter.h"

#include <climits>
#include <cstring>
#include <string>
#include <string_view>

#include "persistence/ByteFormNames.h"
#include "persistence/ByteFormScalars.h"
#include "persistence/XmlEscape.h"
#include "platform/report/Failure.h"
#include "platform/report/Report.h"
#include "qelss/platform/ErrorCode.h"
#include "qelss/values/IArray.h"
#include "qelss/values/IData.h"
#include "qelss/values/IDate.h"
#include "qelss/values/IHash.h"
#include "qelss/values/INull.h"
#include "qelss/values/INumber.h"
#include "qelss/values/IString.h"
#include "qelss/values/IUUID.h"

namespace QelSS::byteform {
namespace {

constexpr uint32_t kTag = QelErrTag("QSSH");

class DirectWriter {
 public:
  DirectWriter(std::vector<uint8_t>& out, const WrittenContainers* written)
      : out_(out), written_(written) {}

  // Each call stands for one call of the reference writer, which catches its own
  // exceptions: a child that throws is a child that failed, not a failed tree.
  std::error_code Write(const std::shared_ptr<IValue>& value) noexcept {
    try {
      return WriteValue(value);
    } catch (...) {
      ReportCaughtException(1, kTag, "Write");
      return kFailure;
    }
  }

 private:
  void Put(std::string_view text) { out_.insert(out_.end(), text.begin(), text.end()); }

  void StartTag(const char* name) {
    Put("<");
    Put(name);
    Put(">");
  }
  void EndTag(const char* name) {
    Put("</");
    Put(name);
    Put(">");
  }

  void TextElement(const char* name, std::string_view text) {
    StartTag(name);
    AppendEscapedText(text, out_);
    EndTag(name);
  }

  std::error_code WriteNumber(const INumber& number, const char* name) {
    NumberText text;
    if (std::error_code code = FormatNumber(number, text); !Succeeded(code)) return code;
    Put("<");
    Put(name);
    Put(" type=\"");
    Put(text.kind);
    Put("\">");
    Put(text.digits);  // digits, signs, "nan", "inf": nothing to escape
    EndTag(name);
    return kSuccess;
  }

  std::error_code WriteData(const IData& data, const char* name) {
    if (data.GetLength() > static_cast<size_t>(INT_MAX)) return kSerializationError;
    StartTag(name);
    AppendBase64Lines(data.GetBytes(), data.GetLength(), out_);
    EndTag(name);
    return kSuccess;
  }

  std::error_code WriteDate(const IDate& date, const char* name) {
    DateText text;
    FormatDate(date, text);
    StartTag(name);
    Put(text.digits);
    EndTag(name);
    return kSuccess;
  }

  std::error_code WriteUuid(const IUUID& uuid, const char* name) {
    std::string text;
    if (std::error_code code = uuid.GetString(text); !Succeeded(code)) return code;
    TextElement(name, text);
    return kSuccess;
  }

  // One child of a container, in pieces for a hash entry (key, then value). A
  // child that cannot be written is cut off again and ends its container.
  template <typename... Pieces>
  void WriteChild(bool& stop, const Pieces&... pieces) {
    const size_t mark = out_.size();
    if ((Succeeded(Write(pieces)) && ...)) return;
    out_.resize(mark);
    stop = true;
  }

  // The container's element around what `walk` writes; the walk's own
  // failure (not a child's) fails the container.
  template <typename Walk>
  std::error_code WriteContainer(const char* name, const char* operation, Walk walk) noexcept {
    try {
      StartTag(name);
      if (std::error_code walked = walk(); !Succeeded(walked)) return walked;
      EndTag(name);
      return kSuccess;
    } catch (...) {
      ReportCaughtException(1, kTag, operation);
      return kFailure;
    }
  }

  std::error_code WriteArray(const IArray& array, const char* name) noexcept {
    return WriteContainer(name, "writeArraytoXML", [&] {
      return array.Iterate([&](const std::shared_ptr<IValue>& element, unsigned int, bool& stop) {
        WriteChild(stop, element);
      });
    });
  }

  std::error_code WriteHash(const IHash& hash, const char* name) noexcept {
    return WriteContainer(name, "writeHashtoXML", [&] {
      return hash.Iterate([&](const std::shared_ptr<IString>& key,
                              const std::shared_ptr<IValue>& value,
                              bool& stop) { WriteChild(stop, key, value); });
    });
  }

  // A value whose tag names an interface it does not have is not written.
  template <typename Interface, typename Write>
  static std::error_code As(const IValue* raw, Write write) {
    auto* typed = dynamic_cast<const Interface*>(raw);
    return typed ? write(*typed) : make_error_code(kFailure);
  }

  std::error_code WriteValue(const std::shared_ptr<IValue>& value) {
    if (!value) return kInvalidArgument;
    const uint32_t type = value->GetType();
    if ((type == kValueTypeArray || type == kValueTypeHash) && written_ != nullptr) {
      if (auto found = written_->find(value); found != written_->end()) {
        out_.insert(out_.end(), found->second.begin(), found->second.end());
        return kSuccess;
      }
    }
    const IValue* raw = value.get();
    switch (type) {
      case kValueTypeNull:
        return As<INull>(raw, [&](const INull&) {
          // libxml2 closes an element without content in its short form.
          Put("<");
          Put(ElementNameOfType(type));
          Put("/>");
          return make_error_code(kSuccess);
        });
      case kValueTypeNumber:
        return As<INumber>(
            raw, [&](const INumber& v) { return WriteNumber(v, ElementNameOfType(type)); });
      case kValueTypeString:
        return As<IString>(raw, [&](const IString& v) {
          TextElement(ElementNameOfType(type), v.GetCString());
          return make_error_code(kSuccess);
        });
      case kValueTypeData:
        return As<IData>(raw,
                         [&](const IData& v) { return WriteData(v, ElementNameOfType(type)); });
      case kValueTypeDate:
        return As<IDate>(raw,
                         [&](const IDate& v) { return WriteDate(v, ElementNameOfType(type)); });
      case kValueTypeUUID:
        return As<IUUID>(raw,
                         [&](const IUUID& v) { return WriteUuid(v, ElementNameOfType(type)); });
      case kValueTypeArray:
        return As<IArray>(raw,
                          [&](const IArray& v) { return WriteArray(v, ElementNameOfType(type)); });
      case kValueTypeHash:
        return As<IHash>(raw,
                         [&](const IHash& v) { return WriteHash(v, ElementNameOfType(type)); });
      default:
        return kFailure;
    }
  }

  std::vector<uint8_t>& out_;
  const WrittenContainers* written_;
};

}  // namespace

std::error_code AppendByteForm(const std::shared_ptr<IValue>& value,
                               std::vector<uint8_t>& out) noexcept {
  return DirectWriter(out, nullptr).Write(value);
}

std::error_code AppendByteForm(const std::shared_ptr<IValue>& value, std::vector<uint8_t>& out,
                               const WrittenContainers& written) noexcept {
  return DirectWriter(out, &written).Write(value);
}

}  // namespace QelSS::byteform
