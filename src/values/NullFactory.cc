#include "qelss/values/NullFactory.h"

#include "values/Null.h"
#include "values/ValueSupport.h"

namespace QelSS {

std::error_code NullFactory::Create(std::shared_ptr<INull>& out) { return MakeValue<Null>(out); }

std::error_code NullFactory::Create(std::shared_ptr<INull>& out, void* object) {
  return MakeValue<Null>(out, object);
}

}  // namespace QelSS
