#pragma once

namespace QelSS::platform {

class SerialQueue;
struct RunningFrame;

// Registers the current thread, for its lifetime, as blocked in a synchronous run
// on `waitingFor` while holding the queues of its running frames, and aborts the
// process if that closes a cycle of such waits.
//
// Only threads that have already waited a while register, so the common
// contended wait never touches the registry. The check is exact, not a guess: a
// registered thread is blocked, so the queues it holds cannot change while it is
// registered, and a cycle through registered threads cannot resolve itself. Of
// the threads forming a cycle, the last to register sees the whole cycle.
class DeadlockWatch {
 public:
  explicit DeadlockWatch(const SerialQueue& waitingFor);
  ~DeadlockWatch();
  DeadlockWatch(const DeadlockWatch&) = delete;
  DeadlockWatch& operator=(const DeadlockWatch&) = delete;

 private:
  void AbortIfCycleLocked() const;
  const DeadlockWatch* FindHolderLocked(const SerialQueue* queue) const;

  const SerialQueue* const waitingFor_;
  const RunningFrame* const held_;
  DeadlockWatch* next_ = nullptr;  // protected by the registry's mutex
};

}  // namespace QelSS::platform
