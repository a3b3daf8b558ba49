#include "PredefineCommand.h"

#include <iostream>
#include <memory>
#include <vector>

#include "DomainSession.h"
#include "qelss/predefine/PreDefineManager.h"
#include "qelss/values/Exceptions.h"

namespace QelSS::Qss {
namespace {

std::string CodeText(std::error_code code) {
  return std::string(ErrorCodeName(code.value())) + " (" + std::to_string(code.value()) + ")";
}

void PrintOutcome(const PredefineOutcome& outcome, std::ostream& out) {
  switch (outcome.kind) {
    case PredefineOutcome::Kind::kImported:
      out << "imported " << outcome.file << " into " << outcome.domain;
      break;
    case PredefineOutcome::Kind::kRefused:
      out << "refused " << outcome.file << ": " << outcome.message << ": "
          << CodeText(outcome.code);
      break;
    case PredefineOutcome::Kind::kLeft:
      out << "left " << outcome.file << ": " << outcome.message;
      break;
  }
  if (!outcome.movedTo.empty()) out << "; moved to " << outcome.movedTo;
  out << '\n';
}

// Each domain is opened as `qss write` opens it: under the folder's lock, so
// that other qss processes take turns with the import.
PreDefineManager::ImportTarget SessionTarget(const DomainOptions& options) {
  return [options](const std::string& domain,
                   const std::vector<PreDefineManager::Leaf>& leaves) -> std::error_code {
    std::unique_ptr<DomainSession> session;
    Status status = DomainSession::Open(options, domain, DomainSession::Mode::kWrite, session);
    if (status.ok()) status = session->SetAll(leaves);
    session.reset();
    if (!status.ok()) status.Print(std::cerr);
    return status.ok() ? make_error_code(kSuccess) : status.code();
  };
}

}  // namespace

Status RunPredefine(const DomainOptions& options, const std::optional<std::string>& predefines,
                    std::ostream& out) {
  std::string folder;
  if (predefines) {
    folder = *predefines;
  } else if (std::error_code found = PreDefineManager::DefaultFolder(folder); !Succeeded(found)) {
    return Status::Failure("there is no folder for predefined domains", found,
                           "give one with --predefines");
  }
  std::unique_ptr<PreDefineManager> manager;
  try {
    manager = std::make_unique<PreDefineManager>(folder, SessionTarget(options));
  } catch (const QelSharedSettingsException& error) {
    return Status::Failure("cannot make the folders under " + folder, error.code(),
                           "check that " + folder + " is a folder you may write to");
  }
  std::vector<PredefineOutcome> outcomes;
  if (std::error_code listed = manager->ImportAll(outcomes); !Succeeded(listed)) {
    return Status::Failure("cannot read the folder " + manager->DropFolder(), listed, "");
  }
  size_t refused = 0;
  for (const PredefineOutcome& outcome : outcomes) {
    PrintOutcome(outcome, out);
    if (outcome.kind == PredefineOutcome::Kind::kRefused) ++refused;
  }
  if (refused == 0) return Status::Ok();
  return Status::Failure(std::to_string(refused) + " of " + std::to_string(outcomes.size()) +
                             " dropped files were refused",
                         make_error_code(kPredefineError),
                         "the .reason file beside each in " + folder +
                             "/FailedImports says why; fix it and drop it again");
}

}  // namespace QelSS::Qss
