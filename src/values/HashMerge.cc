// Merging one hash into another: what the other has and this one lacks is added
// (shared, not copied); nested hashes, and hashes inside arrays, are merged by
// the same rules; a value already present is never replaced. Every step goes
// through the public operations of the containers involved, so each holds only
// its own queue, and only for the step.

#include <memory>

#include "qelss/values/IArray.h"
#include "values/ContainerSupport.h"
#include "values/Hash.h"

namespace QelSS {
namespace {

// The typed view of a value taking part in a merge; a value of another kind
// on either side makes the merge fail with kInvalidData.
template <typename I>
std::error_code As(const std::shared_ptr<IValue>& value, std::shared_ptr<I>& out) {
  out = std::dynamic_pointer_cast<I>(value);
  return out ? make_error_code(kSuccess) : make_error_code(kInvalidData);
}

std::error_code MergeHashes(const std::shared_ptr<IValue>& mine,
                            const std::shared_ptr<IValue>& theirs) {
  std::shared_ptr<IHash> target;
  std::shared_ptr<IHash> source;
  std::error_code result = As(mine, target);
  if (Succeeded(result)) result = As(theirs, source);
  return Succeeded(result) ? target->Merge(source) : result;
}

// The count is read afresh for every element, so two hash elements merged into
// an empty array insert the first and then fail on the second (there is no
// element 1 yet to merge into): kIndexOutOfRange. Callers rely on exactly this.
std::error_code MergeArrayElement(IArray& target, const std::shared_ptr<IValue>& element,
                                  unsigned int index) {
  if (target.GetCount() == 0) return target.Insert(index, element);
  std::shared_ptr<IValue> mine;
  std::error_code result = target.Get(index, mine);
  return Succeeded(result) ? MergeHashes(mine, element) : result;
}

std::error_code MergeArrays(const std::shared_ptr<IValue>& mine,
                            const std::shared_ptr<IValue>& theirs) {
  std::shared_ptr<IArray> target;
  std::shared_ptr<IArray> source;
  std::error_code result = As(mine, target);
  if (Succeeded(result)) result = As(theirs, source);
  if (!Succeeded(result)) return result;
  std::error_code walked =
      source->Iterate([&](const auto& element, unsigned int index, bool& stop) {
        if (element->GetType() != kValueTypeHash) return;
        result = MergeArrayElement(*target, element, index);
        stop = !Succeeded(result);
      });
  return Succeeded(walked) ? result : walked;
}

std::error_code MergeEntry(IHash& target, const std::shared_ptr<IString>& key,
                           const std::shared_ptr<IValue>& theirs) {
  std::error_code result = target.Contains(key);
  if (result == kNotFound) return target.Set(key, theirs);
  if (!Succeeded(result)) return result;
  const uint32_t type = theirs->GetType();
  if (type != kValueTypeHash && type != kValueTypeArray) return kSuccess;
  std::shared_ptr<IValue> mine;
  result = target.Get(key, mine);
  if (!Succeeded(result)) return result;
  return type == kValueTypeHash ? MergeHashes(mine, theirs) : MergeArrays(mine, theirs);
}

}  // namespace

std::error_code Hash::Merge(const std::shared_ptr<IHash>& other) {
  if (!other) return kInvalidArgument;
  NestingGuard guard;
  if (!guard.Within()) return kOperationRefused;
  std::error_code result = kSuccess;
  std::error_code walked = other->Iterate([&](const auto& key, const auto& value, bool& stop) {
    result = MergeEntry(*this, key, value);
    stop = !Succeeded(result);
  });
  return Succeeded(walked) ? result : walked;
}

}  // namespace QelSS
