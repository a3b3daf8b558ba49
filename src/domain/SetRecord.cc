#include "domain/SetRecord.h"

#include "domain/ChangeRecord.h"
#include "domain/RecordKeys.h"
#include "qelss/values/ArrayFactory.h"
#include "qelss/values/HashFactory.h"
#include "qelss/values/NumberFactory.h"
#include "qelss/values/StringFactory.h"
#include "values/KeyPath.h"

namespace QelSS {

std::error_code MakeSetRecord(
    const CommitEngine& engine,
    const std::vector<std::pair<std::string, std::shared_ptr<IValue>>>& values,
    std::shared_ptr<IHash>& record) {
  record.reset();
  // The changes are tried on a version of its own, so that one the tree
  // refuses is found before anything is committed.
  TreeWriter tree(engine.Tree());
  std::shared_ptr<IArray> changes;
  if (std::error_code made = ArrayFactory::Create(changes); made != kSuccess) return made;
  for (const auto& [path, value] : values) {
    if (!value) return kInvalidArgument;
    if (std::error_code storable = CheckStorablePath(path, value); storable != kSuccess) {
      return storable;
    }
    const std::error_code stored = tree.Store(path, value);
    if (stored == kOperationRefused) continue;
    if (stored != kSuccess) return stored;
    std::shared_ptr<IHash> change;
    if (std::error_code made = MakeChangeRecord(path, Constants::Set, value, change);
        made != kSuccess) {
      return made;
    }
    if (std::error_code added = changes->Append(change); added != kSuccess) return added;
  }
  if (changes->GetCount() == 0) return kSuccess;

  std::shared_ptr<IHash> built;
  std::shared_ptr<IString> name;
  std::shared_ptr<INumber> generation;
  if (std::error_code made = HashFactory::Create(built); made != kSuccess) return made;
  if (std::error_code made = StringFactory::Create(name, engine.Name()); made != kSuccess) {
    return made;
  }
  if (std::error_code made =
          NumberFactory::Create(generation, static_cast<long long>(engine.GenerationCount()));
      made != kSuccess) {
    return made;
  }
  for (const auto& [key, value] :
       {std::pair<const char*, std::shared_ptr<IValue>>{RecordKeys::kDomainName, name},
        {RecordKeys::kChanges, changes},
        {RecordKeys::kGenerationCount, generation}}) {
    if (std::error_code set = built->Set(key, value); set != kSuccess) return set;
  }
  record = std::move(built);
  return kSuccess;
}

}  // namespace QelSS
