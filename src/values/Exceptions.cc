#include "qelss/values/Exceptions.h"

namespace QelSS {

#define QELSS_DEFINE_EXCEPTION(Name)                                                \
  Name::~Name() = default;                                                          \
  QelException::StdErrException* Name::copyThis() const { return new Name(*this); } \
  void Name::deleteAndRethrow() {                                                   \
    Name copy(*this);                                                               \
    delete this;                                                                    \
    throw copy;                                                                     \
  }

QELSS_DEFINE_EXCEPTION(DataTypeException)
QELSS_DEFINE_EXCEPTION(QelSharedSettingsException)
QELSS_DEFINE_EXCEPTION(ConnectionException)
QELSS_DEFINE_EXCEPTION(TransactionException)

#undef QELSS_DEFINE_EXCEPTION

}  // namespace QelSS
