#pragma once

#include <cstdint>

namespace QelSS::platform {

class SerialQueue;

// One block running on the current thread. Frames live on the stack of the
// thread that runs the block and link outwards, so a thread's frames describe
// exactly the queues it holds while it is blocked in a synchronous run.
struct RunningFrame {
  const SerialQueue* queue;
  uint32_t tag;
  uint32_t flags;
  const RunningFrame* outer;
};

// Innermost frame of this thread. Initial-exec keeps the access to one load on
// the synchronous-run fast path, also inside the shared library.
inline constinit thread_local const RunningFrame* tInnermostFrame
    __attribute__((tls_model("initial-exec"))) = nullptr;

inline bool FramesHold(const RunningFrame* frame, const SerialQueue* queue) {
  for (; frame != nullptr; frame = frame->outer) {
    if (frame->queue == queue) return true;
  }
  return false;
}

inline bool IsRunningOnThisThread(const SerialQueue* queue) {
  return FramesHold(tInnermostFrame, queue);
}

inline const RunningFrame* FindFrame(const SerialQueue* queue) {
  for (const RunningFrame* frame = tInnermostFrame; frame != nullptr; frame = frame->outer) {
    if (frame->queue == queue) return frame;
  }
  return nullptr;
}

// Marks the current thread as running a block of `queue` for its lifetime.
class RunningFrameScope {
 public:
  RunningFrameScope(const SerialQueue* queue, uint32_t tag, uint32_t flags) noexcept
      : frame_{queue, tag, flags, tInnermostFrame} {
    tInnermostFrame = &frame_;
  }
  ~RunningFrameScope() { tInnermostFrame = frame_.outer; }
  RunningFrameScope(const RunningFrameScope&) = delete;
  RunningFrameScope& operator=(const RunningFrameScope&) = delete;

 private:
  RunningFrame frame_;
};

}  // namespace QelSS::platform
