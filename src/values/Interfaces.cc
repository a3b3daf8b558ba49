// Out-of-line destructors anchor each interface's type information in the
// library, so that dynamic casts agree across the shared-library boundary.
#include "qelss/values/INull.h"
#include "qelss/values/INumber.h"
#include "qelss/values/IString.h"
#include "qelss/values/IValue.h"
#include "qelss/values/IValueInternal.h"
#include "qelss/values/IValueSerialize.h"

namespace QelSS {

IValue::~IValue() = default;
IValueInternal::~IValueInternal() = default;
IValueSerialize::~IValueSerialize() = default;
INull::~INull() = default;
INumber::~INumber() = default;
IString::~IString() = default;

}  // namespace QelSS
