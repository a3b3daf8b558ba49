#include "qelss/values/NumberFactory.h"

#include "platform/report/Report.h"
#include "values/Number.h"
#include "values/ValueSupport.h"

namespace QelSS {

std::error_code NumberFactory::Create(std::shared_ptr<INumber>& out, long long value) {
  return MakeValue<Number>(out, value);
}

std::error_code NumberFactory::Create(std::shared_ptr<INumber>& out, unsigned long long value) {
  return MakeValue<Number>(out, value);
}

std::error_code NumberFactory::Create(std::shared_ptr<INumber>& out, bool value) {
  return MakeValue<Number>(out, value);
}

std::error_code NumberFactory::Create(std::shared_ptr<INumber>& out, double value) {
  return MakeValue<Number>(out, value);
}

std::error_code NumberFactory::Create(std::shared_ptr<INumber>& out, void* object) {
  return MakeValue<Number>(out, object);
}

std::error_code NumberFactory::CreateFromBytes(std::shared_ptr<INumber>& out,
                                               const std::vector<unsigned char>& bytes) {
  return CreateValueFromBytes(out, bytes, QelErrTag("SSNC"));
}

}  // namespace QelSS
