#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "DomainOptions.h"
#include "FolderLock.h"
#include "Status.h"
#include "qelss/api/QSSDomain.h"
#include "qelss/values/IHash.h"
#include "qelss/values/IValue.h"

namespace QelSS::Qss {

// One domain opened for one command, with every failure turned into a message
// and a hint for the person at the terminal. Closing the session (destroying
// it) releases the facade, and with it the domain, which writes its unsaved
// commits to its file before it goes: a command must end its session before
// the process exits for its changes to be durable and for a failed save to
// stay inside the library's bounded wait.
class DomainSession {
 public:
  enum class Mode {
    kRead,    // looks only: a local domain that does not exist is an error
    kChange,  // changes what is there: the domain must exist, the folder be writable
    kWrite,   // a missing domain starts empty; the folder must be writable
  };

  // Checks the name (1 to 230 bytes, no "/", storable text), resolves the
  // configuration's identifier and opens the domain.
  static Status Open(const DomainOptions& options, const std::string& name, Mode mode,
                     std::unique_ptr<DomainSession>& out);

  ~DomainSession();
  DomainSession(const DomainSession&) = delete;
  DomainSession& operator=(const DomainSession&) = delete;

  // The committed value at `path`; kNotFound is a not-found failure whose hint
  // shows how to list the domain.
  Status Read(const std::string& path, std::shared_ptr<IValue>& value) const;

  // A deep copy of the whole committed settings tree.
  Status ReadAll(std::shared_ptr<IHash>& tree) const;

  // Stores `value` at `path` and commits.
  Status Write(const std::string& path, const std::shared_ptr<IValue>& value);

  // Removes the value at `path` and commits; a path that holds nothing is a
  // not-found failure and nothing is committed.
  Status Delete(const std::string& path);

  // Stores every entry of `tree` under its key, in one transaction, and with
  // `replace` also removes the top-level keys that `tree` lacks. Either all of
  // it is committed or nothing.
  Status Import(const std::shared_ptr<IHash>& tree, bool replace);

  // Stores every value at its key path, in one transaction, and commits:
  // all of it or nothing.
  Status SetAll(const std::vector<std::pair<std::string, std::shared_ptr<IValue>>>& values);

  QSSDomain& facade() { return *facade_; }
  const std::string& name() const { return name_; }

 private:
  DomainSession(const DomainOptions& options, std::string name, std::string file,
                std::unique_ptr<FolderLock> lock, std::shared_ptr<QSSDomain> facade);

  Status CommitFailure(const std::string& what, std::error_code code) const;
  Status Save() const;
  std::string ListHint() const;

  DomainOptions options_;
  std::string name_;
  std::string file_;  // the local domain's file
  // Declared before the facade so that it is released after it: the domain
  // writes its file while it goes.
  std::unique_ptr<FolderLock> lock_;
  std::shared_ptr<QSSDomain> facade_;
};

// Checks a key path before anything is opened: at least one component, each
// storable text.
Status CheckKeyPath(const std::string& path);

}  // namespace QelSS::Qss
