// Out-of-line destructors anchor each interface's type information in the
// library, so that dynamic casts agree across the shared-library boundary.
#include "domain/IDomainSettingInternal.h"
#include "domain/ITransactionInternal.h"
#include "qelss/domain/IDomainSetting.h"
#include "qelss/domain/IObserver.h"
#include "qelss/domain/ITransaction.h"

namespace QelSS {

ITransaction::~ITransaction() = default;
ITransactionInternal::~ITransactionInternal() = default;
IObserver::~IObserver() = default;
IDomainSetting::~IDomainSetting() = default;
IDomainSettingInternal::~IDomainSettingInternal() = default;

}  // namespace QelSS
