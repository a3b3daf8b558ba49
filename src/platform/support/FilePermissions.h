#pragma once

#include <string>
#include <sys/types.h>
#include <system_error>

namespace QelSS::platform {

inline constexpr unsigned kKeepMode = 0xFFFF;

// Files and folders the library makes are meant for their owner and group 0
// (0640 and 0770). A process that may not give them group 0 would otherwise
// share them with its own primary group, which can hold other accounts: for
// it the group bits are dropped instead (0600 and 0700), leaving the owner and
// root, which is what group 0 was for.
//
// True when the process may hand a file to group 0: root, or a member of it.
bool MayUseGroupZero();
// `mode` as this process applies it to something meant for group 0.
unsigned ModeForGroupZero(unsigned mode);

// Sets mode (unless kKeepMode), then owner and group (-1 keeps either). An empty
// path gives kDirectoryError; a failing chmod or chown gives errno in the system
// category. For group 0 the mode goes through ModeForGroupZero, and a process
// that may not use group 0 keeps the file's group: not a failure. Success
// gives kSuccess.
std::error_code SetFilePermissions(const std::string& path, unsigned mode, uid_t owner,
                                   gid_t group);

// Makes one folder meant for its owner and group 0: mode 0770 and group 0, or
// 0700 (ModeForGroupZero). A folder that already exists is left as it is, its
// mode included. True when `path` is a folder afterwards.
bool MakeGroupZeroFolder(const std::string& path);

}  // namespace QelSS::platform
