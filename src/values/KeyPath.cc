#include "values/KeyPath.h"

#include <algorithm>
#include <utility>

#include "qelss/values/HashFactory.h"
#include "qelss/values/IArray.h"
#include "qelss/values/ValueHelper.h"

namespace QelSS {
namespace {

// The hash under `key` of `level`. kNotFound when absent, kInvalidType when the
// entry is not a hash.
std::error_code ChildHash(const IHash& level, const std::string& key, std::shared_ptr<IHash>& out) {
  std::shared_ptr<IValue> child;
  std::error_code result = level.Get(key.c_str(), child);
  if (!Succeeded(result)) return result;
  out = std::dynamic_pointer_cast<IHash>(child);
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
  if (auto hash = std::dynamic_pointer_cast<IHash>(value)) {
    (void)hash->Iterate([&](const std::shared_ptr<IString>&, const std::shared_ptr<IValue>& child,
                            bool& stop) { stop = found = Holds(child, containers); });
  } else if (auto array = std::dynamic_pointer_cast<IArray>(value)) {
    (void)array->Iterate([&](const std::shared_ptr<IValue>& child, unsigned int, bool& stop) {
      stop = found = Holds(child, containers);
    });
  }
  return found;
}

bool WouldContainItself(const Walk& walk, const std::shared_ptr<IValue>& value) {
  if (!std::dynamic_pointer_cast<IHash>(value) && !std::dynamic_pointer_cast<IArray>(value)) {
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
  std::vector<std::string> components = Split(path);
  if (!tree || components.empty()) return kInvalidArgument;
  std::shared_ptr<IHash> parent;
  std::error_code result = FindParent(tree, components, parent);
  if (!Succeeded(result)) return result;
  return parent->Get(components.back().c_str(), out);
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

}  // namespace QelSS
