#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <system_error>

#include "qelss/domain/DomainFactory.h"

namespace QelSS {

// The error domain of the support library's integrity check.
inline constexpr const char* kQelErrDomainQelvarinTrustedComponents =
    "kQelErrDomainQelvarinTrustedComponents";

// Longest domain name that the factory accepts without a complaint, in bytes.
inline constexpr size_t kMaxDomainNameLength = 230;

class DomainSetting;

class DomainFactory final : public IDomainFactory {
 public:
  // Makes a domain kept by the settings service; throws as a domain's
  // constructor does. The domain engine cannot name that class itself: the
  // messaging layer above it hands this in.
  using RemoteMaker = std::shared_ptr<DomainSetting> (*)(const std::string& name, bool create,
                                                         const std::string& client);

  // Without `remote`, remote domains fail to open with kConnectionError.
  explicit DomainFactory(RemoteMaker remote = nullptr) noexcept : remote_(remote) {}

  // Local domains are opened from their folder, remote ones through `remote`.
  void OpenDomain(const Configuration& configuration, const std::string& name,
                  const std::string& client, OpenDone done, bool create) override;

  // Whether local domain `name` has a file in `folder`, without opening it
  // (kSuccess and `exists`), or why that cannot be told.
  [[nodiscard]] static std::error_code LocalDomainExists(const std::string& folder,
                                                         const std::string& name, bool& exists);

 private:
  const RemoteMaker remote_;
};

// A check that runs at most once, however many threads ask, and whose result is
// kept for every later asker.
class IntegrityGate {
 public:
  // 0 when the libraries pass, a failure code otherwise.
  using Check = int (*)() noexcept;

  constexpr explicit IntegrityGate(Check check) noexcept : check_(check) {}
  IntegrityGate(const IntegrityGate&) = delete;
  IntegrityGate& operator=(const IntegrityGate&) = delete;

  int Result();

 private:
  const Check check_;
  std::once_flag once_;
  int result_ = 0;  // written once, under once_
};

// GetDomainFactory behind `gate`: a new factory opening remote domains with
// `remote` when its check passed; otherwise a failure report
// ("ValidateExternalCaller", the code under
// kQelErrDomainQelvarinTrustedComponents) and an empty pointer.
std::shared_ptr<IDomainFactory> FactoryBehind(IntegrityGate& gate,
                                              DomainFactory::RemoteMaker remote = nullptr);

// The gate of the library's own integrity check, run once per process.
IntegrityGate& LibraryIntegrityGate();

}  // namespace QelSS
