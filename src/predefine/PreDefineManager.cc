#include "qelss/predefine/PreDefineManager.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>

#include "domain/DomainFactory.h"
#include "persistence/ByteForm.h"
#include "persistence/DomainFile.h"
#include "platform/report/Failure.h"
#include "platform/support/FilePermissions.h"
#include "platform/support/SiloedPath.h"
#include "predefine/DroppedFile.h"
#include "predefine/Leaves.h"
#include "qelss/values/Exceptions.h"
#include "values/StorableText.h"

namespace QelSS {
namespace {

using predefine::DroppedFile;
using predefine::UniqueFd;

constexpr uint32_t kReportTag = QelErrTag("SSPM");
constexpr const char* kInitFailed = "Failed to init PreDefineManager";
constexpr const char* kDropFolder = "Domains";
constexpr const char* kSuccessFolder = "SuccessfulImports";
constexpr const char* kFailedFolder = "FailedImports";
constexpr const char* kReasonSuffix = ".reason";
constexpr const char* kXmlSuffix = ".xml";
// Two imports of one name within a second get "-2", "-3", ... after the stamp.
constexpr int kMaxSameStamp = 1000;

[[noreturn]] void FailInit(ErrorCode code) {
  throw QelSharedSettingsException(make_error_code(code), kInitFailed);
}

UniqueFd OpenFolder(const std::string& path) {
  return UniqueFd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

std::string UtcStamp() {
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  ::gmtime_r(&now, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &utc);
  return text;
}

// The domain a dropped file's name gives: the name, without ".xml".
std::string DomainOf(const std::string& file) {
  const size_t suffix = std::char_traits<char>::length(kXmlSuffix);
  if (file.size() > suffix && file.compare(file.size() - suffix, suffix, kXmlSuffix) == 0) {
    return file.substr(0, file.size() - suffix);
  }
  return file;
}

std::string NameProblem(const std::string& domain) {
  if (domain.size() > kMaxDomainNameLength) {
    return "the domain name is longer than " + std::to_string(kMaxDomainNameLength) + " bytes";
  }
  for (unsigned char c : domain) {
    if (c < 0x20 || c == 0x7f) return "the domain name holds a control character";
  }
  if (!IsStorableText(domain)) return "the domain name is not UTF-8 text";
  return {};
}

std::string ReasonText(std::error_code code, const std::string& message) {
  return std::to_string(code.value()) + " " + std::string(ErrorCodeName(code.value())) + ": " +
         message + "\n";
}

}  // namespace

struct PreDefineManager::Folders {
  UniqueFd drop;
  UniqueFd success;
  UniqueFd failed;
};

PreDefineManager::PreDefineManager(std::string folder, ImportTarget target)
    : folder_(std::move(folder)),
      dropFolder_(folder_ + "/" + kDropFolder),
      target_(std::move(target)),
      folders_(std::make_unique<Folders>()) {
  if (folder_.empty() || !target_) FailInit(kInvalidArgument);
  std::error_code made;
  std::filesystem::create_directories(folder_, made);
  for (const char* sub : {kDropFolder, kSuccessFolder, kFailedFolder}) {
    if (!platform::MakeGroupZeroFolder(folder_ + "/" + sub)) FailInit(kDirectoryError);
  }
  folders_->drop = OpenFolder(dropFolder_);
  folders_->success = OpenFolder(folder_ + "/" + kSuccessFolder);
  folders_->failed = OpenFolder(folder_ + "/" + kFailedFolder);
  if (!folders_->drop || !folders_->success || !folders_->failed) FailInit(kDirectoryError);
}

PreDefineManager::~PreDefineManager() = default;

std::error_code PreDefineManager::DefaultFolder(std::string& folder) {
  char* silo = QelCreateSiloedPath("/Library/Application Support/Qelvarin", "DomainSettings", 0);
  if (silo == nullptr) return kDirectoryError;
  folder = std::string(silo) + "/Predefines";
  std::free(silo);
  return kSuccess;
}

std::error_code PreDefineManager::ImportAll(std::vector<PredefineOutcome>& outcomes) {
  const int listing = ::dup(folders_->drop.get());
  DIR* dir = listing < 0 ? nullptr : ::fdopendir(listing);
  if (dir == nullptr) {
    if (listing >= 0) ::close(listing);
    return kDirectoryError;
  }
  ::rewinddir(dir);
  std::vector<std::string> names;
  while (const dirent* entry = ::readdir(dir)) {
    if (entry->d_name[0] != '.') names.emplace_back(entry->d_name);
  }
  ::closedir(dir);
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    PredefineOutcome outcome;
    (void)ImportFile(name, outcome);
    outcomes.push_back(std::move(outcome));
  }
  return kSuccess;
}

std::error_code PreDefineManager::ImportFile(const std::string& file, PredefineOutcome& outcome) {
  outcome = PredefineOutcome{};
  outcome.file = file;
  if (file.empty() || file[0] == '.' || file.find('/') != std::string::npos) {
    outcome.code = make_error_code(kNotFound);
    outcome.message = "not a name the drop folder holds files under";
    return outcome.code;
  }
  outcome.domain = DomainOf(file);
  DroppedFile dropped = predefine::OpenDroppedFile(folders_->drop.get(), file, kMaxDomainFileSize);
  if (dropped.state == DroppedFile::State::kLeft) {
    outcome.code = dropped.code;
    outcome.message = std::move(dropped.message);
    return outcome.code;
  }
  if (dropped.state == DroppedFile::State::kRefused) {
    Refuse(dropped.code, dropped.message, outcome);
    return outcome.code;
  }
  if (std::string problem = NameProblem(outcome.domain); !problem.empty()) {
    Refuse(make_error_code(kInvalidArgument), problem, outcome);
    return outcome.code;
  }
  std::vector<Leaf> leaves;
  std::string problem;
  if (std::error_code read = predefine::ReadLeaves(dropped.bytes, leaves, problem);
      read != kSuccess) {
    Refuse(read, problem, outcome);
    return outcome.code;
  }
  if (std::error_code committed = target_(outcome.domain, leaves); committed != kSuccess) {
    Refuse(committed, "the commit into " + outcome.domain + " failed", outcome);
    return outcome.code;
  }
  outcome.kind = PredefineOutcome::Kind::kImported;
  outcome.code = make_error_code(kSuccess);
  Move(folders_->success.get(), kSuccessFolder, outcome);
  // The lock on the file is let go only now (dropped.fd), after the move.
  return outcome.code;
}

void PreDefineManager::Refuse(std::error_code code, const std::string& message,
                              PredefineOutcome& outcome) {
  outcome.kind = PredefineOutcome::Kind::kRefused;
  outcome.code = code;
  outcome.message = message;
  const std::string text = outcome.file + ": " + message;
  ReportFailure({kReportTag, "Import", kPredefineErrorDomain, text.c_str(), nullptr,
                 outcome.domain.empty() ? nullptr : outcome.domain.c_str()},
                code);
  const std::string moved = Move(folders_->failed.get(), kFailedFolder, outcome);
  if (moved.empty()) return;
  const UniqueFd reason(::openat(folders_->failed.get(), (moved + kReasonSuffix).c_str(),
                                 O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0640));
  if (!reason) return;
  const std::string body = ReasonText(code, message);
  (void)!::write(reason.get(), body.data(), body.size());
}

// Moves the file into `folderFd` under its name and a time stamp, never over
// another file. Returns the new name; empty when it could not be moved (it
// then stays, and is looked at again next time).
std::string PreDefineManager::Move(int folderFd, const char* folderName,
                                   PredefineOutcome& outcome) {
  const std::string stamped = outcome.file + "." + UtcStamp();
  for (int n = 1; n <= kMaxSameStamp; ++n) {
    const std::string name = n == 1 ? stamped : stamped + "-" + std::to_string(n);
    if (::renameat2(folders_->drop.get(), outcome.file.c_str(), folderFd, name.c_str(),
                    RENAME_NOREPLACE) == 0) {
      outcome.movedTo = folder_ + "/" + folderName + "/" + name;
      return name;
    }
    if (errno != EEXIST) break;
  }
  const std::string text =
      outcome.file + ": cannot be moved to " + folderName + ": " + std::strerror(errno);
  ReportFailure({kReportTag, "Import", kPredefineErrorDomain, text.c_str()},
                make_error_code(kFileWriteError));
  return {};
}

}  // namespace QelSS
