#include "domain/TreeDiff.h"

#include <cstring>
#include <string>
#include <utility>

#include "qelss/values/StringFactory.h"
#include "values/ValueCast.h"

namespace QelSS {
namespace {

using Entries = std::vector<std::pair<std::shared_ptr<IString>, std::shared_ptr<IValue>>>;

// Iterate works on a snapshot and visits keys in byte order.
std::error_code EntriesOf(const IHash& hash, Entries& out) {
  out.reserve(hash.GetCount());
  return hash.Iterate([&](const std::shared_ptr<IString>& key, const std::shared_ptr<IValue>& value,
                          bool&) { out.emplace_back(key, value); });
}

class Differ {
 public:
  explicit Differ(std::vector<Change>& changes) : changes_(changes) {}

  std::error_code Compare(const IHash& before, const IHash& after, const std::string& prefix) {
    Entries old;
    Entries now;
    if (std::error_code rc = EntriesOf(before, old); rc != kSuccess) return rc;
    if (std::error_code rc = EntriesOf(after, now); rc != kSuccess) return rc;
    size_t i = 0;
    size_t j = 0;
    while (i < old.size() || j < now.size()) {
      const int order = Order(old, i, now, j);
      std::error_code rc = make_error_code(kSuccess);
      if (order < 0) {
        rc = Add(prefix, *old[i].first, Constants::Delete, nullptr);
        ++i;
      } else if (order > 0) {
        rc = Add(prefix, *now[j].first, Constants::Set, now[j].second);
        ++j;
      } else {
        rc = CompareValues(prefix, *now[j].first, old[i].second, now[j].second);
        ++i;
        ++j;
      }
      if (rc != kSuccess) return rc;
    }
    return make_error_code(kSuccess);
  }

 private:
  // Which side's next key comes first: negative for `before`'s, positive for
  // `after`'s, 0 for the same key on both.
  static int Order(const Entries& old, size_t i, const Entries& now, size_t j) {
    if (i == old.size()) return 1;
    if (j == now.size()) return -1;
    // The hash orders its keys the same way.
    return std::strcmp(old[i].first->GetCString(), now[j].first->GetCString());
  }

  std::error_code CompareValues(const std::string& prefix, const IString& key,
                                const std::shared_ptr<IValue>& old,
                                const std::shared_ptr<IValue>& now) {
    const std::shared_ptr<IHash> oldHash = AsHash(old);
    const std::shared_ptr<IHash> newHash = AsHash(now);
    if (oldHash && newHash) return Compare(*oldHash, *newHash, Join(prefix, key));
    if (old && now && *old == *now) return make_error_code(kSuccess);
    return Add(prefix, key, Constants::Set, now);
  }

  static std::string Join(const std::string& prefix, const IString& key) {
    return prefix.empty() ? std::string(key.GetCString()) : prefix + "/" + key.GetCString();
  }

  std::error_code Add(const std::string& prefix, const IString& key,
                      Constants::TransactionChangeType type, std::shared_ptr<IValue> value) {
    Change change;
    if (std::error_code rc = StringFactory::Create(change.path, Join(prefix, key).c_str());
        rc != kSuccess) {
      return rc;
    }
    change.type = type;
    change.value = std::move(value);
    changes_.push_back(std::move(change));
    return make_error_code(kSuccess);
  }

  std::vector<Change>& changes_;
};

}  // namespace

std::error_code DiffTrees(const std::shared_ptr<IHash>& before, const std::shared_ptr<IHash>& after,
                          std::vector<Change>& changes) {
  if (!before || !after) return make_error_code(kInvalidArgument);
  return Differ(changes).Compare(*before, *after, "");
}

}  // namespace QelSS
