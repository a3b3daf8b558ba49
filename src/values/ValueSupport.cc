#include "values/ValueSupport.h"

#include <iomanip>
#include <sstream>
#include <stdexcept>

#include "platform/report/Failure.h"
#include "platform/report/Report.h"
#include "values/ByteFormCodec.h"

namespace QelSS {

std::error_code DescribeText(std::string_view text, unsigned int indent, uint32_t componentTag,
                             std::string& out) noexcept {
  std::error_code result = kFailure;
  try {
    // The field width, not explicit padding, yields the leading spaces.
    std::ostringstream stream;
    stream << std::setw(static_cast<std::streamsize>(text.size() + indent)) << text;
    out = stream.str();
    result = kSuccess;
  } catch (...) {
    ReportCaughtException(1, componentTag, "Description");
  }
  return result;
}

std::error_code SerializeValue(const IValue& value, uint32_t componentTag,
                               std::vector<uint8_t>& bytes) noexcept {
  const ByteFormCodec* codec = InstalledByteFormCodec();
  if (codec == nullptr) return kNotImplemented;
  std::error_code result = kFailure;
  try {
    // The writer gets a clone so that it never sees the value change under it.
    std::shared_ptr<IValue> clone;
    result = value.Clone(clone);
    if (!Succeeded(result)) return result;
    std::vector<uint8_t> written;
    result = codec->serialize(clone, written);
    if (Succeeded(result)) bytes = std::move(written);
  } catch (const DataTypeException& exception) {
    result = exception.code();
  } catch (...) {
    ReportCaughtException(1, componentTag, "Serialize");
    result = kFailure;
  }
  return result;
}

std::error_code DeserializeValue(const std::vector<uint8_t>& bytes, uint32_t componentTag,
                                 std::shared_ptr<IValue>& value) noexcept {
  const ByteFormCodec* codec = InstalledByteFormCodec();
  if (codec == nullptr) return kNotImplemented;
  std::error_code result = kFailure;
  try {
    result = codec->deserialize(bytes, value);
  } catch (const DataTypeException& exception) {
    result = exception.code();
  } catch (...) {
    ReportCaughtException(1, componentTag, "CreateFromBytes");
    result = kFailure;
  }
  return result;
}

}  // namespace QelSS
