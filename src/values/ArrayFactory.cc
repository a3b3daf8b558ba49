#include "qelss/values/ArrayFactory.h"

#include "values/Array.h"
#include "values/ValueSupport.h"

namespace QelSS {

std::error_code ArrayFactory::Create(std::shared_ptr<IArray>& out) { return MakeValue<Array>(out); }

template <>
std::error_code ArrayFactory::Create<void*>(std::shared_ptr<IArray>& out, void* const& object) {
  return MakeValue<Array>(out, object);
}

}  // namespace QelSS
