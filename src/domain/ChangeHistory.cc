#include "domain/ChangeHistory.h"

#include <algorithm>

namespace QelSS {

void ChangeHistory::Record(int64_t generation, const std::vector<Change>& changes) {
  Entry entry{generation, {}};
  for (const Change& change : changes) {
    const auto type = change.IsDeletion() ? Constants::Delete : Constants::Set;
    auto [slot, inserted] = entry.paths.try_emplace(CanonicalPath(change.path->GetCString()), type);
    // Keeping the setting is the safe side: a deletion merges with a later
    // deletion, a setting with nothing.
    if (!inserted && type == Constants::Set) slot->second = Constants::Set;
  }
  entries_.push_back(std::move(entry));
  while (entries_.size() > kDepth) entries_.pop_front();
}

bool ChangeHistory::Collides(uint64_t generations, const std::vector<Change>& changes) const {
  std::vector<std::string> paths;
  paths.reserve(changes.size());
  for (const Change& change : changes) paths.push_back(CanonicalPath(change.path->GetCString()));

  const size_t walked = static_cast<size_t>(std::min<uint64_t>(generations, entries_.size()));
  for (size_t i = 0; i < walked; ++i) {
    const Entry& entry = entries_[entries_.size() - 1 - i];
    for (size_t c = 0; c < changes.size(); ++c) {
      auto found = entry.paths.find(paths[c]);
      if (found == entry.paths.end()) continue;
      if (found->second == Constants::Delete && changes[c].IsDeletion()) continue;
      return true;
    }
  }
  return false;
}

}  // namespace QelSS
