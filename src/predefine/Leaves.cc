#include "predefine/Leaves.h"

#include "domain/ChangeRecord.h"
#include "persistence/ByteForm.h"
#include "qelss/values/IHash.h"
#include "qelss/values/IString.h"

namespace QelSS::predefine {
namespace {

// The parser bounds the nesting, so the recursion is bounded too.
std::error_code Collect(const IHash& hash, const std::string& prefix,
                        std::vector<PreDefineManager::Leaf>& leaves, std::string& problem) {
  std::error_code result = make_error_code(kSuccess);
  (void)hash.Iterate(
      [&](const std::shared_ptr<IString>& key, const std::shared_ptr<IValue>& value, bool& stop) {
        const std::string name = key->GetCString();
        const std::string path = prefix + "/" + name;
        if (name.empty() || name.find('/') != std::string::npos) {
          problem = "the key \"" + path + "\" cannot be addressed by a key path";
          result = make_error_code(kInvalidArgument);
          stop = true;
          return;
        }
        const auto* inner =
            value->GetType() == kValueTypeHash ? dynamic_cast<const IHash*>(value.get()) : nullptr;
        if (inner != nullptr && inner->GetCount() > 0) {
          result = Collect(*inner, path, leaves, problem);
          stop = result != kSuccess;
          return;
        }
        // Checked before anything is opened, so that a file the domain cannot
        // keep does not even create its domain.
        if (CheckStorablePath(path, value) != kSuccess) {
          problem = "the value at \"" + path +
                    "\" nests deeper than a domain keeps, or holds text a domain cannot keep";
          result = make_error_code(kInvalidArgument);
          stop = true;
          return;
        }
        leaves.emplace_back(path, value);
      });
  return result;
}

}  // namespace

std::error_code ReadLeaves(const std::vector<uint8_t>& bytes,
                           std::vector<PreDefineManager::Leaf>& leaves, std::string& problem) {
  std::shared_ptr<IValue> root;
  if (std::error_code read = ReadByteForm(bytes, root); read != kSuccess || root == nullptr) {
    problem = "the file is not a byte form that can be read";
    return read != kSuccess ? read : make_error_code(kSerializationError);
  }
  const auto* hash =
      root->GetType() == kValueTypeHash ? dynamic_cast<const IHash*>(root.get()) : nullptr;
  if (hash == nullptr) {
    problem = "the file holds something other than a Hash";
    return kInvalidType;
  }
  leaves.clear();
  return Collect(*hash, "", leaves, problem);
}

}  // namespace QelSS::predefine
