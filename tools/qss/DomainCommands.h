#pragma once

#include <optional>
#include <ostream>
#include <string>

#include "DomainOptions.h"
#include "Status.h"

namespace QelSS::Qss {

// The commands on one domain. Each checks its arguments before it opens the
// domain, so that a bad command line opens and writes nothing, and closes the
// domain before it returns, so that what it committed is on disk.

// Prints the value at `path`, or the whole domain without one.
Status RunRead(const DomainOptions& options, const std::string& domain,
               const std::optional<std::string>& path, bool asByteForm, std::ostream& out);

// Stores the value that `type` and `value` describe at `path`.
Status RunWrite(const DomainOptions& options, const std::string& domain, const std::string& path,
                const std::string& type, const std::optional<std::string>& value);

Status RunDelete(const DomainOptions& options, const std::string& domain, const std::string& path);

// The whole domain as a formatted byte form, into `file` ("-" or none:
// `out`).
Status RunExport(const DomainOptions& options, const std::string& domain,
                 const std::optional<std::string>& file, std::ostream& out);

// Reads a hash's byte form from `file` ("-": standard input) and makes it the
// domain's contents in one transaction; `merge` keeps the keys the file lacks.
Status RunImport(const DomainOptions& options, const std::string& domain, const std::string& file,
                 bool merge);

}  // namespace QelSS::Qss
