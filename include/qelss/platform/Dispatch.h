#pragma once

// Serial queues, timer sources and groups.
//
// Every object of the library that holds mutable state owns a serial queue and
// runs each operation's body on it synchronously; observers are handed their
// change lists asynchronously on a queue of the application's choosing. The
// queue itself is cheap: creating one costs no thread and no system call, and a
// synchronous run on an idle queue executes on the caller's thread, taking and
// giving back the queue with one atomic compare-exchange each. Asynchronous work drains on a small
// worker pool shared by the whole process, started on first use and never torn down, so queues keep
// working inside exit handlers.
//
// Two views of one queue exist: DispatchQueue::IQueue (owned through
// std::shared_ptr, used by the library's own objects) and dispatch_queue_t (a
// reference-counted handle, used where an application hands a queue in). A
// queue's handle is obtained with IQueue::GetDispatchQueue().
//
// Misuse that would hang the process aborts it instead, with one line on stderr
// naming the queues involved: a synchronous run from a block already running on
// the same queue, a cycle of synchronous runs between queues (found once its
// threads have waited 100 ms), resuming a source that is not suspended, and
// leaving a group more often than it was entered. Waits that do not go through
// a queue (a group wait, a condition variable) are not part of that check.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <system_error>

#include "qelss/Export.h"
#include "qelss/platform/FunctionRef.h"

// Quality-of-service classes. Accepted for the platform's sake and checked; all
// queues share one pool and run at the process's own priority.
using qos_class_t = unsigned int;
inline constexpr qos_class_t QOS_CLASS_USER_INTERACTIVE = 0x21;
inline constexpr qos_class_t QOS_CLASS_USER_INITIATED = 0x19;
inline constexpr qos_class_t QOS_CLASS_DEFAULT = 0x15;
inline constexpr qos_class_t QOS_CLASS_UTILITY = 0x11;
inline constexpr qos_class_t QOS_CLASS_BACKGROUND = 0x09;
inline constexpr qos_class_t QOS_CLASS_UNSPECIFIED = 0x00;

struct dispatch_queue_s;
struct dispatch_source_s;
struct dispatch_group_s;
struct dispatch_queue_attr_s;
using dispatch_queue_t = dispatch_queue_s*;
using dispatch_source_t = dispatch_source_s*;
using dispatch_group_t = dispatch_group_s*;
using dispatch_queue_attr_t = dispatch_queue_attr_s*;

// The only queue attribute: every queue is serial.
inline constexpr dispatch_queue_attr_t DISPATCH_QUEUE_SERIAL = nullptr;

// Points in time, in nanoseconds of the process's monotonic dispatch clock.
// DISPATCH_TIME_NOW stands for "the moment of the call"; DISPATCH_TIME_FOREVER
// for "never".
using dispatch_time_t = uint64_t;
inline constexpr dispatch_time_t DISPATCH_TIME_NOW = 0;
inline constexpr dispatch_time_t DISPATCH_TIME_FOREVER = ~uint64_t{0};
inline constexpr uint64_t NSEC_PER_SEC = 1000000000ull;
inline constexpr uint64_t NSEC_PER_MSEC = 1000000ull;
inline constexpr uint64_t NSEC_PER_USEC = 1000ull;

enum dispatch_source_type_t : uintptr_t { DISPATCH_SOURCE_TYPE_TIMER = 1 };

namespace DispatchQueue {

// Queue types accepted by QueueFactory::Create. Both make a serial queue; the
// library's objects ask for one or the other and mean the same thing.
enum Type : int { kQueueTypeDefault = 0, kQueueTypeSerial = 1 };

// A four-character tag ("QSSE") as a 32-bit constant, first character in the
// most significant byte. Tags name the submitting component in crash messages.
constexpr uint32_t MakeTag(const char (&text)[5]) noexcept {
  return (uint32_t(uint8_t(text[0])) << 24) | (uint32_t(uint8_t(text[1])) << 16) |
         (uint32_t(uint8_t(text[2])) << 8) | uint32_t(uint8_t(text[3]));
}

// Flags of a submitted block. They change nothing about scheduling (every block
// runs alone on its queue); kRunChangesState marks a block that writes the state
// the queue guards, and crash messages say so.
enum RunFlags : uint32_t { kRunNoFlags = 0, kRunChangesState = 1 };

// Flags of IQueue::Finish.
enum FinishFlags : unsigned {
  kFinishRunPending = 0,      // blocks queued before the call still run
  kFinishDiscardPending = 1,  // blocks not yet started are dropped unrun
};

// A serial queue: blocks run one at a time, in the order in which they were
// submitted, whichever thread submitted them. All operations are thread-safe.
class QELSS_EXPORT IQueue {
 public:
  virtual ~IQueue();

  // Runs `block` on this queue and returns after it has run. When the queue is
  // idle the block runs at once on the calling thread; otherwise it runs, still
  // on the calling thread, after every block submitted before it. An exception
  // thrown by the block reaches the caller and leaves the queue usable.
  // Returns true when the block ran, false when the queue was finished (the
  // block is then not run). Calling it from a block running on the same queue,
  // directly or through other queues' synchronous runs, aborts the process.
  virtual bool Sync(uint32_t tag, uint32_t flags, QelSS::FunctionRef<void()> block) = 0;

  // Runs `block` at once on the calling thread, as Sync does, but only when
  // the queue is idle (nothing running, nothing waiting, not finished), and
  // then returns true; otherwise returns false at once without running it. It
  // never waits, so a thread that must not block (an I/O thread) can skip the
  // hop to a pool thread whenever nothing is in the way. This default never
  // runs the block.
  virtual bool TrySync(uint32_t tag, uint32_t flags, QelSS::FunctionRef<void()> block);

  // Queues `block` and returns at once; it runs later on a pool thread, never
  // on the calling thread. Returns false, destroying the block unrun, when the
  // block is empty or the queue was finished. A block must not throw: an
  // exception escaping it ends the process.
  virtual bool Async(uint32_t tag, uint32_t flags, std::function<void()> block) = 0;

  // Closes the queue: later Sync and Async calls do not run their blocks. With
  // kFinishDiscardPending, blocks not yet started are dropped (waiting Sync
  // callers return false); otherwise they still run. Then waits up to
  // `waitSeconds` for the queue to fall idle. Returns an error_code of value 0
  // when the queue is idle on return, kTimeout (497) when work remained when
  // the wait ended, and kOperationRefused (208) without waiting when called from
  // a block running on this queue. Finishing twice is harmless.
  virtual std::error_code Finish(unsigned waitSeconds, unsigned flags) = 0;

  // The handle of this queue, valid while the queue lives; not retained for the
  // caller (dispatch_retain it to keep it).
  virtual dispatch_queue_t GetDispatchQueue() noexcept = 0;

  virtual const std::string& GetLabel() const noexcept = 0;
};

class QELSS_EXPORT QueueFactory {
 public:
  // Makes a serial queue named `label` (null means empty). The result follows
  // the queue library's own convention: an error_code of value 0 on success,
  // with `out` holding the queue; kInvalidArgument (204) for an unknown type or
  // quality-of-service class and kAllocationFailed (499) when memory runs out,
  // with `out` untouched. Costs no thread and no system call.
  [[nodiscard]] static std::error_code Create(std::shared_ptr<IQueue>& out, Type type,
                                              const char* label, qos_class_t qos);
};

}  // namespace DispatchQueue

// ---- Queue handles ----

// A new serial queue, owned by the caller (release it with dispatch_release);
// null when `attr` is not DISPATCH_QUEUE_SERIAL or memory runs out.
QELSS_EXPORT dispatch_queue_t dispatch_queue_create(const char* label, dispatch_queue_attr_t attr);

// Reference counting of every dispatch object. Null is ignored. An object lives
// until its last reference is released and the work it has queued has run; the
// last release of a source cancels it.
QELSS_EXPORT void dispatch_retain(dispatch_queue_t queue);
QELSS_EXPORT void dispatch_release(dispatch_queue_t queue);
QELSS_EXPORT void dispatch_retain(dispatch_source_t source);
QELSS_EXPORT void dispatch_release(dispatch_source_t source);
QELSS_EXPORT void dispatch_retain(dispatch_group_t group);
QELSS_EXPORT void dispatch_release(dispatch_group_t group);

// IQueue::Async and IQueue::Sync through a handle, with no tag. A null queue or
// an empty block does nothing.
QELSS_EXPORT void dispatch_async(dispatch_queue_t queue, std::function<void()> block);
QELSS_EXPORT void dispatch_sync(dispatch_queue_t queue, QelSS::FunctionRef<void()> block);

// ---- Time ----

// `when` (or now, for DISPATCH_TIME_NOW) moved by `delta` nanoseconds, saturating
// at DISPATCH_TIME_FOREVER; DISPATCH_TIME_FOREVER stays forever.
QELSS_EXPORT dispatch_time_t dispatch_time(dispatch_time_t when, int64_t delta);

// ---- Timer sources ----
//
// A source is created suspended (suspend count 1) and does nothing until
// dispatch_resume brings the count to 0. A resumed timer delivers its event
// handler on the target queue at the start time and then once per interval.
// Ticks never pile up: a tick that comes due while the previous delivery is still
// waiting to run is merged into it, and because the target queue is serial no
// two handler calls overlap. Ticks missed while suspended are delivered as one
// call on resume. Leeway is the lateness the caller allows; ticks are not
// delayed on purpose. Thread-safe.

// A timer source delivering on `queue` (retained), owned by the caller; null for
// another type or a null queue. `handle` and `mask` must be 0.
QELSS_EXPORT dispatch_source_t dispatch_source_create(dispatch_source_type_t type, uintptr_t handle,
                                                      uintptr_t mask, dispatch_queue_t queue);

// Schedules the first tick at `start` (DISPATCH_TIME_NOW: now; FOREVER: never)
// and the following ones every `interval` nanoseconds after it; an interval of 0
// or DISPATCH_TIME_FOREVER makes a one-shot timer. Replaces an earlier schedule.
QELSS_EXPORT void dispatch_source_set_timer(dispatch_source_t source, dispatch_time_t start,
                                            uint64_t interval, uint64_t leeway);

// The block run for each delivery; an empty function clears it. Later ticks use
// the new handler; a call already running finishes with the old one.
QELSS_EXPORT void dispatch_source_set_event_handler(dispatch_source_t source,
                                                    std::function<void()> handler);

// A block run once on the target queue after the source is cancelled, after any
// event handler call already running or queued has finished.
QELSS_EXPORT void dispatch_source_set_cancel_handler(dispatch_source_t source,
                                                     std::function<void()> handler);

// Raises the suspend count; no event handler call starts while it is above 0.
QELSS_EXPORT void dispatch_suspend(dispatch_source_t source);
// Lowers the suspend count; resuming a source that is not suspended aborts.
QELSS_EXPORT void dispatch_resume(dispatch_source_t source);

// Stops the source for good and drops its event handler; cancelling twice is
// harmless. Cancelling does not wait: a delivery that the target queue has
// already begun to run finishes, but every delivery not yet begun when this
// returns is skipped. Called from a block on the target queue, nothing can be
// under way, so the handler never runs again; from elsewhere, a synchronous run
// on the target queue after the cancel waits out a delivery under way.
QELSS_EXPORT void dispatch_source_cancel(dispatch_source_t source);
// Non-zero once the source is cancelled.
QELSS_EXPORT long dispatch_source_testcancel(dispatch_source_t source);

// ---- Groups ----
//
// A group counts work under way. Thread-safe.

// A new group with nothing under way, owned by the caller; null when memory
// runs out.
QELSS_EXPORT dispatch_group_t dispatch_group_create();
QELSS_EXPORT void dispatch_group_enter(dispatch_group_t group);
// Leaving more often than entering aborts.
QELSS_EXPORT void dispatch_group_leave(dispatch_group_t group);

// Waits until nothing is under way or `timeout` passes. Returns 0 when the group
// is empty, non-zero on time-out. DISPATCH_TIME_NOW polls; FOREVER never times
// out. The wait runs on the real clock: a test advancing the dispatch clock does
// not shorten a wait already begun.
QELSS_EXPORT long dispatch_group_wait(dispatch_group_t group, dispatch_time_t timeout);

// Queues `block` on `queue` (retained until then) once nothing is under way: at
// once if the group is empty now, otherwise after the last leave.
QELSS_EXPORT void dispatch_group_notify(dispatch_group_t group, dispatch_queue_t queue,
                                        std::function<void()> block);

// Runs `block` asynchronously on `queue` as work of the group.
QELSS_EXPORT void dispatch_group_async(dispatch_group_t group, dispatch_queue_t queue,
                                       std::function<void()> block);
