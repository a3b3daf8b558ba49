// The handle-based entry points. Each checks its handle for null and forwards
// to the object behind it.

#include <new>

#include "platform/dispatch/DispatchGroup.h"
#include "platform/dispatch/SerialQueue.h"
#include "platform/dispatch/TimerSource.h"
#include "qelss/platform/Dispatch.h"

using QelSS::platform::DispatchGroup;
using QelSS::platform::SerialQueue;
using QelSS::platform::TimerSource;

dispatch_queue_t dispatch_queue_create(const char* label, dispatch_queue_attr_t attr) {
  if (attr != DISPATCH_QUEUE_SERIAL) return nullptr;
  try {
    return SerialQueue::New(label)->GetDispatchQueue();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void dispatch_retain(dispatch_queue_t queue) {
  if (queue != nullptr) SerialQueue::FromHandle(queue)->Retain();
}

void dispatch_release(dispatch_queue_t queue) {
  if (queue != nullptr) SerialQueue::FromHandle(queue)->Release();
}

void dispatch_retain(dispatch_source_t source) {
  if (source != nullptr) TimerSource::FromHandle(source)->RetainForUser();
}

void dispatch_release(dispatch_source_t source) {
  if (source != nullptr) TimerSource::FromHandle(source)->ReleaseForUser();
}

void dispatch_retain(dispatch_group_t group) {
  if (group != nullptr) DispatchGroup::FromHandle(group)->Retain();
}

void dispatch_release(dispatch_group_t group) {
  if (group != nullptr) DispatchGroup::FromHandle(group)->Release();
}

void dispatch_async(dispatch_queue_t queue, std::function<void()> block) {
  if (queue != nullptr) {
    SerialQueue::FromHandle(queue)->Async(0, DispatchQueue::kRunNoFlags, std::move(block));
  }
}

void dispatch_sync(dispatch_queue_t queue, QelSS::FunctionRef<void()> block) {
  if (queue != nullptr) SerialQueue::FromHandle(queue)->Sync(0, DispatchQueue::kRunNoFlags, block);
}

dispatch_source_t dispatch_source_create(dispatch_source_type_t type, uintptr_t handle,
                                         uintptr_t mask, dispatch_queue_t queue) {
  if (type != DISPATCH_SOURCE_TYPE_TIMER || handle != 0 || mask != 0 || queue == nullptr) {
    return nullptr;
  }
  try {
    return TimerSource::New(SerialQueue::FromHandle(queue))->Handle();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void dispatch_source_set_timer(dispatch_source_t source, dispatch_time_t start, uint64_t interval,
                               uint64_t /*leeway*/) {
  if (source != nullptr) TimerSource::FromHandle(source)->SetTimer(start, interval);
}

void dispatch_source_set_event_handler(dispatch_source_t source, std::function<void()> handler) {
  if (source != nullptr) TimerSource::FromHandle(source)->SetEventHandler(std::move(handler));
}

void dispatch_source_set_cancel_handler(dispatch_source_t source, std::function<void()> handler) {
  if (source != nullptr) TimerSource::FromHandle(source)->SetCancelHandler(std::move(handler));
}

void dispatch_suspend(dispatch_source_t source) {
  if (source != nullptr) TimerSource::FromHandle(source)->Suspend();
}

void dispatch_resume(dispatch_source_t source) {
  if (source != nullptr) TimerSource::FromHandle(source)->Resume();
}

void dispatch_source_cancel(dispatch_source_t source) {
  if (source != nullptr) TimerSource::FromHandle(source)->Cancel();
}

long dispatch_source_testcancel(dispatch_source_t source) {
  return source != nullptr && TimerSource::FromHandle(source)->IsCancelled() ? 1 : 0;
}

dispatch_group_t dispatch_group_create() {
  try {
    return DispatchGroup::New()->Handle();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void dispatch_group_enter(dispatch_group_t group) {
  if (group != nullptr) DispatchGroup::FromHandle(group)->Enter();
}

void dispatch_group_leave(dispatch_group_t group) {
  if (group != nullptr) DispatchGroup::FromHandle(group)->Leave();
}

long dispatch_group_wait(dispatch_group_t group, dispatch_time_t timeout) {
  return group != nullptr ? DispatchGroup::FromHandle(group)->Wait(timeout) : 0;
}

void dispatch_group_notify(dispatch_group_t group, dispatch_queue_t queue,
                           std::function<void()> block) {
  if (group != nullptr && queue != nullptr && block) {
    DispatchGroup::FromHandle(group)->Notify(SerialQueue::FromHandle(queue), std::move(block));
  }
}

void dispatch_group_async(dispatch_group_t group, dispatch_queue_t queue,
                          std::function<void()> block) {
  if (group == nullptr || queue == nullptr || !block) return;
  DispatchGroup* const target = DispatchGroup::FromHandle(group);
  target->Enter();
  target->Retain();
  const bool queued = SerialQueue::FromHandle(queue)->Async(0, DispatchQueue::kRunNoFlags,
                                                            [target, work = std::move(block)] {
                                                              work();
                                                              target->Leave();
                                                              target->Release();
                                                            });
  if (!queued) {
    target->Leave();
    target->Release();
  }
}
