#include "platform/support/KeepAlive.h"

#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <unordered_set>
#include <vector>

namespace QelSS::platform {
namespace {

struct Flusher {
  unsigned long id = 0;
  std::function<void()> run;
  std::chrono::milliseconds limit{0};
  pid_t owner = 0;  // the process that registered it; a forked child skips it

  // Guarded by Registry::mutex.
  bool running = false;
  std::thread::id runner;
};

struct Guard {
  std::chrono::steady_clock::time_point deadline;
  pid_t owner = 0;
};

struct Registry {
  std::mutex mutex;
  std::condition_variable flusherFinished;
  std::condition_variable guardEnded;

  // Guarded by mutex.
  std::unordered_set<KeepAlive::Token> held;
  KeepAlive::Token nextToken = 1;  // 0 stands for "no keep-alive" in callers
  std::map<unsigned long, std::shared_ptr<Flusher>> flushers;
  unsigned long nextId = 1;
  std::map<unsigned long, Guard> guards;
  unsigned long nextGuard = 1;
};

// Never destroyed: the exit handler and late Unregister calls from static
// destructors still use it.
Registry& TheRegistry() {
  static Registry* registry = new Registry;
  return *registry;
}

struct Completion {
  std::mutex mutex;
  std::condition_variable done;
  bool finished = false;  // guarded by mutex
};

void RunOnThisThread(const std::shared_ptr<Flusher>& flusher) {
  {
    std::lock_guard<std::mutex> lock(TheRegistry().mutex);
    flusher->runner = std::this_thread::get_id();
  }
  // An exception must not take the rest of exit down with it.
  try {
    flusher->run();
  } catch (...) {
  }
}

// Runs the flusher on a helper thread and waits at most its limit. False when it
// overran; the helper thread is then left behind, still running.
bool RunBounded(const std::shared_ptr<Flusher>& flusher) {
  auto completion = std::make_shared<Completion>();
  std::thread helper;
  try {
    helper = std::thread([flusher, completion] {
      RunOnThisThread(flusher);
      std::lock_guard<std::mutex> lock(completion->mutex);
      completion->finished = true;
      completion->done.notify_all();
    });
  } catch (const std::system_error&) {
    // No thread to spare: saving the data matters more than the bound.
    RunOnThisThread(flusher);
    return true;
  }
  std::unique_lock<std::mutex> lock(completion->mutex);
  if (!completion->done.wait_for(lock, flusher->limit, [&] { return completion->finished; })) {
    helper.detach();
    return false;
  }
  lock.unlock();
  helper.join();
  return true;
}

std::vector<std::shared_ptr<Flusher>> FlushersOfThisProcess() {
  std::vector<std::shared_ptr<Flusher>> list;
  const pid_t self = getpid();
  std::lock_guard<std::mutex> lock(TheRegistry().mutex);
  for (const auto& [id, flusher] : TheRegistry().flushers) {
    if (flusher->owner == self) list.push_back(flusher);
  }
  return list;
}

// Marks the flusher running unless it was unregistered since the list was taken.
bool Claim(const std::shared_ptr<Flusher>& flusher) {
  Registry& registry = TheRegistry();
  std::lock_guard<std::mutex> lock(registry.mutex);
  auto it = registry.flushers.find(flusher->id);
  if (it == registry.flushers.end() || it->second != flusher) return false;
  flusher->running = true;
  return true;
}

void Release(const std::shared_ptr<Flusher>& flusher) {
  {
    std::lock_guard<std::mutex> lock(TheRegistry().mutex);
    flusher->running = false;
  }
  TheRegistry().flusherFinished.notify_all();
}

// False when a guard of this process outlived its deadline.
bool WaitForGuards() {
  Registry& registry = TheRegistry();
  const pid_t self = getpid();
  std::unique_lock<std::mutex> lock(registry.mutex);
  for (;;) {
    std::optional<std::chrono::steady_clock::time_point> latest;
    for (const auto& [id, guard] : registry.guards) {
      if (guard.owner == self && (!latest || guard.deadline > *latest)) latest = guard.deadline;
    }
    if (!latest) return true;
    if (std::chrono::steady_clock::now() >= *latest) return false;
    registry.guardEnded.wait_until(lock, *latest);
  }
}

void RunExitFlushers(int status, void* /*unused*/) {
  bool overran = false;
  for (const std::shared_ptr<Flusher>& flusher : FlushersOfThisProcess()) {
    if (!Claim(flusher)) continue;
    if (RunBounded(flusher)) {
      Release(flusher);
    } else {
      overran = true;
    }
  }
  if (!WaitForGuards()) overran = true;
  if (overran) {
    // A flusher that overran is still running and may hold locks or use objects
    // that the rest of exit would destroy under it; ending now is the only way
    // to keep exit bounded. The standard streams are flushed by hand because
    // the remaining exit handlers are skipped.
    std::fflush(stdout);
    std::fflush(stderr);
    _exit(status);
  }
}

void InstallExitHandlerOnce() {
  static std::once_flag once;
  // on_exit rather than atexit: the handler needs the exit status to end the
  // process itself when a flusher overruns.
  std::call_once(once, [] { on_exit(RunExitFlushers, nullptr); });
}

}  // namespace

KeepAlive::Token KeepAlive::Begin() {
  Registry& registry = TheRegistry();
  std::lock_guard<std::mutex> lock(registry.mutex);
  Token token = registry.nextToken++;
  if (token == 0) token = registry.nextToken++;
  registry.held.insert(token);
  return token;
}

void KeepAlive::End(Token token) {
  Registry& registry = TheRegistry();
  std::lock_guard<std::mutex> lock(registry.mutex);
  registry.held.erase(token);
}

unsigned long KeepAlive::Count() {
  Registry& registry = TheRegistry();
  std::lock_guard<std::mutex> lock(registry.mutex);
  return registry.held.size();
}

unsigned long KeepAlive::RegisterExitFlusher(std::function<void()> flusher,
                                             std::chrono::milliseconds limit) {
  InstallExitHandlerOnce();
  auto entry = std::make_shared<Flusher>();
  entry->run = std::move(flusher);
  entry->limit = limit;
  entry->owner = getpid();
  Registry& registry = TheRegistry();
  std::lock_guard<std::mutex> lock(registry.mutex);
  entry->id = registry.nextId++;
  registry.flushers.emplace(entry->id, entry);
  return entry->id;
}

void KeepAlive::UnregisterExitFlusher(unsigned long id) {
  Registry& registry = TheRegistry();
  std::unique_lock<std::mutex> lock(registry.mutex);
  auto it = registry.flushers.find(id);
  if (it == registry.flushers.end()) return;
  std::shared_ptr<Flusher> flusher = std::move(it->second);
  registry.flushers.erase(it);
  // A flusher that unregisters itself while it runs must not wait for itself.
  registry.flusherFinished.wait(
      lock, [&] { return !flusher->running || flusher->runner == std::this_thread::get_id(); });
  lock.unlock();
  // `flusher` may hold the last reference to what the function captured; it is
  // released here, outside the lock.
}

KeepAlive::ExitGuard::ExitGuard(std::chrono::milliseconds limit) {
  InstallExitHandlerOnce();
  Registry& registry = TheRegistry();
  std::lock_guard<std::mutex> lock(registry.mutex);
  id_ = registry.nextGuard++;
  registry.guards.emplace(id_, Guard{std::chrono::steady_clock::now() + limit, getpid()});
}

KeepAlive::ExitGuard::~ExitGuard() {
  Registry& registry = TheRegistry();
  {
    std::lock_guard<std::mutex> lock(registry.mutex);
    registry.guards.erase(id_);
  }
  registry.guardEnded.notify_all();
}

}  // namespace QelSS::platform
