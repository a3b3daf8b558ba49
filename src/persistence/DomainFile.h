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
//   P ".LOCK"     the lock that every process holds for a whole read or
//                 write of P (upper case, so no lower-cased domain name
//                 can end up with it); never removed
//   P ".damaged-<UTC time>"   a damaged P kept before it is replaced
//
// and the states they move through: absent (perhaps with a left-over first
// write, which no reader looks at); P; P and T (writing); T (old file removed,
// rename pending); P again. T alone always holds a complete, synced envelope,
// which is why a reader that finds no P renames T into place.

#include <chrono>
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
inline constexpr const char* kLockFileSuffix = ".LOCK";
inline constexpr const char* kDamagedFileSuffix = ".damaged-";
// How long a read or write waits for another process's hold on a domain file
// (a read or write normally takes milliseconds) before it fails with kTimeout.
inline constexpr std::chrono::milliseconds kDomainLockWait{10'000};

// Codes and reports as IStorage::ReadSettings; `out` is set on success only.
[[nodiscard]] std::error_code ReadDomainFile(platform::IFileSystem& files, const std::string& path,
                                             std::shared_ptr<IHash>& out);
// Codes and reports as IStorage::WriteSettings.
[[nodiscard]] std::error_code WriteDomainFile(platform::IFileSystem& files, const std::string& path,
                                              const std::shared_ptr<IHash>& hash);

// Every function below holds P's lock while it looks at or changes P and T,
// so that a process never sees the moment between another's removal of P
// and its rename of T. A lock held elsewhere longer than kDomainLockWait
// gives kTimeout (reported). Where the lock file cannot be made at all (no
// folder, or one this process may not write) they go on without it: such a
// process cannot change the files either.

// Whether the domain at `path` exists: P, or T alone (which a read promotes).
[[nodiscard]] std::error_code DomainFileExists(platform::IFileSystem& files,
                                               const std::string& path, bool& exists);

// Keeps the damaged P under a new name beside it, P ".damaged-<UTC time>"
// (shortened where the name would be too long for the file system), with P's
// content and mode, before P is replaced. `kept` receives that path. Fails
// (reported) when P cannot be kept: the caller must then not replace it.
[[nodiscard]] std::error_code KeepDamagedFile(platform::IFileSystem& files,
                                              const std::string& path, std::string& kept);

// The file's bytes, after promoting T and checking the size limit.
[[nodiscard]] std::error_code ReadDomainBytes(platform::IFileSystem& files, const std::string& path,
                                              std::vector<uint8_t>& out);
// Puts `envelope` in place of P through T, durably.
[[nodiscard]] std::error_code ReplaceDomainBytes(platform::IFileSystem& files,
                                                 const std::string& path,
                                                 const std::vector<uint8_t>& envelope);

}  // namespace QelSS
