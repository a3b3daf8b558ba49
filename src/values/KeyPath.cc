#include "values/KeyPath.h"

#include <algorithm>
#include <utility>

#include "qelss/values/HashFactory.h"
#include "qelss/values/IArray.h"
#include "qelss/values/ValueHelper.h"
#include "values/ContainerSupport.h"
#include "values/Hash.h"
#include "values/ValueCast.h"

namespace QelSS {
namespace {

// The hash under `key` of `level`. kNotFound when absent, kInvalidType when the
// entry is not a hash.
std::error_code ChildHash(const IHash& level, const std::string& key, std::shared_ptr<IHash>& out) {
  std::shared_ptr<IValue> child;
  std::error_code result = level.Get(key.c_str(), child);
  if (!Succeeded(result)) return result;
  out = AsHash(child);
  return out ? make_error_code(kSuccess) : make_error_code(kInvalidType);
}

// Where a path leads: the hashes walked from the tree down (the tree first),
// and how many components they cover.
struct Walk {
  std::vector<std::shared_ptr<IHash>> levels;
  size_t covered = 0;
};

// Descends through the intermediate components (all but the last) as far as
// they exist. The walk stops early at an absent level; any other failure is
// returned.
std::error_code WalkIntermediates(const std::shared_ptr<IHash>& tree,
                                  const std::vector<std::string>& components, Walk& walk) {
  walk.levels.assign(1, tree);
  walk.covered = 0;
  while (walk.covered + 1 < components.size()) {
    std::shared_ptr<IHash> next;
    std::error_code result = ChildHash(*walk.levels.back(), components[walk.covered], next);
    if (result == make_error_code(kNotFound)) break;
    if (!Succeeded(result)) return result;
    walk.levels.push_back(std::move(next));
    ++walk.covered;
  }
  return kSuccess;
}

// Finds the hash that holds the last component. Absent or non-hash levels are
// both kNotFound: there is nothing at such a path.
std::error_code FindParent(const std::shared_ptr<IHash>& tree,
                           const std::vector<std::string>& components,
                           std::shared_ptr<IHash>& parent) {
  Walk walk;
  std::error_code result = WalkIntermediates(tree, components, walk);
  if (result == make_error_code(kInvalidType)) return kNotFound;
  if (!Succeeded(result)) return result;
  if (walk.covered + 1 != components.size()) return kNotFound;
  parent = walk.levels.back();
  return kSuccess;
}

// True when `value` is one of `containers` or holds one at any depth.
bool Holds(const std::shared_ptr<IValue>& value, const std::vector<const IValue*>& containers) {
  if (std::find(containers.begin(), containers.end(), value.get()) != containers.end()) {
    return true;
  }
  bool found = false;
  if (auto hash = AsHash(value)) {
    (void)hash->Iterate([&](const std::shared_ptr<IString>&, const std::shared_ptr<IValue>& child,
                            bool& stop) { stop = found = Holds(child, containers); });
  } else if (auto array = AsArray(value)) {
    (void)array->Iterate([&](const std::shared_ptr<IValue>& child, unsigned int, bool& stop) {
      stop = found = Holds(child, containers);
    });
  }
  return found;
}

bool WouldContainItself(const Walk& walk, const std::shared_ptr<IValue>& value) {
  if (!AsHash(value) && !AsArray(value)) {
    return false;
  }
  std::vector<const IValue*> ancestors;
  for (const auto& level : walk.levels) ancestors.push_back(level.get());
  return Holds(value, ancestors);
}

// Builds, detached from the tree, the missing levels components[first..last-1]
// with `value` under the last component, and returns the top of that chain in
// `top`. Nothing is attached, so a failure here leaves no trace.
std::error_code BuildChain(const std::vector<std::string>& components, size_t first,
                           const std::shared_ptr<IValue>& value, std::shared_ptr<IValue>& top) {
  std::shared_ptr<IValue> below = value;
  for (size_t i = components.size() - 1; i > first; --i) {
    std::shared_ptr<IHash> level;
    std::error_code result = HashFactory::Create(level);
    if (!Succeeded(result)) return result;
    result = level->Set(components[i].c_str(), below);
    if (!Succeeded(result)) return result;
    below = std::move(level);
  }
  top = std::move(below);
  return kSuccess;
}

}  // namespace

std::vector<std::string> KeyPath::Split(std::string_view path) {
  std::vector<std::string> components;
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string_view::npos) end = path.size();
    if (end > start) components.emplace_back(path.substr(start, end - start));
    start = end + 1;
  }
  return components;
}

std::error_code KeyPath::Lookup(const std::shared_ptr<IHash>& tree, std::string_view path,
                                std::shared_ptr<IValue>& out) {
  if (!tree) return kInvalidArgument;
  return Lookup(*tree, path, out);
}

// Every read of a setting comes through here, so the path is walked in place:
// one key buffer (short keys need no allocation), no list of components, no
// list of levels, and through frozen hashes no queue and no reference count.
std::error_code KeyPath::Lookup(const IHash& tree, std::string_view path,
                                std::shared_ptr<IValue>& out) {
  const IHash* level = &tree;
  // The value found last: inside a frozen hash, which keeps it as long as the
  // hash lives, or held here. Each level lives through the one above it, up
  // to the tree or the last value held.
  const std::shared_ptr<IValue>* inFrozen = nullptr;
  std::shared_ptr<IValue> held;
  std::string key;
  size_t start = 0;
  bool any = false;
  while (true) {
    start = path.find_first_not_of('/', start);
    if (start == std::string_view::npos) break;
    size_t end = path.find('/', start);
    if (end == std::string_view::npos) end = path.size();
    if (any) {
      const IValue* found = inFrozen != nullptr ? inFrozen->get() : held.get();
      if (found->GetType() != kValueTypeHash) return kNotFound;
      level = FastCast<IHash, Hash>(found);
      if (level == nullptr) return kNotFound;
    }
    const std::string_view component = path.substr(start, end - start);
    const Hash* hash = ExactCast<Hash>(static_cast<const IValue*>(level));
    if (hash != nullptr && hash->IsFrozen()) {
      inFrozen = hash->FindFrozen(component);
      if (inFrozen == nullptr) return kNotFound;
    } else {
      key.assign(component);
      std::shared_ptr<IValue> next;
      if (std::error_code got = level->Get(key.c_str(), next); !Succeeded(got)) return got;
      held = std::move(next);
      inFrozen = nullptr;
    }
    any = true;
    start = end;
  }
  if (!any) return kInvalidArgument;
  out = inFrozen != nullptr ? *inFrozen : std::move(held);
  return kSuccess;
}

std::error_code KeyPath::Store(const std::shared_ptr<IHash>& tree, std::string_view path,
                               const std::shared_ptr<IValue>& value) {
  std::vector<std::string> components = Split(path);
  if (!tree || !value || components.empty()) return kInvalidArgument;
  Walk walk;
  std::error_code result = WalkIntermediates(tree, components, walk);
  if (!Succeeded(result)) return result;
  if (WouldContainItself(walk, value)) return kInvalidArgument;

  const IHash& parent = *walk.levels.back();
  const std::string& key = components[walk.covered];
  if (walk.covered + 1 == components.size()) {
    std::shared_ptr<IValue> present;
    if (Succeeded(parent.Get(key.c_str(), present)) && *present == *value) {
      return kOperationRefused;
    }
  }
  std::shared_ptr<IValue> attach;
  result = BuildChain(components, walk.covered, value, attach);
  if (!Succeeded(result)) return result;
  return walk.levels.back()->Set(key.c_str(), attach);
}

std::error_code KeyPath::Remove(const std::shared_ptr<IHash>& tree, std::string_view path) {
  std::vector<std::string> components = Split(path);
  if (!tree || components.empty()) return kInvalidArgument;
  std::shared_ptr<IHash> parent;
  std::error_code result = FindParent(tree, components, parent);
  if (!Succeeded(result)) return result;
  return parent->Delete(components.back().c_str());
}

// ---- TreeWriter

namespace {

std::error_code CopyOf(const IHash& hash, std::shared_ptr<IHash>& out) {
  if (const Hash* concrete = ExactCast<Hash>(static_cast<const IValue*>(&hash))) {
    return concrete->ShallowCopy(out);
  }
  std::shared_ptr<IHash> copy;
  if (std::error_code made = HashFactory::Create(copy); !Succeeded(made)) return made;
  std::error_code result = make_error_code(kSuccess);
  (void)hash.Iterate(
      [&](const std::shared_ptr<IString>& key, const std::shared_ptr<IValue>& value, bool& stop) {
        result = copy->Set(key, value);
        stop = !Succeeded(result);
      });
  if (Succeeded(result)) out = std::move(copy);
  return result;
}

}  // namespace

// Most transactions change a handful of hashes; a set pays off only beyond.
constexpr size_t kSearchedCopies = 32;

TreeWriter::TreeWriter(std::shared_ptr<IHash> root) : root_(std::move(root)) {}

bool TreeWriter::Owns(const IHash* hash) const {
  if (copies_.size() > kSearchedCopies) return owned_.count(hash) != 0;
  return std::any_of(copies_.begin(), copies_.end(),
                     [hash](const std::shared_ptr<IHash>& copy) { return copy.get() == hash; });
}

std::error_code TreeWriter::Own(std::vector<std::shared_ptr<IHash>>& levels,
                                const std::vector<std::string>& components) {
  for (size_t i = 0; i < levels.size(); ++i) {
    if (Owns(levels[i].get())) continue;
    std::shared_ptr<IHash> copy;
    if (std::error_code copied = CopyOf(*levels[i], copy); !Succeeded(copied)) return copied;
    // The parent is already this writer's: changing it in place is allowed.
    if (i == 0) {
      root_ = copy;
    } else if (std::error_code set = levels[i - 1]->Set(components[i - 1].c_str(), copy);
               !Succeeded(set)) {
      return set;
    }
    copies_.push_back(copy);
    if (copies_.size() > kSearchedCopies) {
      if (owned_.empty()) {
        for (const auto& made : copies_) owned_.insert(made.get());
      } else {
        owned_.insert(copy.get());
      }
    }
    levels[i] = std::move(copy);
  }
  return kSuccess;
}

std::error_code TreeWriter::Store(std::string_view path, const std::shared_ptr<IValue>& value) {
  std::vector<std::string> components = KeyPath::Split(path);
  if (!root_ || !value || components.empty()) return kInvalidArgument;
  Walk walk;
  std::error_code result = WalkIntermediates(root_, components, walk);
  if (!Succeeded(result)) return result;
  if (WouldContainItself(walk, value)) return kInvalidArgument;
  const std::string& key = components[walk.covered];
  if (walk.covered + 1 == components.size()) {
    std::shared_ptr<IValue> present;
    if (Succeeded(walk.levels.back()->Get(key.c_str(), present)) && *present == *value) {
      return kOperationRefused;
    }
  }
  std::shared_ptr<IValue> attach;
  result = BuildChain(components, walk.covered, value, attach);
  if (Succeeded(result)) result = Own(walk.levels, components);
  if (Succeeded(result)) result = walk.levels.back()->Set(key.c_str(), attach);
  if (Succeeded(result) && IsContainer(*attach)) stored_.push_back(attach);
  return result;
}

void TreeWriter::Freeze() {
  for (const auto& value : stored_) {
    if (auto* hash = const_cast<Hash*>(ExactCast<Hash>(value.get()))) hash->Freeze();
  }
  // Every hash below a copy is one of the above, another copy, or was frozen
  // in the version the writer started from.
  for (const auto& copy : copies_) {
    if (auto* hash = const_cast<Hash*>(ExactCast<Hash>(static_cast<const IValue*>(copy.get())))) {
      hash->MarkFrozen();
    }
  }
}

std::error_code TreeWriter::Remove(std::string_view path) {
  std::vector<std::string> components = KeyPath::Split(path);
  if (!root_ || components.empty()) return kInvalidArgument;
  Walk walk;
  std::error_code result = WalkIntermediates(root_, components, walk);
  if (result == make_error_code(kInvalidType)) return kNotFound;
  if (!Succeeded(result)) return result;
  if (walk.covered + 1 != components.size()) return kNotFound;
  const char* key = components.back().c_str();
  if (std::error_code held = walk.levels.back()->Contains(key); !Succeeded(held)) return held;
  if (std::error_code owned = Own(walk.levels, components); !Succeeded(owned)) return owned;
  return walk.levels.back()->Delete(key);
}

}  // namespace QelSS
