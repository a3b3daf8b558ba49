#pragma once

#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "qelss/Export.h"
#include "qelss/values/IValue.h"

namespace QelSS {

// What became of one dropped file.
struct PredefineOutcome {
  enum class Kind {
    kImported,  // committed, and moved to SuccessfulImports
    kRefused,   // changed no domain, and moved to FailedImports beside its .reason
    kLeft,      // left where it is, for later: still open for writing, or being
                // imported by another process
  };
  Kind kind = Kind::kLeft;
  std::string file;      // its name in the drop folder
  std::string domain;    // the domain its name gives; empty when the name gives none
  std::error_code code;  // kSuccess, the refusal's code, or why it was left
  std::string message;   // what went wrong, or why it was left; empty when imported
  std::string movedTo;   // the path it was moved to; empty when left
};

// Imports the domain files an administrator drops into "<folder>/Domains/":
// each file, named after its domain ("<domain>" or "<domain>.xml"), holds a
// Hash in the byte form that `qss export` writes, and is imported as one
// transaction that sets every leaf it holds (values that are not hashes, and
// empty hashes) and leaves the domain's other keys alone. Afterwards the file
// is moved to "<folder>/SuccessfulImports/" or, refused, to
// "<folder>/FailedImports/" beside a ".reason" text, its name followed by a UTC
// time stamp.
//
// A file is refused, and changes no domain, when it is not a regular file or
// is a symbolic link, is owned by neither root nor this process's user, is
// writable by its group or by others, is larger than a domain file may be,
// does not parse, holds something other than a Hash, names no valid domain,
// holds a key that a key path cannot address, or fails to commit. Names that
// start with "." are not looked at (editors' and copy tools' temporaries).
//
// Several importers may watch one drop folder (two services, the tool beside
// the service): each file is imported by exactly one of them. A file that some
// process still holds open for writing is left for later, where that can be
// told (the file is this user's, or this process may lease others' files).
//
// Thread safety: one import at a time per manager; managers on one folder may
// run in any number of threads and processes.
class QELSS_EXPORT PreDefineManager {
 public:
  // One setting of a dropped file: its key path ("/a/b") and value.
  using Leaf = std::pair<std::string, std::shared_ptr<IValue>>;
  // Commits every leaf into domain `domain` in one transaction, all or
  // nothing, creating the domain when it is missing.
  using ImportTarget =
      std::function<std::error_code(const std::string& domain, const std::vector<Leaf>& leaves)>;

  // `folder` holds Domains/, SuccessfulImports/ and FailedImports/; the
  // missing ones are made (mode 0770). Throws QelSharedSettingsException with
  // "Failed to init PreDefineManager": kInvalidArgument for an empty folder
  // or target, kDirectoryError when a folder cannot be made or opened.
  PreDefineManager(std::string folder, ImportTarget target);
  ~PreDefineManager();
  PreDefineManager(const PreDefineManager&) = delete;
  PreDefineManager& operator=(const PreDefineManager&) = delete;

  // The administrator's folder: the per-user data folder "DomainSettings"
  // followed by "/Predefines". kDirectoryError when there is none.
  [[nodiscard]] static std::error_code DefaultFolder(std::string& folder);

  // A target that commits through the domain facade: into local domains
  // under `domainFolder` when `useFolder`, into the settings service's
  // domains otherwise.
  static ImportTarget FacadeTarget(std::string domainFolder, bool useFolder);

  // Imports every file in the drop folder, in name order; `outcomes` gets one
  // entry per file looked at. kDirectoryError when the folder cannot be read;
  // kSuccess otherwise, whatever each file's outcome.
  [[nodiscard]] std::error_code ImportAll(std::vector<PredefineOutcome>& outcomes);

  // Imports the file named `file` in the drop folder. kSuccess when it was
  // imported; kNotFound (outcome kLeft) when it is absent or was taken by
  // another importer; otherwise the outcome's code.
  [[nodiscard]] std::error_code ImportFile(const std::string& file, PredefineOutcome& outcome);

  const std::string& DropFolder() const noexcept { return dropFolder_; }

 private:
  struct Folders;

  void Refuse(std::error_code code, const std::string& message, PredefineOutcome& outcome);
  std::string Move(int folderFd, const char* folderName, PredefineOutcome& outcome);

  const std::string folder_;
  const std::string dropFolder_;
  const ImportTarget target_;
  std::unique_ptr<Folders> folders_;  // open descriptors of the three folders
};

}  // namespace QelSS
