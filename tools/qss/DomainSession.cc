#include "DomainSession.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <iostream>
#include <utility>
#include <vector>

#include "HostKeyCheck.h"
#include "ValueParser.h"
#include "qelss/api/Settings.h"
#include "qelss/values/IString.h"

namespace QelSS::Qss {
namespace {

// Names qss to the settings service.
constexpr const char* kIdentity = "com.qelvarin.qss";
constexpr size_t kMaxNameLength = 230;
// A domain file nests at most 200 levels; its root, the settings tree and the
// value itself take three of them.
constexpr size_t kMaxKeyPathLevels = 197;

std::error_code Code(ErrorCode code) { return make_error_code(code); }

Status CheckDomainName(const std::string& name) {
  const char* hint = "name the domain in reverse-DNS style, e.g. com.example.player";
  if (name.empty()) return Status::Usage("the domain name is empty", Code(kInvalidArgument), hint);
  if (name.size() > kMaxNameLength) {
    return Status::Usage("the domain name is " + std::to_string(name.size()) +
                             " bytes long; at most 230 are allowed",
                         Code(kInvalidArgument), hint);
  }
  if (name.find('/') != std::string::npos) {
    return Status::Usage("the domain name \"" + name + "\" holds a \"/\"", Code(kInvalidArgument),
                         hint);
  }
  if (!IsStorableText(name)) {
    return Status::Usage("the domain name holds bytes that are not UTF-8 text",
                         Code(kInvalidArgument), hint);
  }
  return Status::Ok();
}

Status ResolveIdentifier(const DomainOptions& options, const std::string& name, std::string& id) {
  if (options.configuration != 0) {
    const std::error_code made = Settings::DomainIdForDomain(id, name, options.configuration);
    if (!Succeeded(made)) {
      return Status::Failure("cannot find the current configuration", made,
                             "check the configurations with `qss config current`");
    }
  } else {
    id = name;
  }
  if (id.size() > kMaxNameLength) {
    return Status::Usage(
        "the domain name with its configuration, " + id + ", is longer than 230 bytes",
        Code(kInvalidArgument), "choose a shorter domain name");
  }
  return Status::Ok();
}

// Where the library keeps a local domain: the lower-cased name behind a fixed
// prefix.
std::string LocalDomainFile(const std::string& folder, const std::string& id) {
  std::string file = folder + "/com.qelvarin.";
  for (char c : id) file += (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
  return file;
}

bool IsServiceUnavailable(std::error_code code) {
  return code == Code(kConnectionError) || code == Code(kInvalidResponse) || code == Code(kTimeout);
}

// A damaged file without a backup copy to fall back on ends as the code of
// the missing backup, kDomainNotOpen.
bool IsDamagedFile(std::error_code code) {
  if (code.category() != qelss_category()) return false;
  switch (static_cast<ErrorCode>(code.value())) {
    case kDomainNotOpen:
    case kSerializationError:
    case kFileReadError:
    case kStorageError:
    case kCryptError:
    case kVerificationError:
    case kInvalidData:
      return true;
    default:
      return false;
  }
}

Status OpenFailure(const DomainOptions& options, const std::string& name, const std::string& id,
                   std::error_code code) {
  if (options.service) {
    if (IsServiceUnavailable(code)) {
      return Status::Failure("the settings service is not available", code,
                             "run without --service to work on a local domain");
    }
    return Status::Failure("the settings service cannot open domain " + name, code, "");
  }
  if (code == Code(kTimeout)) {
    return Status::Failure(
        "another process has held the file of domain " + name + " for over 10 seconds", code,
        "check for a stopped qss or application using " + options.folder +
            ", then run the command again");
  }
  if (code == Code(kDirectoryError)) {
    return Status::Failure("cannot create the folder " + options.folder, code,
                           "check that it is not a file and that its parent is writable, or "
                           "choose another with --folder");
  }
  if (code == Code(kKeyDerivationError) || code == Code(kKeyReadError) ||
      code == Code(kKeyDecodeError) || code == Code(kKeyChecksumMismatch)) {
    return Status::Failure("the host key that encrypts local domains cannot be read", code,
                           "it is kept in qelvarin/DomainSettings beside the default domain "
                           "folder; without it no local domain of this user can be opened");
  }
  if (IsDamagedFile(code)) {
    const std::string file = LocalDomainFile(options.folder, id);
    return Status::Failure("the domain file " + file + " cannot be read or is damaged", code,
                           "restore it from a copy, or move it away to start " + name +
                               " afresh (then `qss import` an export)");
  }
  if (code == Code(kAllocationFailed)) {
    return Status::Failure("the settings library refused to start", code,
                           "its self-test of the crypto and XML libraries failed on this system");
  }
  return Status::Failure("cannot open domain " + name, code, "");
}

// The levels of a key path: its non-empty components.
size_t PathLevels(const std::string& path) {
  size_t levels = 0;
  for (size_t i = 0; i < path.size(); ++i) {
    if (path[i] != '/' && (i == 0 || path[i - 1] == '/')) ++levels;
  }
  return levels;
}

Status TooLarge(const std::string& what, std::error_code code) {
  return Status::Failure(what +
                             ": a value holds over 10,000,000 bytes of text (data takes a third "
                             "more), more than a domain file keeps in one value",
                         code, "split the value, or keep large content in a file of its own");
}

bool IsSingleKey(const std::string& key) {
  return !key.empty() && key.find('/') == std::string::npos;
}

Status CheckWritable(const std::string& folder) {
  if (::access(folder.c_str(), W_OK | X_OK) == 0) return Status::Ok();
  return Status::Failure("the folder " + folder + " is not writable", Code(kFileWriteError),
                         "fix its permissions, or choose another folder with --folder");
}

// Opening a missing local domain creates it; a command that only looks must
// not leave an empty domain file behind.
Status RequireDomainFile(const DomainOptions& options, const std::string& name,
                         const std::string& id) {
  bool exists = false;
  const std::error_code looked =
      QSSDomain::LocalDomainExists(id.c_str(), options.folder.c_str(), exists);
  if (!Succeeded(looked)) return OpenFailure(options, name, id, looked);
  if (exists) return Status::Ok();
  return Status::NotFound("there is no domain " + name + " in " + options.folder, Code(kNotFound),
                          "check the name and --folder; `qss write` creates a domain");
}

// The library loaded the backup copy of a damaged domain file and will write
// it back; the user must hear of it, and where the damaged file went.
void TellOfRestore(const std::string& name, QSSDomain& facade) {
  std::string kept;
  if (!Succeeded(facade.DamagedFileKept(kept)) || kept.empty()) return;
  std::cerr << "qss: the file of domain " << name
            << " was damaged; the domain was restored from its backup copy\n"
            << "qss: the damaged file is kept as " << kept << '\n';
}

// Everything that can stop a change is checked before the domain is opened.
Status PrepareFolder(const std::string& folder, std::unique_ptr<FolderLock>& lock) {
  if (Status made = MakeFolder(folder); !made.ok()) return made;
  lock = std::make_unique<FolderLock>();
  if (Status locked = lock->Acquire(folder); !locked.ok()) return locked;
  return CheckWritable(folder);
}

}  // namespace

Status CheckKeyPath(const std::string& path) {
  if (path.find_first_not_of('/') == std::string::npos) {
    return Status::Usage("the key path \"" + path + "\" names no key", Code(kInvalidArgument),
                         "give a path such as /window/width");
  }
  if (const size_t levels = PathLevels(path); levels > kMaxKeyPathLevels) {
    return Status::Usage("the key path has " + std::to_string(levels) + " levels; a domain keeps " +
                             std::to_string(kMaxKeyPathLevels) + " at most",
                         Code(kInvalidArgument), "store the value less deeply nested");
  }
  if (!IsStorableText(path)) {
    return Status::Usage("the key path holds bytes a domain cannot keep", Code(kInvalidArgument),
                         "use UTF-8 text without control characters");
  }
  return Status::Ok();
}

DomainSession::DomainSession(const DomainOptions& options, std::string name, std::string file,
                             std::unique_ptr<FolderLock> lock, std::shared_ptr<QSSDomain> facade)
    : options_(options),
      name_(std::move(name)),
      file_(std::move(file)),
      lock_(std::move(lock)),
      facade_(std::move(facade)) {}

DomainSession::~DomainSession() = default;

Status DomainSession::Open(const DomainOptions& options, const std::string& name, Mode mode,
                           std::unique_ptr<DomainSession>& out) {
  if (Status valid = CheckDomainName(name); !valid.ok()) return valid;
  std::string id;
  if (Status resolved = ResolveIdentifier(options, name, id); !resolved.ok()) return resolved;

  if (!options.service) {
    if (Status key = CheckHostKey(options); !key.ok()) return key;
  }
  if (!options.service && mode != Mode::kWrite) {
    if (Status exists = RequireDomainFile(options, name, id); !exists.ok()) return exists;
  }
  std::unique_ptr<FolderLock> lock;
  if (!options.service && mode != Mode::kRead) {
    if (Status ready = PrepareFolder(options.folder, lock); !ready.ok()) return ready;
  }

  std::shared_ptr<QSSDomain> facade;
  const std::error_code opened =
      QSSDomain::Create(facade, id.c_str(), kIdentity, options.folder.c_str(), !options.service);
  if (!Succeeded(opened)) return OpenFailure(options, name, id, opened);
  if (!options.service) TellOfRestore(name, *facade);
  out.reset(new DomainSession(options, name, LocalDomainFile(options.folder, id), std::move(lock),
                              std::move(facade)));
  return Status::Ok();
}

std::string DomainSession::ListHint() const {
  return "check the path with `" + options_.invocation + " read " + name_ + "`";
}

Status DomainSession::Read(const std::string& path, std::shared_ptr<IValue>& value) const {
  if (Status valid = CheckKeyPath(path); !valid.ok()) return valid;
  const std::error_code read = facade_->Get(path.c_str(), value);
  if (read == Code(kNotFound)) {
    return Status::NotFound("no key " + path + " in domain " + name_, read, ListHint());
  }
  if (!Succeeded(read)) return Status::Failure("cannot read " + path, read, "");
  return Status::Ok();
}

Status DomainSession::ReadAll(std::shared_ptr<IHash>& tree) const {
  const std::error_code copied = facade_->CopySettings(tree);
  if (!Succeeded(copied)) return Status::Failure("cannot read domain " + name_, copied, "");
  return Status::Ok();
}

Status DomainSession::CommitFailure(const std::string& what, std::error_code code) const {
  if (code == Code(kInvalidType)) {
    return Status::Failure(what + ": a level of the path holds a value that is not a hash", code,
                           ListHint() + ", or delete the value in the way first");
  }
  if (code == Code(kInvalidArgument)) {
    return Status::Failure(what + ": a domain cannot keep it, as it would nest deeper than the " +
                               std::to_string(kMaxKeyPathLevels + 1) +
                               " levels a key path and its value may take, or holds text a "
                               "domain cannot keep",
                           code, "store it less deeply nested");
  }
  if (code == Code(kStorageError)) return TooLarge(what, code);
  if (code == Code(kTransactionConflict)) {
    return Status::Failure(what + ": another client changed the same keys meanwhile", code,
                           "run the command again");
  }
  if (code == Code(kTimeout)) {
    return Status::Failure(what + ": the domain did not answer within 30 seconds", code,
                           "run the command again");
  }
  return Status::Failure(what, code, "");
}

// A commit is only in memory until the domain writes it; the command reports
// success once it is on disk.
Status DomainSession::Save() const {
  const std::error_code saved = facade_->Save();
  if (Succeeded(saved)) return Status::Ok();
  if (saved == Code(kStorageError))
    return TooLarge("domain " + name_ + " cannot keep the change", saved);
  if (saved == Code(kSerializationError)) {
    return Status::Failure("domain " + name_ +
                               " cannot keep the change: its file could not be "
                               "read back (nesting too deep, or text a domain cannot hold)",
                           saved, "store the value less deeply nested, or as data");
  }
  if (saved == Code(kTimeout)) {
    return Status::Failure("the change to domain " + name_ + " did not reach " + file_ +
                               " in time: another process held the file, or the disk is slow",
                           saved, "run the command again; a write still under way lands later");
  }
  return Status::Failure("the change to domain " + name_ + " cannot be written to " + file_, saved,
                         "check the free space and permissions of " + options_.folder);
}

Status DomainSession::Write(const std::string& path, const std::shared_ptr<IValue>& value) {
  if (Status valid = CheckKeyPath(path); !valid.ok()) return valid;
  const std::error_code written = facade_->SetCommit(path.c_str(), value);
  if (!Succeeded(written)) return CommitFailure("cannot write " + path, written);
  return Save();
}

Status DomainSession::Delete(const std::string& path) {
  std::shared_ptr<IValue> present;
  if (Status found = Read(path, present); !found.ok()) return found;
  const std::error_code deleted = facade_->DeleteAndCommit(path.c_str());
  if (!Succeeded(deleted)) return CommitFailure("cannot delete " + path, deleted);
  return Save();
}

Status DomainSession::Import(const std::shared_ptr<IHash>& tree, bool replace) {
  std::vector<std::string> keys;
  std::vector<std::shared_ptr<IValue>> values;
  (void)tree->Iterate(
      [&](const std::shared_ptr<IString>& key, const std::shared_ptr<IValue>& value, bool&) {
        keys.emplace_back(key->GetCString());
        values.push_back(value);
      });
  // Each key becomes a one-component path; a key that a path cannot address
  // would land somewhere else.
  for (const std::string& key : keys) {
    if (!IsSingleKey(key)) {
      return Status::Failure("the key \"" + key +
                                 "\" cannot be imported: key paths cannot "
                                 "address an empty key or one holding \"/\"",
                             Code(kInvalidArgument), "rename the key in the file");
    }
  }

  std::vector<std::string> stale;
  if (replace) {
    std::shared_ptr<IHash> current;
    if (Status read = ReadAll(current); !read.ok()) return read;
    (void)current->Iterate(
        [&](const std::shared_ptr<IString>& key, const std::shared_ptr<IValue>&, bool&) {
          if (!Succeeded(tree->Contains(key))) stale.emplace_back(key->GetCString());
        });
    for (const std::string& key : stale) {
      if (!IsSingleKey(key)) {
        return Status::Failure("the domain's key \"" + key + "\" cannot be removed by path",
                               Code(kInvalidArgument), "import with --merge instead");
      }
    }
  }

  std::error_code result = facade_->CreateTransaction();
  for (const std::string& key : stale) {
    if (Succeeded(result)) result = facade_->Delete(("/" + key).c_str());
  }
  for (size_t i = 0; i < keys.size() && Succeeded(result); ++i) {
    result = facade_->Set(("/" + keys[i]).c_str(), values[i]);
  }
  if (Succeeded(result)) result = facade_->CommitTransaction();
  if (!Succeeded(result)) return CommitFailure("cannot import into domain " + name_, result);
  return Save();
}

Status DomainSession::SetAll(
    const std::vector<std::pair<std::string, std::shared_ptr<IValue>>>& values) {
  std::error_code result = facade_->CreateTransaction();
  for (size_t i = 0; i < values.size() && Succeeded(result); ++i) {
    result = facade_->Set(values[i].first.c_str(), values[i].second);
  }
  if (Succeeded(result)) result = facade_->CommitTransaction();
  if (!Succeeded(result)) return CommitFailure("cannot change domain " + name_, result);
  return Save();
}

}  // namespace QelSS::Qss
