#pragma once

#include <string>
#include <vector>

namespace QelSS {

// The languages to try for localised text, best first: from the first of
// LC_ALL, LC_MESSAGES and LANG that is set and not empty, "de_DE.UTF-8@euro"
// gives "de_DE", "de-DE" and "de"; then "en" and "Base". The "C" and "POSIX"
// locales name no language.
std::vector<std::string> PreferredLanguages();

// The same for a given locale name; exposed for tests.
std::vector<std::string> LanguagesForLocale(const std::string& locale);

}  // namespace QelSS
