#pragma once

#include <string>

#include "Status.h"

namespace QelSS::Qss {

// Reads the whole file at `path` into `out`, refusing one larger than
// `limit` bytes so that a wrong file name cannot exhaust memory.
Status ReadTextFile(const std::string& path, size_t limit, std::string& out);

// Replaces the file at `path` with `text` through a temporary file in the same
// folder, so that a failed write leaves the old file whole. The file gets mode
// 0600: an export carries the settings without the encryption of the domain
// file, so only its owner may read it.
Status WriteTextFile(const std::string& path, const std::string& text);

}  // namespace QelSS::Qss
