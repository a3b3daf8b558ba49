#include "configurations/Languages.h"

#include <algorithm>
#include <cstdlib>

namespace QelSS {
namespace {

void AddOnce(std::vector<std::string>& languages, const std::string& language) {
  if (language.empty()) return;
  if (std::find(languages.begin(), languages.end(), language) == languages.end()) {
    languages.push_back(language);
  }
}

// A locale name may contain anything the environment holds: only letters,
// digits, "_" and "-" make a language, so that no path can be formed from it.
bool IsLanguageName(const std::string& name) {
  return !name.empty() && name.size() <= 32 && std::all_of(name.begin(), name.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '-';
  });
}

}  // namespace

std::vector<std::string> LanguagesForLocale(const std::string& locale) {
  std::vector<std::string> languages;
  const std::string name = locale.substr(0, locale.find_first_of(".@"));
  if (IsLanguageName(name) && name != "C" && name != "POSIX") {
    AddOnce(languages, name);
    std::string dashed = name;
    std::replace(dashed.begin(), dashed.end(), '_', '-');
    AddOnce(languages, dashed);
    AddOnce(languages, name.substr(0, name.find_first_of("_-")));
  }
  AddOnce(languages, "en");
  AddOnce(languages, "Base");
  return languages;
}

std::vector<std::string> PreferredLanguages() {
  for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* value = std::getenv(variable);
    if (value && *value) return LanguagesForLocale(value);
  }
  return LanguagesForLocale("");
}

}  // namespace QelSS
