#include "domain/DomainRoot.h"

#include "domain/RecordKeys.h"
#include "qelss/values/HashFactory.h"
#include "qelss/values/INumber.h"
#include "qelss/values/IString.h"
#include "qelss/values/NumberFactory.h"
#include "values/ValueCast.h"

namespace QelSS::DomainRoot {

std::error_code LookUp(const IHash& hash, const char* key, std::shared_ptr<IValue>& value) {
  std::shared_ptr<IValue> found;
  std::error_code result = hash.Get(key, found);
  if (result == kNotFound) {
    value.reset();
    return kSuccess;
  }
  if (result != kSuccess) return result;
  value = std::move(found);
  return kSuccess;
}

std::error_code LookUpString(const IHash& hash, const char* key, std::shared_ptr<IString>& text) {
  std::shared_ptr<IValue> found;
  if (std::error_code read = LookUp(hash, key, found); read != kSuccess) return read;
  auto string = AsString(found);
  if (!string) return kInvalidData;
  text = std::move(string);
  return kSuccess;
}

std::error_code Create(std::shared_ptr<IHash>& root) {
  if (std::error_code made = HashFactory::Create(root); made != kSuccess) return made;
  std::shared_ptr<INumber> zero;
  if (std::error_code made = NumberFactory::Create(zero, 0LL); made != kSuccess) return made;
  if (std::error_code set = root->Set(RecordKeys::kGenerationCount, zero); set != kSuccess) {
    return set;
  }
  std::shared_ptr<IHash> settings;
  if (std::error_code made = HashFactory::Create(settings); made != kSuccess) return made;
  return root->Set(RecordKeys::kInternalSettings, settings);
}

std::error_code GetGenerationCount(const std::shared_ptr<IHash>& hash, int64_t& count) {
  if (!hash) return kInvalidArgument;
  std::shared_ptr<IValue> value;
  if (std::error_code found = LookUp(*hash, RecordKeys::kGenerationCount, value);
      found != kSuccess) {
    return found;
  }
  auto number = AsNumber(value);
  int64_t read = 0;
  if (!number || number->GetInt64(read) != kSuccess) return kInvalidData;
  count = read;
  return kSuccess;
}

std::error_code IncrementGenerationCount(const std::shared_ptr<IHash>& root) {
  int64_t count = 0;
  if (std::error_code read = GetGenerationCount(root, count); read != kSuccess) return read;
  std::shared_ptr<INumber> raised;
  // Wraps instead of overflowing; a domain does not see 2^63 commits.
  const auto next = static_cast<long long>(static_cast<uint64_t>(count) + 1);
  if (std::error_code made = NumberFactory::Create(raised, next); made != kSuccess) return made;
  return root->Set(RecordKeys::kGenerationCount, raised);
}

std::error_code GetInternalSettings(const std::shared_ptr<IHash>& root,
                                    std::shared_ptr<IHash>& settings) {
  if (!root) return kInvalidArgument;
  std::shared_ptr<IValue> value;
  if (std::error_code found = LookUp(*root, RecordKeys::kInternalSettings, value);
      found != kSuccess) {
    return found;
  }
  auto tree = AsHash(value);
  if (!tree) return kInvalidData;
  settings = std::move(tree);
  return kSuccess;
}

}  // namespace QelSS::DomainRoot
