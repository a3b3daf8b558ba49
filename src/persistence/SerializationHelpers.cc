#include "qelss/persistence/SerializationHelpers.h"

#include "persistence/ByteForm.h"
#include "platform/report/Failure.h"
#include "platform/report/Report.h"
#include "platform/xml/Xml.h"
#include "qelss/platform/ErrorCode.h"

namespace QelSS::serialization_helpers {

std::error_code FormatBytes(const std::vector<unsigned char>& input,
                            std::vector<unsigned char>& output) {
  std::error_code result = kFailure;
  try {
    if (input.empty()) return kInvalidArgument;
    if (input.size() > kMaxByteFormSize) return kSerializationError;
    platform::xml::XmlDocument doc;
    if (std::error_code code = platform::xml::ParseXml(input.data(), input.size(), doc);
        !Succeeded(code)) {
      return code;
    }
    xmlChar* dumped = nullptr;
    int size = 0;
    xmlDocDumpFormatMemory(doc.get(), &dumped, &size, 1);
    platform::xml::XmlText owned(dumped);
    if (!owned || size < 0) return kSerializationError;
    output.assign(owned.get(), owned.get() + size);
    result = kSuccess;
  } catch (...) {
    ReportCaughtException(1, QelErrTag("QSSH"), "FormatBytes");
  }
  return result;
}

}  // namespace QelSS::serialization_helpers
