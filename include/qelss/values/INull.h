#pragma once

#include "qelss/Export.h"
#include "qelss/values/IValue.h"

namespace QelSS {

// The null value (tag kValueTypeNull): a present setting without content. Its
// description is "nullObj"; all nulls are equal.
class QELSS_EXPORT INull : public virtual IValue {
 public:
  ~INull() override;
};

}  // namespace QelSS
