#pragma once

// A mutex and its locks that clang's lock analysis (-Wthread-safety) can
// follow: members marked QELSS_GUARDED_BY(m) may only be touched with m held,
// functions marked QELSS_REQUIRES(m) only be called with it held. Other
// compilers see plain std::mutex code.

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define QELSS_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define QELSS_THREAD_ANNOTATION(x)
#endif

#define QELSS_CAPABILITY(x) QELSS_THREAD_ANNOTATION(capability(x))
#define QELSS_SCOPED_CAPABILITY QELSS_THREAD_ANNOTATION(scoped_lockable)
#define QELSS_GUARDED_BY(x) QELSS_THREAD_ANNOTATION(guarded_by(x))
#define QELSS_PT_GUARDED_BY(x) QELSS_THREAD_ANNOTATION(pt_guarded_by(x))
#define QELSS_REQUIRES(...) QELSS_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define QELSS_ACQUIRE(...) QELSS_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define QELSS_RELEASE(...) QELSS_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define QELSS_EXCLUDES(...) QELSS_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define QELSS_NO_THREAD_SAFETY_ANALYSIS QELSS_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace QelSS::platform {

class MutexLock;

class QELSS_CAPABILITY("mutex") Mutex {
 public:
  constexpr Mutex() noexcept = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void Lock() QELSS_ACQUIRE() { mutex_.lock(); }
  void Unlock() QELSS_RELEASE() { mutex_.unlock(); }

 private:
  friend class MutexLock;
  std::mutex mutex_;
};

// Holds a Mutex for its scope, may let go of it and take it again, and waits
// on condition variables with it. A predicate passed to a wait runs with the
// mutex held; mark the lambda QELSS_REQUIRES(the mutex) when it reads guarded
// members.
class QELSS_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) QELSS_ACQUIRE(mutex) : lock_(mutex.mutex_) {}
  ~MutexLock() QELSS_RELEASE() = default;
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  void Unlock() QELSS_RELEASE() { lock_.unlock(); }
  void Lock() QELSS_ACQUIRE() { lock_.lock(); }

  template <typename Predicate>
  void Wait(std::condition_variable& condition, Predicate ready) {
    condition.wait(lock_, std::move(ready));
  }
  template <typename Rep, typename Period, typename Predicate>
  bool WaitFor(std::condition_variable& condition, std::chrono::duration<Rep, Period> limit,
               Predicate ready) {
    return condition.wait_for(lock_, limit, std::move(ready));
  }
  template <typename Clock, typename Duration, typename Predicate>
  bool WaitUntil(std::condition_variable& condition,
                 std::chrono::time_point<Clock, Duration> deadline, Predicate ready) {
    return condition.wait_until(lock_, deadline, std::move(ready));
  }

 private:
  std::unique_lock<std::mutex> lock_;
};

}  // namespace QelSS::platform
