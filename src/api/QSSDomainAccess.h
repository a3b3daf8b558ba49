#pragma once

#include <memory>

#include "qelss/api/QSSDomain.h"
#include "qelss/domain/IDomainSetting.h"

namespace QelSS {

// The library's own way into a facade: to hand it the domain that opening
// produced, and for tests to put a facade in front of a domain of their making.
struct QSSDomainAccess {
  static void Adopt(QSSDomain& facade, std::shared_ptr<IDomainSetting> domain) {
    facade.domain_ = std::move(domain);
  }

  static std::shared_ptr<QSSDomain> Wrap(std::shared_ptr<IDomainSetting> domain) {
    auto facade = std::make_shared<QSSDomain>(QSSDomain::ConstructionKey{});
    Adopt(*facade, std::move(domain));
    return facade;
  }
};

}  // namespace QelSS
