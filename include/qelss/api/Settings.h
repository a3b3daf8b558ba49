#pragma once

#include <string>
#include <system_error>

#include "qelss/Export.h"

namespace QelSS::Settings {

// The configuration number that stands for "the current configuration", as kept
// by the fixed configurations domain.
inline constexpr unsigned int kCurrentConfiguration = 0xFFFFFFFFu;

// Appends to `id` the identifier under which configuration `configuration` of
// domain `name` is kept: the bare name for configuration 0, otherwise the name
// and ".set<number>" (configuration 3 of "alerts" is "alerts.set3").
// kCurrentConfiguration is first resolved through the configurations domain.
//   kSuccess   `id` extended
//   kFailure   empty `name`; `id` untouched
//   other      the configurations domain could not be opened or read (reported);
//              `id` then holds the name without a suffix
[[nodiscard]] QELSS_EXPORT std::error_code DomainIdForDomain(std::string& id,
                                                             const std::string& name,
                                                             unsigned int configuration);

}  // namespace QelSS::Settings
