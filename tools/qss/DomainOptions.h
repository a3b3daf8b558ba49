#pragma once

#include <string>

namespace QelSS::Qss {

// Where the domains a command works on live, from the options before the
// command word.
struct DomainOptions {
  // Folder of local domains: --folder, or DefaultFolder().
  std::string folder;
  // --service: domains kept by the settings service instead of local ones.
  bool service = false;
  // --configuration: 0 for the domain itself, a number for that
  // configuration's copy, Settings::kCurrentConfiguration for the current one.
  unsigned int configuration = 0;
  // --new-key: make a new host key even though domain files encrypted with
  // a missing one exist.
  bool newKey = false;
  // The options as they were given ("qss --folder /tmp/x"), for hints that
  // show a command to run next.
  std::string invocation = "qss";
};

}  // namespace QelSS::Qss
