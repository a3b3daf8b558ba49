#include "qelss/values/UUIDFactory.h"

#include "platform/report/Report.h"
#include "values/UUID.h"
#include "values/ValueSupport.h"

namespace QelSS {

std::error_code UUIDFactory::Create(std::shared_ptr<IUUID>& out) { return MakeValue<UUID>(out); }

std::error_code UUIDFactory::Create(std::shared_ptr<IUUID>& out, const UUIDBytes& bytes) {
  return MakeValue<UUID>(out, bytes);
}

std::error_code UUIDFactory::Create(std::shared_ptr<IUUID>& out, void* object) {
  return MakeValue<UUID>(out, object);
}

std::error_code UUIDFactory::CreateFromBytes(std::shared_ptr<IUUID>& out,
                                             const std::vector<unsigned char>& bytes) {
  return CreateValueFromBytes(out, bytes, QelErrTag("SSUC"));
}

}  // namespace QelSS
