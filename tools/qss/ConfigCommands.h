#pragma once

#include <ostream>
#include <string>

#include "DomainOptions.h"
#include "Status.h"

namespace QelSS::Qss {

// The framework's own bundle: its predefined configurations are the ones the
// current configuration is chosen among.
inline constexpr const char* kFrameworkBundle = "com.qelvarin.QelSharedSettings2";

// Prints the current configuration number (3 until one is set).
Status RunConfigCurrent(const DomainOptions& options, std::ostream& out);

// Makes configuration `number` current.
Status RunConfigSet(const DomainOptions& options, const std::string& number);

// Prints "NUMBER<tab>NAME" for every predefined and user configuration, by
// number.
Status RunConfigList(const DomainOptions& options, std::ostream& out);

}  // namespace QelSS::Qss
