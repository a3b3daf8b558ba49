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

class DomainFactory final : public IDomainFactory {
 public:
  // Local domains are opened from their folder; remote ones would need the
  // settings service, which this library cannot reach: they fail with
  // kConnectionError.
  void OpenDomain(const Configuration& configuration, const std::string& name,
                  const std::string& client, OpenDone done, bool create) override;

  // Whether local domain `name` has a file in `folder`, without opening it
  // (kSuccess and `exists`), or why that cannot be told.
  [[nodiscard]] static std::error_code LocalDomainExists(const std::string& folder,
                                                         const std::string& name, bool& exists);
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

// GetDomainFactory behind `gate`: a new factory when its check passed;
// otherwise a failure report ("ValidateExternalCaller", the code under
// kQelErrDomainQelvarinTrustedComponents) and an empty pointer.
std::shared_ptr<IDomainFactory> FactoryBehind(IntegrityGate& gate);

}  // namespace QelSS
