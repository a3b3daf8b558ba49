#include "values/Array.h"

#include <algorithm>
#include <utility>

#include "platform/report/Failure.h"
#include "platform/report/Report.h"
#include "values/ContainerSupport.h"
#include "values/ValueSupport.h"

namespace QelSS {
namespace {

constexpr uint32_t kTag = QelErrTag("SSAC");
constexpr const char* kQueueLabel = "com.qelvarin.arraysync";
constexpr const char* kInitFailed = "Array: failed to init";
constexpr unsigned int kChildIndent = 7;

// Moves the elements that `matches` picks from `elements` into `removed`,
// keeping the order of the rest.
template <typename Matches>
void MoveOutMatches(ArrayElements& elements, ArrayElements& removed, Matches&& matches) {
  auto kept = elements.begin();
  for (auto& element : elements) {
    if (matches(element)) {
      removed.push_back(std::move(element));
    } else {
      if (&*kept != &element) *kept = std::move(element);
      ++kept;
    }
  }
  elements.erase(kept, elements.end());
}

}  // namespace

IArray::~IArray() = default;

Array::Array() : Value(kValueTypeArray) {
  std::error_code result = CreateContainerQueue(kQueueLabel, queue_);
  if (!Succeeded(result)) throw DataTypeException(result, kInitFailed);
}

Array::Array(void* object) : Array() {
  auto array = static_cast<xpc_object_t>(object);
  if (xpc_get_type(array) != XPC_TYPE_ARRAY) throw DataTypeException(kInvalidType, kInitFailed);
  NestingGuard guard;
  std::error_code result = guard.Within() ? kSuccess : kOperationRefused;
  // Nobody else can see this array yet, so the vector is filled without the queue.
  elements_.reserve(xpc_array_get_count(array));
  xpc_array_apply(array, [&](size_t, xpc_object_t element) {
    if (!Succeeded(result)) return false;
    std::shared_ptr<IValue> made;
    result = MakeValueFromPlatform(element, made);
    if (Succeeded(result)) elements_.push_back(std::move(made));
    return Succeeded(result);
  });
  if (!Succeeded(result)) throw DataTypeException(result, kInitFailed);
}

Array::Array(ArrayElements&& elements) : Array() { elements_ = std::move(elements); }

Array::~Array() = default;

template <typename Block>
bool Array::OnQueue(uint32_t flags, Block&& block) const {
  return RunOnQueue(*queue_, kTag, flags, std::forward<Block>(block));
}

std::error_code Array::Append(const std::shared_ptr<IValue>& value) {
  if (!Acceptable(value)) return kInvalidArgument;
  std::error_code result = kFailure;
  OnQueue(DispatchQueue::kRunChangesState, [&] {
    elements_.push_back(value);
    result = kSuccess;
  });
  return result;
}

std::error_code Array::Append(const ArrayElements& values) {
  if (!std::all_of(values.begin(), values.end(),
                   [this](const auto& value) { return Acceptable(value); })) {
    return kInvalidArgument;
  }
  std::error_code result = kFailure;
  OnQueue(DispatchQueue::kRunChangesState, [&] {
    elements_.insert(elements_.end(), values.begin(), values.end());
    result = kSuccess;
  });
  return result;
}

std::error_code Array::Append(const std::shared_ptr<IArray>& other) {
  if (!other) return kInvalidArgument;
  // Taken before this array's queue: `other` may be this very array.
  return Append(ElementsOf(*other));
}

void Array::SetEntries(ArrayElements&& elements) {
  std::erase_if(elements, [this](const auto& value) { return !Acceptable(value); });
  OnQueue(DispatchQueue::kRunChangesState, [&] { elements_.swap(elements); });
  // The old elements are released here, off the queue.
  elements.clear();
}

Array& Array::operator=(const IArray& other) {
  if (&other == static_cast<const IArray*>(this)) return *this;
  ArrayElements copy;
  std::error_code result = CopyElementsOf(other, copy);
  if (!Succeeded(result)) throw DataTypeException(result, "Failed to assign in array");
  SetEntries(std::move(copy));
  return *this;
}

Array& Array::operator=(IArray&& other) {
  if (&other == static_cast<IArray*>(this)) return *this;
  SetEntries(ElementsOf(other));
  return *this;
}

std::error_code Array::Insert(unsigned int index, const std::shared_ptr<IValue>& value) {
  if (!Acceptable(value)) return kInvalidArgument;
  std::error_code result = kFailure;
  OnQueue(DispatchQueue::kRunChangesState, [&] {
    if (index > elements_.size()) {
      result = kIndexOutOfRange;
      return;
    }
    elements_.insert(elements_.begin() + index, value);
    result = kSuccess;
  });
  return result;
}

std::error_code Array::Get(unsigned int index, std::shared_ptr<IValue>& out) const {
  std::shared_ptr<IValue> found;
  std::error_code result = kFailure;
  OnQueue(DispatchQueue::kRunNoFlags, [&] {
    if (index >= elements_.size()) {
      result = kIndexOutOfRange;
      return;
    }
    found = elements_[index];
    result = kSuccess;
  });
  // Whatever `out` held before is released off the queue.
  if (Succeeded(result)) out = std::move(found);
  return result;
}

std::error_code Array::Contains(const std::shared_ptr<IValue>& value) const {
  if (!value) return kInvalidArgument;
  auto matches = [&value](const std::shared_ptr<IValue>& element) { return *element == *value; };
  if (IsContainer(*value)) {
    // Comparing with a container takes the queues of the containers compared.
    const ArrayElements elements = Snapshot();
    return std::any_of(elements.begin(), elements.end(), matches) ? kSuccess : kNotFound;
  }
  std::error_code result = kFailure;
  OnQueue(DispatchQueue::kRunNoFlags, [&] {
    result = std::any_of(elements_.begin(), elements_.end(), matches) ? kSuccess : kNotFound;
  });
  return result;
}

std::error_code Array::Remove(const std::shared_ptr<IValue>& value) {
  if (!value) return kInvalidArgument;
  if (IsContainer(*value)) return RemoveContainerMatches(value);
  ArrayElements removed;
  std::error_code result = kFailure;
  OnQueue(DispatchQueue::kRunChangesState, [&] {
    MoveOutMatches(elements_, removed,
                   [&value](const auto& element) { return *element == *value; });
    result = removed.empty() ? kNotFound : kSuccess;
  });
  return result;
}

// The comparisons run on a snapshot, off the queue; the elements found equal
// are then removed by identity. An equal element added by another thread in
// between stays, as if it had been added after the removal.
std::error_code Array::RemoveContainerMatches(const std::shared_ptr<IValue>& value) {
  const ArrayElements elements = Snapshot();  // keeps the doomed objects, and so their addresses
  std::vector<const IValue*> doomed;
  for (const auto& element : elements) {
    if (*element == *value) doomed.push_back(element.get());
  }
  if (doomed.empty()) return kNotFound;
  std::sort(doomed.begin(), doomed.end());
  ArrayElements removed;
  std::error_code result = kFailure;
  OnQueue(DispatchQueue::kRunChangesState, [&] {
    MoveOutMatches(elements_, removed, [&doomed](const auto& element) {
      return std::binary_search(doomed.begin(), doomed.end(), element.get());
    });
    result = removed.empty() ? kNotFound : kSuccess;
  });
  return result;
}

std::error_code Array::RemoveAt(unsigned int index) {
  std::shared_ptr<IValue> removed;
  std::error_code result = kFailure;
  OnQueue(DispatchQueue::kRunChangesState, [&] {
    if (index >= elements_.size()) {
      result = kIndexOutOfRange;
      return;
    }
    removed = std::move(elements_[index]);
    elements_.erase(elements_.begin() + index);
    result = kSuccess;
  });
  return result;
}

std::error_code Array::Set(unsigned int index, const std::shared_ptr<IValue>& value) {
  if (!Acceptable(value)) return kInvalidArgument;
  std::shared_ptr<IValue> replaced;
  std::error_code result = kFailure;
  OnQueue(DispatchQueue::kRunChangesState, [&] {
    if (index >= elements_.size()) {
      result = kIndexOutOfRange;
      return;
    }
    replaced = std::exchange(elements_[index], value);
    result = kSuccess;
  });
  return result;
}

void Array::RemoveAll() {
  ArrayElements removed;
  OnQueue(DispatchQueue::kRunChangesState, [&] { removed.swap(elements_); });
}

ArrayElements Array::Snapshot() const {
  ArrayElements elements;
  OnQueue(DispatchQueue::kRunNoFlags, [&] { elements = elements_; });
  return elements;
}

ArrayElements Array::ElementsOf(const IArray& source) {
  if (auto* array = dynamic_cast<const Array*>(&source)) return array->Snapshot();
  ArrayElements elements;
  (void)source.Iterate(
      [&elements](const auto& value, unsigned int, bool&) { elements.push_back(value); });
  return elements;
}

std::error_code Array::Iterate(const ArrayIterateFunction& function) const {
  if (!function) return kInvalidArgument;
  const ArrayElements elements = Snapshot();
  bool stop = false;
  for (unsigned int index = 0; !stop && index < elements.size(); ++index) {
    function(elements[index], index, stop);
  }
  return kSuccess;
}

size_t Array::GetCount() const {
  size_t count = 0;
  OnQueue(DispatchQueue::kRunNoFlags, [&] { count = elements_.size(); });
  return count;
}

std::error_code Array::CopyElementsTo(ArrayElements& out) const {
  NestingGuard guard;
  if (!guard.Within()) return kOperationRefused;
  // The queue is held only to copy the pointers; the copy is private, so its
  // elements are cloned off the queue.
  if (!OnQueue(DispatchQueue::kRunNoFlags, [&] { out = elements_; })) return kFailure;
  std::error_code result = kSuccess;
  for (auto slot = out.begin(); Succeeded(result) && slot != out.end(); ++slot) {
    std::shared_ptr<IValue> clone;
    result = (*slot)->Clone(clone);
    if (Succeeded(result)) *slot = std::move(clone);
  }
  return result;
}

std::error_code Array::CopyElementsOf(const IArray& source, ArrayElements& out) {
  if (auto* array = dynamic_cast<const Array*>(&source)) return array->CopyElementsTo(out);
  std::error_code result = kSuccess;
  std::error_code walked = source.Iterate([&](const auto& value, unsigned int, bool& stop) {
    std::shared_ptr<IValue> clone;
    result = value->Clone(clone);
    if (Succeeded(result)) out.push_back(std::move(clone));
    stop = !Succeeded(result);
  });
  return Succeeded(walked) ? result : walked;
}

std::error_code Array::Clone(std::shared_ptr<IValue>& out) const {
  ArrayElements copy;
  std::error_code result = CopyElementsTo(copy);
  if (!Succeeded(result)) return result;
  return MakeValue<Array>(out, std::move(copy));
}

std::error_code Array::Assign(const std::shared_ptr<IArray>& other) {
  return AssignContainer(*this, other);
}

std::error_code Array::CopyXPCObject(xpc_object_t* out) const {
  if (out == nullptr) return kInvalidArgument;
  NestingGuard guard;
  if (!guard.Within()) return kOperationRefused;
  const ArrayElements elements = Snapshot();
  xpc_object_t array = xpc_array_create(nullptr, 0);
  if (array == nullptr) return kAllocationFailed;
  for (const auto& element : elements) {
    xpc_object_t copy = nullptr;
    std::error_code result = element->CopyXPCObject(&copy);
    if (Succeeded(result) && copy == nullptr) result = kAllocationFailed;
    if (!Succeeded(result)) {
      xpc_release(array);
      return result;
    }
    xpc_array_append_value(array, copy);
    xpc_release(copy);
  }
  *out = array;
  return kSuccess;
}

bool Array::operator==(const IValue& other) const {
  // The tag first: comparing with a scalar must never reach a queue.
  if (other.GetType() != kValueTypeArray) return false;
  auto* array = dynamic_cast<const IArray*>(&other);
  if (array == nullptr) return false;
  NestingGuard guard;
  if (!guard.Within()) return false;
  const ArrayElements mine = Snapshot();
  size_t matched = 0;
  bool equal = true;
  std::error_code walked = array->Iterate([&](const auto& value, unsigned int, bool& stop) {
    equal = matched < mine.size() && *mine[matched] == *value;
    ++matched;
    stop = !equal;
  });
  return Succeeded(walked) && equal && matched == mine.size();
}

std::error_code Array::Description(std::string& out, unsigned int indent) const {
  std::error_code result = kFailure;
  try {
    NestingGuard guard;
    if (!guard.Within()) return kOperationRefused;
    std::string text;
    std::string elementText;
    AppendOpeningBrace(text, indent);
    bool first = true;
    for (const auto& element : Snapshot()) {
      if (!first) text += ",\n";
      first = false;
      result = element->Description(elementText, indent + kChildIndent);
      if (!Succeeded(result)) return result;
      text += elementText;
    }
    AppendClosingBrace(text, indent);
    out = std::move(text);
    result = kSuccess;
  } catch (...) {
    ReportCaughtException(1, kTag, "Description");
    result = kFailure;
  }
  return result;
}

std::error_code Array::Serialize(std::vector<uint8_t>& bytes) const {
  return SerializeValue(*this, kTag, bytes);
}

}  // namespace QelSS
