#pragma once

// What Hash and Array share: their queues, the guard against runaway nesting,
// the framing of their descriptions and the conversion of platform objects into
// values.
//
// Lock discipline of both containers. A block on a container's queue touches
// only that container's own storage and the scalar values in it: it never calls
// into another container, so no thread ever holds two container queues at once
// and two threads working on the same two containers in opposite directions
// cannot deadlock. Whatever must visit a nested container (deep copy, equality,
// description, platform form) takes a snapshot of the pointers on the queue and
// does the visiting after the block has returned. Values released by a block
// are handed out of it and released after it, so that tearing down a large
// subtree never holds the queue.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>

#include "qelss/platform/Dispatch.h"
#include "qelss/platform/ErrorCode.h"
#include "qelss/platform/xpc.h"
#include "qelss/values/Exceptions.h"
#include "qelss/values/IValue.h"

namespace QelSS {

// Quality-of-service class of every container queue: user-interactive.
inline constexpr qos_class_t kContainerQueueQos = QOS_CLASS_USER_INTERACTIVE;

// Makes the serial queue a container owns. The library's own codes: kSuccess,
// or the queue factory's failure (kInvalidArgument, kAllocationFailed).
std::error_code CreateContainerQueue(const char* label,
                                     std::shared_ptr<DispatchQueue::IQueue>& out) noexcept;

// Runs `block` on `queue` and waits for it. False when the queue refused to run
// it; callers preset their result to a failure so that this reads as one.
template <typename Block>
bool RunOnQueue(DispatchQueue::IQueue& queue, uint32_t tag, uint32_t flags, Block&& block) {
  return queue.Sync(tag, flags, FunctionRef<void()>(block));
}

// True for the values that hold other values and lock themselves. Comparing
// anything with a scalar never reaches a container's queue: every container
// answers a value of another tag from the tag alone.
inline bool IsContainer(const IValue& value) {
  const uint32_t type = value.GetType();
  return type == kValueTypeHash || type == kValueTypeArray;
}

// `value` itself when it is a scalar (immutable, so sharing it is safe); a
// deep copy when it is a container, which the caller may change without
// touching the tree it came from. The copy's code when that fails.
std::error_code OwnCopy(const std::shared_ptr<IValue>& value, std::shared_ptr<IValue>& out);

// Deepest nesting of containers that deep copies, comparisons, descriptions,
// merges and conversions walk. Settings trees are a handful of levels deep; the
// limit exists so that a container that holds itself through another one (which
// the containers cannot cheaply refuse) or a hostile, absurdly deep tree ends in
// kOperationRefused instead of exhausting the stack.
inline constexpr unsigned kMaxContainerNesting = 512;

// Counts the container walks running on this thread, one level per nested
// container. Every recursive walk of a container opens one on entry.
class NestingGuard {
 public:
  NestingGuard() noexcept : within_(++tDepth <= kMaxContainerNesting) {}
  ~NestingGuard() { --tDepth; }
  NestingGuard(const NestingGuard&) = delete;
  NestingGuard& operator=(const NestingGuard&) = delete;

  // False when this level is beyond kMaxContainerNesting.
  bool Within() const noexcept { return within_; }

 private:
  static inline constinit thread_local unsigned tDepth __attribute__((tls_model("initial-exec"))) =
      0;
  const bool within_;
};

// Assign of Hash and Array: the container's assignment from its interface,
// which reports its failures as a DataTypeException.
template <typename Container, typename Interface>
std::error_code AssignContainer(Container& self, const std::shared_ptr<Interface>& other) {
  if (!other) return kInvalidArgument;
  try {
    self = *other;
  } catch (const DataTypeException& exception) {
    return exception.code();
  }
  return kSuccess;
}

// Appends `text` right-aligned in a field `width` wide, as a stream with that
// field width writes it: longer texts are not cut.
void AppendAligned(std::string& out, std::string_view text, unsigned int width);

// The frame both containers put around their entries: a nested container
// (indent above 0) starts on a new line, and both braces are aligned to the
// indent.
void AppendOpeningBrace(std::string& out, unsigned int indent);
void AppendClosingBrace(std::string& out, unsigned int indent);

// Makes a value of the matching class from a platform object: dictionaries
// become hashes, arrays become arrays, every scalar kind goes through its
// factory. kInvalidType for NULL or a kind that no value holds (error objects);
// otherwise the factory's result. `out` is set on success only.
std::error_code MakeValueFromPlatform(xpc_object_t object, std::shared_ptr<IValue>& out) noexcept;

}  // namespace QelSS
