#include "configurations/Bundle.h"

#include "configurations/BundleSearchPath.h"
#include "configurations/Languages.h"
#include "configurations/PropertyListReader.h"
#include "configurations/StringsTable.h"
#include "platform/support/FileSystem.h"
#include "qelss/platform/ErrorCode.h"

namespace QelSS {
namespace {

constexpr const char* kBundlesFolder = "/qelvarin/bundles/";

bool IsDirectory(const std::string& path) {
  return platform::IsKind(*platform::DefaultFileSystem(), path, platform::FileKind::kDirectory);
}

bool IsFile(const std::string& path) {
  return platform::IsKind(*platform::DefaultFileSystem(), path, platform::FileKind::kRegular);
}

// Identifiers come from callers and from domain contents: they must name one
// directory and nothing above it.
bool IsPathComponent(const std::string& name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(std::string("/\0", 2)) == std::string::npos;
}

}  // namespace

std::error_code Bundle::Find(const std::string& identifier, std::shared_ptr<const Bundle>& out) {
  if (!IsPathComponent(identifier)) return make_error_code(kNotFound);
  for (const std::string& datadir : BundleSearchDirectories()) {
    std::string path = datadir + kBundlesFolder + identifier;
    if (IsDirectory(path)) {
      out = std::make_shared<const Bundle>(std::move(path));
      return make_error_code(kSuccess);
    }
  }
  return make_error_code(kNotFound);
}

std::error_code Bundle::ResourcePath(const std::string& name, const std::string& type,
                                     std::string& path) const {
  const std::string file = name + "." + type;
  if (!IsPathComponent(file)) return make_error_code(kNotFound);
  std::string candidate = path_ + "/" + file;
  if (!IsFile(candidate)) return make_error_code(kNotFound);
  path = std::move(candidate);
  return make_error_code(kSuccess);
}

std::error_code Bundle::CopyDictionaryResource(const std::string& name,
                                               xpc_object_t& dictionary) const {
  std::string path;
  const std::error_code rc = ResourcePath(name, "plist", path);
  if (!Succeeded(rc)) return rc;
  return ReadPropertyListDictionary(path, dictionary);
}

// A table that is missing or unreadable in one language does not hide the
// entry in the next language.
std::error_code Bundle::CopyLocalizedString(const std::string& key, const std::string& table,
                                            std::string& value) const {
  if (!IsPathComponent(table + ".strings")) return make_error_code(kNotFound);
  for (const std::string& language : PreferredLanguages()) {
    StringsTable entries;
    const std::string path = path_ + "/" + language + ".lproj/" + table + ".strings";
    if (!Succeeded(ReadStringsTable(path, entries))) continue;
    auto found = entries.find(key);
    if (found != entries.end()) {
      value = found->second;
      return make_error_code(kSuccess);
    }
  }
  return make_error_code(kNotFound);
}

}  // namespace QelSS
