#include "CommandLine.h"

#include <CLI/CLI.hpp>

#include <charconv>
#include <functional>
#include <iostream>
#include <optional>
#include <string>

#include "ConfigCommands.h"
#include "DefaultFolder.h"
#include "DomainCommands.h"
#include "DomainOptions.h"
#include "PredefineCommand.h"
#include "ValueParser.h"
#include "WatchCommand.h"
#include "qelss/api/Settings.h"
#include "qelss/configurations/Bundles.h"

namespace QelSS::Qss {
namespace {

constexpr const char* kDescription =
    "qss: read and change settings domains.\n"
    "Local domains live in one encrypted file each, in the folder given with --folder or, by\n"
    "default, $XDG_DATA_HOME/qelvarin/domains (~/.local/share/qelvarin/domains; for root\n"
    "/var/lib/qelvarin/domains). Key paths separate the levels of nested hashes with \"/\".";

constexpr const char* kFooter =
    "Exit status: 0 success; 1 bad command line, nothing done; 2 the domain or key does not\n"
    "exist; 3 any other failure, with the library's code named in the message.\n";

constexpr const char* kWriteFooter =
    "TYPE and VALUE:\n"
    "  int, uint      a whole number (signed or unsigned 64-bit)\n"
    "  double         a decimal number; domain files keep six decimals\n"
    "  bool           true or false (also yes/no, on/off, 1/0)\n"
    "  string         the text as it stands\n"
    "  data           hexadecimal digits (0aff10, also hex:0aff10) or base64:TEXT\n"
    "  date           seconds since 1970, or ISO 8601 UTC: 2024-05-01 or 2024-05-01T12:30:00Z\n"
    "  uuid           8-4-4-4-12 hexadecimal digits\n"
    "  null           no VALUE\n"
    "  hash, array    the XML byte form, as `qss read` prints it:\n"
    "                 '<Hash><String>w</String><Number type=\"int\">3</Number></Hash>'\n"
    "A VALUE that starts with \"-\" and is not a number goes after \"--\":\n"
    "  qss write D /note string -- -x\n";

// The words the user typed before the command, collected while parsing.
struct Arguments {
  std::optional<std::string> folder;
  bool service = false;
  bool newKey = false;
  std::optional<std::string> configuration;
  std::optional<std::string> bundles;

  std::string domain;
  std::optional<std::string> path;
  std::string requiredPath;
  std::string type;
  std::optional<std::string> value;
  std::optional<std::string> file;
  std::string requiredFile;
  std::string number;
  bool asByteForm = false;
  bool merge = false;
  std::optional<std::string> predefines;
};

std::string ShellWord(const std::string& word) {
  if (!word.empty() && word.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                              "0123456789/._-+:=@%,") == std::string::npos) {
    return word;
  }
  std::string quoted = "'";
  for (char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

Status ParseConfiguration(const std::string& text, unsigned int& out) {
  if (text == "current") {
    out = Settings::kCurrentConfiguration;
    return Status::Ok();
  }
  unsigned int number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() ||
      number == Settings::kCurrentConfiguration) {
    return Status::Usage("\"" + text + "\" is not a configuration",
                         make_error_code(kInvalidArgument),
                         "give --configuration a number, or \"current\"");
  }
  out = number;
  return Status::Ok();
}

Status MakeOptions(const Arguments& arguments, DomainOptions& options) {
  options.service = arguments.service;
  options.newKey = arguments.newKey;
  options.invocation = "qss";
  if (arguments.folder) {
    options.folder = *arguments.folder;
    options.invocation += " --folder " + ShellWord(*arguments.folder);
  } else {
    options.folder = DefaultFolder();
  }
  if (options.folder.empty() && !options.service) {
    return Status::Usage("no folder for local domains: HOME is not set",
                         make_error_code(kInvalidArgument), "give one with --folder");
  }
  if (arguments.service) options.invocation += " --service";
  if (arguments.configuration) {
    if (Status parsed = ParseConfiguration(*arguments.configuration, options.configuration);
        !parsed.ok()) {
      return parsed;
    }
    options.invocation += " --configuration " + ShellWord(*arguments.configuration);
  }
  if (arguments.bundles) AddBundleSearchDirectory(*arguments.bundles);
  return Status::Ok();
}

using Command = std::function<Status(const DomainOptions&)>;

void AddGlobalOptions(CLI::App& app, Arguments& arguments) {
  CLI::Option* folder =
      app.add_option("--folder", arguments.folder, "folder of local domains")->type_name("DIR");
  app.add_flag("--service", arguments.service,
               "work on domains of the settings service instead of local ones")
      ->excludes(folder);
  app.add_flag("--new-key", arguments.newKey,
               "when the host key file is missing, make a new one although domains encrypted "
               "with the lost key exist (they stay unreadable)");
  app.add_option("--configuration", arguments.configuration,
                 "work on that configuration's copy of the domain: a number, or \"current\"")
      ->type_name("N");
  app.add_option("--bundles", arguments.bundles,
                 "data folder searched first for qelvarin/bundles (predefined configurations)")
      ->type_name("DIR");
}

void AddDomainCommands(CLI::App& app, Arguments& a, Command& command, std::ostream& out) {
  CLI::App* read = app.add_subcommand("read", "print the value at KEYPATH, or the whole domain");
  read->add_option("DOMAIN", a.domain, "domain name")->required();
  read->add_option("KEYPATH", a.path, "key path, e.g. /window/width");
  read->add_flag("--xml", a.asByteForm, "print scalars as their XML byte form too");
  read->callback([&] {
    command = [&](const DomainOptions& o) {
      return RunRead(o, a.domain, a.path, a.asByteForm, out);
    };
  });

  CLI::App* write = app.add_subcommand("write", "store a value at KEYPATH");
  write->add_option("DOMAIN", a.domain, "domain name")->required();
  write->add_option("KEYPATH", a.requiredPath, "key path; missing levels are made")->required();
  write->add_option("TYPE", a.type, kValueTypeHelp)->required();
  write->add_option("VALUE", a.value, "the value, read as TYPE says");
  write->footer(kWriteFooter);
  write->callback([&] {
    command = [&](const DomainOptions& o) {
      return RunWrite(o, a.domain, a.requiredPath, a.type, a.value);
    };
  });

  CLI::App* remove = app.add_subcommand("delete", "remove the value at KEYPATH");
  remove->add_option("DOMAIN", a.domain, "domain name")->required();
  remove->add_option("KEYPATH", a.requiredPath, "key path")->required();
  remove->callback([&] {
    command = [&](const DomainOptions& o) { return RunDelete(o, a.domain, a.requiredPath); };
  });

  CLI::App* exporting = app.add_subcommand("export", "write the whole domain as its XML byte form");
  exporting->add_option("DOMAIN", a.domain, "domain name")->required();
  exporting->add_option("FILE", a.file, "file to write (mode 0600); standard output without one");
  exporting->callback([&] {
    command = [&](const DomainOptions& o) { return RunExport(o, a.domain, a.file, out); };
  });

  CLI::App* importing = app.add_subcommand(
      "import", "make the domain hold what FILE holds, in one transaction: all or nothing");
  importing->add_option("DOMAIN", a.domain, "domain name")->required();
  importing
      ->add_option("FILE", a.requiredFile,
                   "a hash's XML byte form, as `qss export` writes it; \"-\" reads standard "
                   "input")
      ->required();
  importing->add_flag("--merge", a.merge, "keep the domain's keys that FILE does not hold");
  importing->callback([&] {
    command = [&](const DomainOptions& o) {
      return RunImport(o, a.domain, a.requiredFile, a.merge);
    };
  });

  CLI::App* watch = app.add_subcommand(
      "watch", "print the changes other clients make, until interrupted (needs --service)");
  watch->add_option("DOMAIN", a.domain, "domain name")->required();
  watch->add_option("PATH", a.path, "print only changes at or under this key path");
  watch->callback([&] {
    command = [&](const DomainOptions& o) {
      return RunWatch(o, a.domain, a.path.value_or(""), out);
    };
  });
}

void AddPredefineCommand(CLI::App& app, Arguments& a, Command& command, std::ostream& out) {
  CLI::App* predefine = app.add_subcommand(
      "predefine", "import the domain files dropped in the administrator's folder, once");
  predefine
      ->add_option("--predefines", a.predefines,
                   "folder holding Domains/, SuccessfulImports/ and FailedImports/; by default "
                   "qelvarin/DomainSettings/Predefines in the data folder")
      ->type_name("DIR");
  predefine->callback([&] {
    command = [&](const DomainOptions& o) { return RunPredefine(o, a.predefines, out); };
  });
}

void AddConfigCommands(CLI::App& app, Arguments& a, Command& command, std::ostream& out) {
  CLI::App* config = app.add_subcommand("config", "show or choose the current configuration");
  config->require_subcommand(1);
  config->add_subcommand("current", "print the current configuration number")->callback([&] {
    command = [&](const DomainOptions& o) { return RunConfigCurrent(o, out); };
  });
  CLI::App* set = config->add_subcommand("set", "make configuration N current");
  set->add_option("N", a.number, "configuration number")->required();
  set->callback(
      [&] { command = [&](const DomainOptions& o) { return RunConfigSet(o, a.number); }; });
  config->add_subcommand("list", "print the number and name of every configuration")->callback([&] {
    command = [&](const DomainOptions& o) { return RunConfigList(o, out); };
  });
}

// A full disk or a closed pipe on standard output is a failure too: a script
// must not take a truncated export for a whole one.
int Finish(const Status& status) {
  const bool printed = static_cast<bool>(std::cout.flush());
  status.Print(std::cerr);
  if (!printed) std::cerr << "qss: cannot write to standard output\n";
  if (!printed && status.ok()) return static_cast<int>(ExitStatus::kFailure);
  return static_cast<int>(status.exit());
}

}  // namespace

int RunCommandLine(int argc, char** argv) {
  CLI::App app(kDescription, "qss");
  app.footer(kFooter);
  app.require_subcommand(1);
  app.fallthrough();
  Arguments arguments;
  Command command;
  AddGlobalOptions(app, arguments);
  AddDomainCommands(app, arguments, command, std::cout);
  AddConfigCommands(app, arguments, command, std::cout);
  AddPredefineCommand(app, arguments, command, std::cout);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : static_cast<int>(ExitStatus::kUsage);
  }
  DomainOptions options;
  Status status = MakeOptions(arguments, options);
  try {
    if (status.ok()) status = command(options);
  } catch (const std::exception& error) {
    status = Status::Failure(std::string("unexpected failure: ") + error.what(),
                             make_error_code(kFailure), "");
  }
  return Finish(status);
}

}  // namespace QelSS::Qss
