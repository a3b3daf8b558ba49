#include "qelss/values/DateFactory.h"

#include "platform/report/Report.h"
#include "values/Date.h"
#include "values/ValueSupport.h"

namespace QelSS {

std::error_code DateFactory::Create(std::shared_ptr<IDate>& out) { return MakeValue<Date>(out); }

std::error_code DateFactory::Create(std::shared_ptr<IDate>& out, long secondsSince1970) {
  return MakeValue<Date>(out, secondsSince1970);
}

std::error_code DateFactory::Create(std::shared_ptr<IDate>& out, double absoluteTime) {
  return MakeValue<Date>(out, absoluteTime);
}

std::error_code DateFactory::Create(std::shared_ptr<IDate>& out, void* object) {
  return MakeValue<Date>(out, object);
}

std::error_code DateFactory::CreateFromBytes(std::shared_ptr<IDate>& out,
                                             const std::vector<unsigned char>& bytes) {
  return CreateValueFromBytes(out, bytes, QelErrTag("SDAC"));
}

}  // namespace QelSS
