// The library's entry point for opening domains lives here, above the domain
// engine, because only this layer knows both kinds of domain.

#include "domain/DomainFactory.h"
#include "ipc/RemoteDomainSetting.h"

namespace QelSS {

std::shared_ptr<IDomainFactory> GetDomainFactory(IDomainFactory::_change_api_signature*) {
  return FactoryBehind(LibraryIntegrityGate(), &MakeRemoteDomain);
}

}  // namespace QelSS
