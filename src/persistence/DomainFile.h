#pragma once

// The steps of reading and writing one domain file, without the storage's
// queue. The byte-level halves stand alone so that they can be measured and
// tested apart from serialisation and encryption.
//
// On disk, per domain path P:
//
//   P             envelope(byte form of the tree); mode 0640, group 0
//   P "xyzzyx"    the temporary file of a write in progress
//   P "xyzzyx.new" the first tree of a domain, before it becomes P
//
// and the states they move through: absent (perhaps with a left-over first
// write, which no reader looks at); P; P and T (writing); T (old file removed,
// rename pending); P again. T alone always holds a complete, synced envelope,
// which is why a reader that finds no P renames T into place.

#include <cstdint>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "platform/support/FileSystem.h"
#include "qelss/values/IHash.h"

namespace QelSS {

inline constexpr uint64_t kMaxDomainFileSize = 32'000'000;
inline constexpr const char* kTemporaryFileSuffix = "xyzzyx";
inline constexpr const char* kFirstWriteFileSuffix = "xyzzyx.new";

// Codes and reports as IStorage::ReadSettings; `out` is set on success only.
[[nodiscard]] std::error_code ReadDomainFile(platform::IFileSystem& files, const std::string& path,
                                             std::shared_ptr<IHash>& out);
// Codes and reports as IStorage::WriteSettings.
[[nodiscard]] std::error_code WriteDomainFile(platform::IFileSystem& files, const std::string& path,
                                              const std::shared_ptr<IHash>& hash);

// The file's bytes, after promoting T and checking the size limit.
[[nodiscard]] std::error_code ReadDomainBytes(platform::IFileSystem& files, const std::string& path,
                                              std::vector<uint8_t>& out);
// Puts `envelope` in place of P through T, durably.
[[nodiscard]] std::error_code ReplaceDomainBytes(platform::IFileSystem& files,
                                                 const std::string& path,
                                                 const std::vector<uint8_t>& envelope);

}  // namespace QelSS
