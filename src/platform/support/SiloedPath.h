#pragma once

// Per-user data folder resolution. Returns a malloc'ed path that the caller frees
// with free(), or null on failure. The folder is created if missing (mode 0770
// and group 0, or 0700 where group 0 cannot be given: FilePermissions.h).
//   $XDG_DATA_HOME/qelvarin/<folder>     when XDG_DATA_HOME is set (any user)
//   /var/lib/qelvarin/<folder>           for root
//   ~/.local/share/qelvarin/<folder>     for other users
// `base` names the original platform location and is not used for the result;
// `flag` is reserved.
char* QelCreateSiloedPath(const char* base, const char* folder, int flag);
