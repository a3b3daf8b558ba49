#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <unordered_map>
#include <vector>

#include "domain/ChangeRecord.h"
#include "qelss/domain/Constants.h"

namespace QelSS {

// Which paths the most recent generations of a domain changed, newest last, so
// that a transaction made from a slightly older generation can be merged when
// it touches none of them. Not thread-safe: the domain uses it on its queue.
class ChangeHistory {
 public:
  // Generations remembered. A record older than this cannot be merged; the
  // transaction's own age limit and the domain's validity test use the same
  // number, and the three must change together.
  static constexpr size_t kDepth = 5;

  // Remembers the paths of `changes` as the changes of `generation`, then
  // forgets the oldest generation beyond kDepth. A path changed more than once
  // is remembered as a setting if any of its changes was one.
  void Record(int64_t generation, const std::vector<Change>& changes);

  // True when one of `changes` touches a path that one of the newest
  // `generations` entries changed, unless both are deletions. Paths compare with
  // empty components dropped.
  bool Collides(uint64_t generations, const std::vector<Change>& changes) const;

  size_t Size() const { return entries_.size(); }
  void Clear() { entries_.clear(); }

 private:
  struct Entry {
    int64_t generation;
    std::unordered_map<std::string, Constants::TransactionChangeType> paths;
  };

  std::deque<Entry> entries_;
};

}  // namespace QelSS
