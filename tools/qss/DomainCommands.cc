#include "DomainCommands.h"

#include <memory>

#include "ByteFormText.h"
#include "DomainSession.h"
#include "FileText.h"
#include "ValueParser.h"
#include "ValueText.h"
#include "qelss/values/IHash.h"

namespace QelSS::Qss {
namespace {

using Mode = DomainSession::Mode;

bool IsStandardStream(const std::optional<std::string>& file) { return !file || *file == "-"; }

Status ReadWholeDomain(const DomainOptions& options, const std::string& domain, std::string& text) {
  std::unique_ptr<DomainSession> session;
  if (Status opened = DomainSession::Open(options, domain, Mode::kRead, session); !opened.ok()) {
    return opened;
  }
  std::shared_ptr<IHash> tree;
  if (Status read = session->ReadAll(tree); !read.ok()) return read;
  return WriteByteForm(*tree, true, text);
}

Status ReadOneValue(const DomainOptions& options, const std::string& domain,
                    const std::string& path, bool asByteForm, std::string& text) {
  if (Status valid = CheckKeyPath(path); !valid.ok()) return valid;
  std::unique_ptr<DomainSession> session;
  if (Status opened = DomainSession::Open(options, domain, Mode::kRead, session); !opened.ok()) {
    return opened;
  }
  std::shared_ptr<IValue> value;
  if (Status read = session->Read(path, value); !read.ok()) return read;
  return ValueText(value, asByteForm, text);
}

Status ReadImportFile(const std::string& file, std::shared_ptr<IHash>& tree) {
  const std::string path = file == "-" ? "/dev/stdin" : file;
  std::string text;
  if (Status read = ReadTextFile(path, kMaxByteFormSize, text); !read.ok()) return read;
  const std::string source = file == "-" ? "standard input" : "the file " + file;
  std::shared_ptr<IValue> value;
  if (Status parsed = ReadByteForm(text, source, value); !parsed.ok()) return parsed;
  tree = std::dynamic_pointer_cast<IHash>(value);
  if (!tree) {
    return Status::Failure(source + " holds a single value, not a hash of keys",
                           make_error_code(kInvalidData), "import a file that `qss export` wrote");
  }
  return Status::Ok();
}

}  // namespace

Status RunRead(const DomainOptions& options, const std::string& domain,
               const std::optional<std::string>& path, bool asByteForm, std::ostream& out) {
  std::string text;
  Status shown = path ? ReadOneValue(options, domain, *path, asByteForm, text)
                      : ReadWholeDomain(options, domain, text);
  if (shown.ok()) out << text;
  return shown;
}

Status RunWrite(const DomainOptions& options, const std::string& domain, const std::string& path,
                const std::string& type, const std::optional<std::string>& value) {
  if (Status valid = CheckKeyPath(path); !valid.ok()) return valid;
  std::shared_ptr<IValue> made;
  if (Status parsed = ParseValue(type, value, made); !parsed.ok()) return parsed;
  std::unique_ptr<DomainSession> session;
  if (Status opened = DomainSession::Open(options, domain, Mode::kWrite, session); !opened.ok()) {
    return opened;
  }
  return session->Write(path, made);
}

Status RunDelete(const DomainOptions& options, const std::string& domain, const std::string& path) {
  if (Status valid = CheckKeyPath(path); !valid.ok()) return valid;
  std::unique_ptr<DomainSession> session;
  if (Status opened = DomainSession::Open(options, domain, Mode::kChange, session); !opened.ok()) {
    return opened;
  }
  return session->Delete(path);
}

Status RunExport(const DomainOptions& options, const std::string& domain,
                 const std::optional<std::string>& file, std::ostream& out) {
  std::string text;
  if (Status read = ReadWholeDomain(options, domain, text); !read.ok()) return read;
  if (IsStandardStream(file)) {
    out << text;
    return Status::Ok();
  }
  return WriteTextFile(*file, text);
}

Status RunImport(const DomainOptions& options, const std::string& domain, const std::string& file,
                 bool merge) {
  std::shared_ptr<IHash> tree;
  if (Status read = ReadImportFile(file, tree); !read.ok()) return read;
  std::unique_ptr<DomainSession> session;
  if (Status opened = DomainSession::Open(options, domain, Mode::kWrite, session); !opened.ok()) {
    return opened;
  }
  return session->Import(tree, !merge);
}

}  // namespace QelSS::Qss
