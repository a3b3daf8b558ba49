#pragma once

// Opening one file of the drop folder for import, with every check that
// decides whether it may be imported at all. The checks run on the open
// descriptor, so a file swapped for another between a look and the read is
// never read in the swapped one's place.

#include <cstdint>
#include <string>
#include <system_error>
#include <vector>

namespace QelSS::predefine {

// Owns a descriptor; closing it releases the import lock taken on it.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd();
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  UniqueFd& operator=(UniqueFd&& other) noexcept;
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

struct DroppedFile {
  enum class State {
    kReadable,  // passed every check: `bytes` holds the file, `fd` its import lock
    kRefused,   // must be refused: `code` and `message` say why
    kLeft,      // not ours to import now: `code` and `message` say why
  };
  State state = State::kLeft;
  std::error_code code;
  std::string message;
  UniqueFd fd;
  std::vector<uint8_t> bytes;
};

// Opens `name` in the folder `folderFd` and runs the checks: a regular file
// reached without a symbolic link, owned by root or this process's user, not
// writable by group or others, at most `maxSize` bytes. Takes the file's
// import lock (another importer holding it, or having moved the file away
// already, leaves it), and leaves a file that a process still has open for
// writing, where the kernel can tell.
DroppedFile OpenDroppedFile(int folderFd, const std::string& name, uint64_t maxSize);

}  // namespace QelSS::predefine
