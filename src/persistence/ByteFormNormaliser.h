#pragma once

// What reading a container's rewrite does to its direct children (see
// ByteFormReader.h): a double keeps six decimals, a date before 1970 fails,
// and everything else comes back as it was. Shared by the readers of the
// byte form, which both read each nested container's rewrite this way.

#include <cstddef>
#include <memory>
#include <string_view>
#include <system_error>
#include <unordered_map>
#include <vector>

#include "qelss/values/IString.h"
#include "qelss/values/IValue.h"

namespace QelSS::byteform {

// Documents below this size cannot meet any of libxml2's limits (10,000,000
// bytes for a text node, an attribute value, the parser's lookahead or its
// dictionary); the margin absorbs what the size estimates might miss.
inline constexpr size_t kLargestSafeRewrite = 9'000'000;

// The size of an element named `name` around `contentSize` bytes.
size_t ElementSize(std::string_view name, size_t contentSize);

// The size of the element written again from a scalar element's name, first
// attribute (null for none) and text.
size_t ScalarRewriteSize(std::string_view name, const char* attribute, const char* content);

// One direct child of a container, as its second reading would see it.
struct Normalised {
  std::shared_ptr<IValue> value;
  std::shared_ptr<IString> key;         // hashes only
  unsigned int index = 0;               // arrays only
  size_t written = 0;                   // size of the child's byte form (the value's, for a hash)
  std::error_code failure;              // what reading it again gives, if not success
  std::shared_ptr<IValue> replacement;  // the value it reads back as, when different
};

class Normaliser {
 public:
  // The direct children in the writer's order, with what reading them again
  // gives; adds the children's written sizes to `written`. Nested containers
  // must have been normalised (Remember) before their parent.
  std::vector<Normalised> NormaliseChildren(const std::shared_ptr<IValue>& container,
                                            size_t& written);
  // Puts the values that children read back as in their places.
  static std::error_code Replace(const std::shared_ptr<IValue>& container,
                                 const std::vector<Normalised>& children);
  // Keeps the written size of a container that has been normalised.
  void Remember(const std::shared_ptr<IValue>& container, size_t written) {
    writtenSizes_[container] = written;
  }

  // One child as its second reading would see it; a container must have been
  // normalised (Remember) before.
  Normalised Normalise(const std::shared_ptr<IValue>& value);

 private:
  // The written size of every container normalised so far. The map holds
  // them, so that the address of one that a later duplicate key replaced
  // cannot come back as another's.
  std::unordered_map<std::shared_ptr<IValue>, size_t> writtenSizes_;
};

}  // namespace QelSS::byteform
