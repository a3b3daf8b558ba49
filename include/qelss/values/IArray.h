#pragma once

#include <functional>
#include <memory>
#include <system_error>
#include <vector>

#include "qelss/Export.h"
#include "qelss/values/IValue.h"

namespace QelSS {

using ArrayElements = std::vector<std::shared_ptr<IValue>>;

using ArrayIterateFunction =
    std::function<void(const std::shared_ptr<IValue>& value, unsigned int index, bool& stop)>;

// An ordered list of values (tag kValueTypeArray). Elements are shared, not
// copied, by the operations that add them; Clone, Assign and copy assignment copy
// deeply. Indexes count from 0.
//
// Thread-safe with the same discipline as IHash: one serial queue per array,
// snapshots for cross-container work, Iterate calling its function outside the
// queue on a snapshot taken when it starts. Cycles and nesting are limited as
// for IHash: an array refuses to hold itself (kInvalidArgument) wherever an
// element is added.
class QELSS_EXPORT IArray : public virtual IValue {
 public:
  ~IArray() override;

  // kInvalidArgument for a null value.
  [[nodiscard]] virtual std::error_code Append(const std::shared_ptr<IValue>& value) = 0;
  // Appends all, in order. kInvalidArgument (nothing appended) if any is null
  // or this array.
  [[nodiscard]] virtual std::error_code Append(const ArrayElements& values) = 0;
  // Appends the other array's elements (shared), as they are when the call
  // starts; `other` may be this array. kInvalidArgument for null.
  [[nodiscard]] virtual std::error_code Append(const std::shared_ptr<IArray>& other) = 0;

  // Replaces every element with those of `elements`, which is left empty. Null
  // elements and this array itself are dropped.
  virtual void SetEntries(ArrayElements&& elements) = 0;

  // Deep copy of `other` (each element cloned). Throws DataTypeException
  // ("Failed to assign in array") when a clone fails; this array is then unchanged.
  virtual IArray& operator=(const IArray& other) = 0;
  // Shares the other's elements: the list of pointers is copied, the values are
  // not, and `other` keeps its elements. Assigning an array to itself does nothing.
  virtual IArray& operator=(IArray&& other) = 0;

  // Inserts before `index`; `index` equal to the count appends. kIndexOutOfRange
  // beyond the count; kInvalidArgument for a null value.
  [[nodiscard]] virtual std::error_code Insert(unsigned int index,
                                               const std::shared_ptr<IValue>& value) = 0;
  // `out` shares the element. kIndexOutOfRange at or beyond the count.
  [[nodiscard]] virtual std::error_code Get(unsigned int index,
                                            std::shared_ptr<IValue>& out) const = 0;
  // Removes every element equal to `value` (the element's operator==), keeping
  // the order of the rest. kNotFound when none; kInvalidArgument for null. When
  // `value` is a container the comparisons run on a snapshot: an equal element
  // added by another thread meanwhile stays.
  [[nodiscard]] virtual std::error_code Remove(const std::shared_ptr<IValue>& value) = 0;
  // kIndexOutOfRange at or beyond the count.
  [[nodiscard]] virtual std::error_code RemoveAt(unsigned int index) = 0;
  virtual void RemoveAll() = 0;
  // Replaces the element at `index`. kIndexOutOfRange at or beyond the count;
  // kInvalidArgument for a null value.
  [[nodiscard]] virtual std::error_code Set(unsigned int index,
                                            const std::shared_ptr<IValue>& value) = 0;

  // Calls `function` for each element in order until it sets `stop`, on a
  // snapshot taken when the call starts. kInvalidArgument for an empty function.
  [[nodiscard]] virtual std::error_code Iterate(const ArrayIterateFunction& function) const = 0;

  // kSuccess when some element is equal to `value`, else kNotFound;
  // kInvalidArgument for null.
  [[nodiscard]] virtual std::error_code Contains(const std::shared_ptr<IValue>& value) const = 0;

  virtual size_t GetCount() const = 0;

  // Deep copy from `other`; kInvalidArgument for null.
  [[nodiscard]] virtual std::error_code Assign(const std::shared_ptr<IArray>& other) = 0;
};

}  // namespace QelSS
