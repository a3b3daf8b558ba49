#include "qelss/api/QSSDomain.h"
#include "qelss/predefine/PreDefineManager.h"

namespace QelSS {
namespace {

// Names the importer to the settings service.
constexpr const char* kIdentity = "com.qelvarin.predefine";

}  // namespace

PreDefineManager::ImportTarget PreDefineManager::FacadeTarget(std::string domainFolder,
                                                              bool useFolder) {
  return [domainFolder = std::move(domainFolder), useFolder](
             const std::string& domain, const std::vector<Leaf>& leaves) -> std::error_code {
    std::shared_ptr<QSSDomain> facade;
    std::error_code result =
        QSSDomain::Create(facade, domain.c_str(), kIdentity, domainFolder.c_str(), useFolder);
    if (!Succeeded(result)) return result;
    if (leaves.empty()) return kSuccess;
    result = facade->CreateTransaction();
    for (size_t i = 0; i < leaves.size() && Succeeded(result); ++i) {
      result = facade->Set(leaves[i].first.c_str(), leaves[i].second);
    }
    // A transaction that failed half-way goes with the facade, uncommitted.
    if (Succeeded(result)) result = facade->CommitTransaction();
    if (Succeeded(result)) result = facade->Save();
    return result;
  };
}

}  // namespace QelSS
