#pragma once

#include <functional>
#include <memory>
#include <string>
#include <system_error>

#include "qelss/values/IHash.h"

namespace QelSS {

// Reads a domain's settings tree from its encrypted file and writes it back.
// One path P names a domain file; P followed by "xyzzyx" is the temporary file
// of a write. Whatever happens to the process (or, with a durable file system,
// the machine) in the middle of a write, the next read finds either the tree of
// the last completed write or the one being written, never a mixture.
//
// Each call runs synchronously on the storage's own serial queue: the
// completion runs there, exactly once, before the call returns, and must not
// call back into the same storage (that would wait for itself; the queue
// aborts the process instead). Calls from several threads are serialised.
// Storages on one path, in this process or others, take turns through a lock
// file beside it (P ".LOCK"), held for each whole read or write; a hold that
// outlasts ten seconds makes the waiting call fail with kTimeout. An exception
// thrown by a completion is reported and goes no further.
class IStorage {
 public:
  using ReadCompletion = std::function<void(std::error_code, std::shared_ptr<IHash>)>;
  using WriteCompletion = std::function<void(std::error_code)>;
  using KeepCompletion = std::function<void(std::error_code, const std::string&)>;

  virtual ~IStorage();

  // Reads the tree stored at `path`. The completion gets kSuccess and the tree,
  // or a code and a null hash:
  //   kInvalidArgument   empty path;
  //   kDomainNotOpen     neither the file nor its temporary file exists;
  //   kStorageError      the file is larger than 32,000,000 bytes (not opened);
  //   kFileReadError     the file cannot be opened or read;
  //   kCryptError, kVerificationError, key codes   the envelope is empty,
  //                      damaged or cannot be opened with this machine's key;
  //   byte-form codes    the payload is not a hash;
  //   a system error     stat, or the rename below, failed;
  //   kFailure           an exception (memory) cut the work short.
  // When only the temporary file exists (a write stopped between removing the
  // old file and renaming), it is renamed into place first and read.
  // Failures other than bad arguments, a missing file and the size limit are
  // reported with component tag "QSST".
  virtual void ReadSettings(const std::string& path, const ReadCompletion& completion) = 0;

  // Writes `hash` to `path`: byte form, envelope, temporary file (synced), old
  // file removed, temporary file renamed into place (folder synced), mode 0640
  // and group 0. The completion gets kSuccess, or:
  //   kInvalidArgument   empty path or null hash;
  //   byte-form codes, kCryptError, key codes   the tree cannot be sealed;
  //   kFileWriteError    the temporary file cannot be written or synced, or
  //                      the folder cannot be synced;
  //   a system error     removing, renaming or setting permissions failed.
  // Until the old file is removed a failure leaves it intact (and takes away a
  // partly written temporary file); a failed rename leaves the complete
  // temporary file for the next read to promote. Failures other than bad
  // arguments are reported with component tag "QSST".
  virtual void WriteSettings(const std::string& path, const std::shared_ptr<IHash>& hash,
                             const WriteCompletion& completion) = 0;

  // Keeps the (damaged) file at `path` under a second name beside it,
  // P ".damaged-<UTC time>", with its content and mode, so that a later write
  // replacing P destroys nothing. The completion gets kSuccess and that path,
  // or the failure (reported) and an empty path; a caller must then leave P
  // as it is.
  virtual void KeepDamagedFile(const std::string& path, const KeepCompletion& completion) = 0;
};

}  // namespace QelSS
