#include "platform/dispatch/DeadlockWatch.h"

#include <mutex>
#include <string>

#include "platform/dispatch/FatalError.h"
#include "platform/dispatch/RunningFrame.h"
#include "platform/dispatch/SerialQueue.h"

namespace QelSS::platform {

namespace {

// Both are trivially destructible, so waits inside exit handlers still work.
constinit std::mutex gRegistryMutex;
constinit DeadlockWatch* gRegistered = nullptr;  // protected by gRegistryMutex
constinit unsigned gRegisteredCount = 0;         // protected by gRegistryMutex

}  // namespace

DeadlockWatch::DeadlockWatch(const SerialQueue& waitingFor)
    : waitingFor_(&waitingFor), held_(tInnermostFrame) {
  std::lock_guard<std::mutex> lock(gRegistryMutex);
  AbortIfCycleLocked();
  next_ = gRegistered;
  gRegistered = this;
  ++gRegisteredCount;
}

DeadlockWatch::~DeadlockWatch() {
  std::lock_guard<std::mutex> lock(gRegistryMutex);
  for (DeadlockWatch** link = &gRegistered; *link != nullptr; link = &(*link)->next_) {
    if (*link == this) {
      *link = next_;
      --gRegisteredCount;
      return;
    }
  }
}

const DeadlockWatch* DeadlockWatch::FindHolderLocked(const SerialQueue* queue) const {
  for (const DeadlockWatch* watch = gRegistered; watch != nullptr; watch = watch->next_) {
    if (FramesHold(watch->held_, queue)) return watch;
  }
  return nullptr;
}

// Follows "queue -> blocked thread holding it -> queue that thread waits for"
// from the queue we wait for. Reaching a queue this thread holds is a cycle.
void DeadlockWatch::AbortIfCycleLocked() const {
  std::string path = "'" + waitingFor_->GetLabel() + "'";
  const SerialQueue* wanted = waitingFor_;
  for (unsigned hop = 0; hop <= gRegisteredCount; ++hop) {
    const DeadlockWatch* holder = FindHolderLocked(wanted);
    if (holder == nullptr) return;
    wanted = holder->waitingFor_;
    path += " -> '" + wanted->GetLabel() + "'";
    if (FramesHold(held_, wanted)) {
      path += " -> '" + waitingFor_->GetLabel() + "'";
      DispatchFatal(
          "deadlock: blocks wait synchronously for each other's queues in a cycle: " + path +
          " (each arrow: a block running on the left queue waits for the "
          "right one)");
    }
  }
}

}  // namespace QelSS::platform
