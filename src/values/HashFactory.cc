#include "qelss/values/HashFactory.h"

#include "platform/report/Report.h"
#include "values/Hash.h"
#include "values/ValueSupport.h"

namespace QelSS {

std::error_code HashFactory::Create(std::shared_ptr<IHash>& out) { return MakeValue<Hash>(out); }

template <>
std::error_code HashFactory::Create<void*>(std::shared_ptr<IHash>& out, void* const& object) {
  return MakeValue<Hash>(out, object);
}

std::error_code HashFactory::CreateFromBytes(std::shared_ptr<IHash>& out,
                                             const std::vector<unsigned char>& bytes) {
  return CreateValueFromBytes(out, bytes, QelErrTag("SSHF"));
}

}  // namespace QelSS
