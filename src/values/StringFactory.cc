#include "qelss/values/StringFactory.h"

#include "platform/report/Report.h"
#include "values/String.h"
#include "values/ValueSupport.h"

namespace QelSS {

std::error_code StringFactory::Create(std::shared_ptr<IString>& out, const char* text) {
  return MakeValue<String>(out, text);
}

std::error_code StringFactory::Create(std::shared_ptr<IString>& out, const std::string& text) {
  return MakeValue<String>(out, text);
}

std::error_code StringFactory::Create(std::shared_ptr<IString>& out, void* object) {
  return MakeValue<String>(out, object);
}

std::error_code StringFactory::CreateFromBytes(std::shared_ptr<IString>& out,
                                               const std::vector<unsigned char>& bytes) {
  return CreateValueFromBytes(out, bytes, QelErrTag("QSSC"));
}

}  // namespace QelSS
