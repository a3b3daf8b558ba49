#pragma once

#include <cstddef>
#include <string>
#include <system_error>

namespace QelSS {

// Reads a whole regular file of at most `limit` bytes into `contents`.
//   kNotFound        no such file
//   kFileReadError   not a regular file, unreadable, or larger than `limit`
std::error_code ReadBoundedFile(const std::string& path, size_t limit, std::string& contents);

}  // namespace QelSS
