#pragma once

#include <memory>
#include <string>
#include <vector>

#include "qelss/platform/Dispatch.h"
#include "qelss/values/IArray.h"
#include "values/Value.h"

namespace QelSS {

// The list value. Its elements live in a vector guarded by the array's own
// serial queue (see ContainerSupport.h for the lock discipline).
//
// An array refuses to hold itself directly (kInvalidArgument); holding itself
// through another container is the caller's mistake, as for hashes (Hash.h).
//
// Constructors throw DataTypeException.
class Array final : public IArray, public Value {
 public:
  Array();
  // Converts a platform array (xpc_object_t), nested containers included.
  explicit Array(void* object);
  // Adopts `elements` as they are: the caller hands over a list nobody else sees.
  explicit Array(ArrayElements&& elements);
  Array(const Array&) = delete;
  ~Array() override;

  Array& operator=(const Array& other) { return *this = static_cast<const IArray&>(other); }
  Array& operator=(Array&& other) { return *this = static_cast<IArray&&>(other); }

  using Value::Description;
  std::error_code Description(std::string& out, unsigned int indent) const override;
  bool operator==(const IValue& other) const override;

  std::error_code Append(const std::shared_ptr<IValue>& value) override;
  std::error_code Append(const ArrayElements& values) override;
  std::error_code Append(const std::shared_ptr<IArray>& other) override;
  void SetEntries(ArrayElements&& elements) override;
  Array& operator=(const IArray& other) override;
  Array& operator=(IArray&& other) override;
  std::error_code Insert(unsigned int index, const std::shared_ptr<IValue>& value) override;
  std::error_code Get(unsigned int index, std::shared_ptr<IValue>& out) const override;
  std::error_code Contains(const std::shared_ptr<IValue>& value) const override;
  std::error_code Remove(const std::shared_ptr<IValue>& value) override;
  std::error_code RemoveAt(unsigned int index) override;
  std::error_code Set(unsigned int index, const std::shared_ptr<IValue>& value) override;
  void RemoveAll() override;
  std::error_code Iterate(const ArrayIterateFunction& function) const override;
  std::error_code CopyXPCObject(xpc_object_t* out) const override;
  size_t GetCount() const override;
  std::error_code Clone(std::shared_ptr<IValue>& out) const override;
  std::error_code Assign(const std::shared_ptr<IArray>& other) override;
  std::error_code Serialize(std::vector<uint8_t>& bytes) const override;

  // The elements as they are now.
  ArrayElements Snapshot() const;

 private:
  template <typename Block>
  bool OnQueue(uint32_t flags, Block&& block) const;

  bool IsSelf(const std::shared_ptr<IValue>& value) const noexcept {
    return value.get() == static_cast<const IValue*>(this);
  }
  bool Acceptable(const std::shared_ptr<IValue>& value) const noexcept {
    return value && !IsSelf(value);
  }

  // Deep copy of the elements into `out`, which must be empty; on failure it
  // holds a partial copy.
  std::error_code CopyElementsTo(ArrayElements& out) const;
  // The same for any array, through the fast path when it is an Array.
  static std::error_code CopyElementsOf(const IArray& source, ArrayElements& out);
  // The elements of any array, shared.
  static ArrayElements ElementsOf(const IArray& source);
  // Removal when comparing may reach other containers' queues.
  std::error_code RemoveContainerMatches(const std::shared_ptr<IValue>& value);

  // Protected by queue_.
  ArrayElements elements_;
  // Constant after construction.
  std::shared_ptr<DispatchQueue::IQueue> queue_;
};

}  // namespace QelSS
