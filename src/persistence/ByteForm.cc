#include "persistence/ByteForm.h"

#include "persistence/ByteFormReader.h"
#include "persistence/ByteFormReference.h"
#include "persistence/ByteFormStream.h"
#include "persistence/ByteFormWriter.h"
#include "platform/report/Failure.h"
#include "platform/report/Report.h"
#include "platform/xml/Xml.h"
#include "qelss/platform/ErrorCode.h"
#include "values/ByteFormCodec.h"

namespace QelSS {
namespace {

constexpr uint32_t kTag = QelErrTag("QSSH");

std::error_code CheckInput(const std::vector<uint8_t>& bytes) {
  if (bytes.empty()) return kInvalidArgument;
  if (bytes.size() > kMaxByteFormSize) return kSerializationError;
  return kSuccess;
}

}  // namespace

// Every Serialize and CreateFromBytes of the value model ends up here.
const ByteFormCodec kLibraryByteFormCodec{&WriteByteForm, &ReadByteForm};

std::error_code WriteByteForm(const std::shared_ptr<IValue>& value,
                              std::vector<uint8_t>& bytes) noexcept {
  std::vector<uint8_t> written;
  std::error_code code = byteform::AppendByteForm(value, written);
  if (Succeeded(code)) bytes = std::move(written);
  return code;
}

std::error_code ReadByteForm(const std::vector<uint8_t>& bytes,
                             std::shared_ptr<IValue>& value) noexcept {
  std::error_code result = kFailure;
  try {
    if (std::error_code code = CheckInput(bytes); !Succeeded(code)) return code;
    if (byteform::StreamPlainByteForm(bytes.data(), bytes.size(), value)) return kSuccess;
    platform::xml::XmlDocument doc;
    if (std::error_code code = platform::xml::ParseXml(bytes.data(), bytes.size(), doc);
        !Succeeded(code)) {
      return code;
    }
    xmlNode* root = xmlDocGetRootElement(doc.get());
    if (root == nullptr) return kSerializationError;
    std::shared_ptr<IValue> read;
    std::error_code code = byteform::ReadRootElement(root, read);
    if (Succeeded(code)) value = std::move(read);
    result = code;
  } catch (...) {
    ReportCaughtException(1, kTag, "Read");
  }
  return result;
}

std::error_code byteform::ReadByteFormReference(const std::vector<uint8_t>& bytes,
                                                std::shared_ptr<IValue>& out) noexcept {
  if (std::error_code code = CheckInput(bytes); !Succeeded(code)) return code;
  return ReadValueReference(bytes.data(), bytes.size(), out);
}

}  // namespace QelSS
