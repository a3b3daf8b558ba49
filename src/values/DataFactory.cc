#include "qelss/values/DataFactory.h"

#include "platform/report/Report.h"
#include "values/Data.h"
#include "values/ValueSupport.h"

namespace QelSS {

std::error_code DataFactory::Create(std::shared_ptr<IData>& out, const unsigned char* bytes,
                                    unsigned long length) {
  return MakeValue<Data>(out, bytes, length);
}

std::error_code DataFactory::Create(std::shared_ptr<IData>& out, void* object) {
  return MakeValue<Data>(out, object);
}

std::error_code DataFactory::CreateFromBytes(std::shared_ptr<IData>& out,
                                             const std::vector<unsigned char>& bytes) {
  return CreateValueFromBytes(out, bytes, QelErrTag("SSDC"));
}

}  // namespace QelSS
