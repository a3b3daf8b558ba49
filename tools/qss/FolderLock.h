#pragma once

#include <string>

#include "Status.h"

namespace QelSS::Qss {

// Makes `folder` and its missing parents as the library makes the folders of
// local domains: mode 0770 and group 0, or 0700 where group 0 cannot be given. The tool makes it itself so that the folder is
// exactly the path given: the library would take a blank in the path for a
// level separator.
Status MakeFolder(const std::string& folder);

// Serialises the qss processes that change domains of one folder. A local
// domain loads its file when it opens and writes its whole tree back when it
// closes, so two processes changing the same domain at once would each write
// over the other's change; holding this lock from before the open until after
// the close makes them take turns. Readers need no lock of their own: the
// library holds each domain file's lock for every whole read and write.
class FolderLock {
 public:
  FolderLock() = default;
  ~FolderLock();
  FolderLock(const FolderLock&) = delete;
  FolderLock& operator=(const FolderLock&) = delete;

  // Waits until no other qss process holds the lock of `folder`, then takes it.
  Status Acquire(const std::string& folder);

 private:
  int fd_ = -1;
};

}  // namespace QelSS::Qss
