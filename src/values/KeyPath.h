#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <unordered_set>
#include <vector>

#include "qelss/values/IHash.h"
#include "qelss/values/IValue.h"

namespace QelSS {

// Key paths address a value inside a settings tree of nested hashes: "/"
// separates the levels, and empty components are skipped, so "/a//b/" and
// "a/b" both mean key "b" of the hash under key "a". Every level but the last
// must be a hash.
//
// Each operation changes the tree at most once, in its last step, so a failure
// leaves the tree exactly as it was. Hashes lock themselves, but a path walk is
// several operations: callers serialise changes to one tree (a transaction and
// a domain each do so on their own queue).
class KeyPath {
 public:
  KeyPath() = delete;

  // The non-empty components of `path`, in order.
  static std::vector<std::string> Split(std::string_view path);

  // `out` shares the value at `path`. kInvalidArgument for a null tree or a path
  // without components; kNotFound when a level is absent or an intermediate
  // level is not a hash. `out` is untouched on failure.
  [[nodiscard]] static std::error_code Lookup(const std::shared_ptr<IHash>& tree,
                                              std::string_view path, std::shared_ptr<IValue>& out);
  // The same on a tree that the caller keeps alive through the call.
  [[nodiscard]] static std::error_code Lookup(const IHash& tree, std::string_view path,
                                              std::shared_ptr<IValue>& out);

  // Stores `value` (shared) at `path`, making the missing intermediate hashes.
  //   kInvalidArgument   null tree or value, a path without components, or a
  //                      value that holds the tree or a hash on the path (the
  //                      tree would contain itself)
  //   kOperationRefused  the value already there is equal to `value`; nothing
  //                      changes
  //   kInvalidType       an intermediate level exists but is not a hash; nothing
  //                      changes (the scalar is not overwritten by a hash)
  // A failure to make a missing level is returned with no level left behind.
  [[nodiscard]] static std::error_code Store(const std::shared_ptr<IHash>& tree,
                                             std::string_view path,
                                             const std::shared_ptr<IValue>& value);

  // Removes the value at `path`; the hashes above it stay, even when emptied.
  // kInvalidArgument for a null tree or a path without components; kNotFound
  // when a level is absent or an intermediate level is not a hash.
  [[nodiscard]] static std::error_code Remove(const std::shared_ptr<IHash>& tree,
                                              std::string_view path);
};

// Changes a settings tree whose hashes others may share: readers holding a
// committed version, transactions begun from it. The first change below a
// hash replaces it, in a copy of its parent, with a copy of its own (entries
// shared, values not cloned); such copies are this writer's alone and take
// later changes in place. The tree handed in is never changed, so a change
// costs the hashes on its path, not the size of the tree.
//
// Not thread-safe; the tree handed in may be read by anyone meanwhile.
class TreeWriter {
 public:
  explicit TreeWriter(std::shared_ptr<IHash> root);
  TreeWriter(const TreeWriter&) = delete;
  TreeWriter& operator=(const TreeWriter&) = delete;
  // Hands the tree over together with the copies this writer may change.
  TreeWriter(TreeWriter&&) = default;

  // As KeyPath::Store and KeyPath::Remove, on the tree as this writer sees it.
  // A refusal copies nothing.
  [[nodiscard]] std::error_code Store(std::string_view path, const std::shared_ptr<IValue>& value);
  [[nodiscard]] std::error_code Remove(std::string_view path);

  // The tree with every change so far.
  const std::shared_ptr<IHash>& Root() const noexcept { return root_; }

  // Makes the tree as it now stands read-only for good (see Hash::Freeze),
  // visiting only the copies this writer made and the containers it stored:
  // everything else came from a frozen version. Changes through this writer
  // fail afterwards.
  void Freeze();

 private:
  // Makes every hash of `levels` (the root first, each the parent of the next
  // under `components`) this writer's own; `levels` then holds the copies.
  std::error_code Own(std::vector<std::shared_ptr<IHash>>& levels,
                      const std::vector<std::string>& components);
  bool Owns(const IHash* hash) const;

  std::shared_ptr<IHash> root_;
  // The copies made so far, kept alive so that no other hash can ever be
  // mistaken for one at a reused address.
  std::vector<std::shared_ptr<IHash>> copies_;
  // The addresses of copies_, once there are too many to search one by one.
  std::unordered_set<const IHash*> owned_;
  // The containers stored so far, which may hold hashes never frozen.
  std::vector<std::shared_ptr<IValue>> stored_;
};

}  // namespace QelSS
