#include "PredefineWatcher.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "Log.h"

namespace QelSS::service {
namespace {

int MakeWatch(const std::string& folder) {
  const int fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (fd < 0) throw std::runtime_error(std::string("no inotify: ") + std::strerror(errno));
  // Only a closed writer or a finished move means the file is whole.
  if (::inotify_add_watch(fd, folder.c_str(), IN_CLOSE_WRITE | IN_MOVED_TO | IN_ONLYDIR) < 0) {
    const int error = errno;
    ::close(fd);
    throw std::runtime_error("cannot watch " + folder + ": " + std::strerror(error));
  }
  return fd;
}

void LogOutcome(const PredefineOutcome& outcome) {
  switch (outcome.kind) {
    case PredefineOutcome::Kind::kImported:
      Log(LOG_INFO, "predefine: imported %s into %s", outcome.file.c_str(), outcome.domain.c_str());
      break;
    case PredefineOutcome::Kind::kRefused:
      Log(LOG_WARNING, "predefine: refused %s: %s (%d); moved to %s", outcome.file.c_str(),
          outcome.message.c_str(), outcome.code.value(),
          outcome.movedTo.empty() ? "nowhere" : outcome.movedTo.c_str());
      break;
    case PredefineOutcome::Kind::kLeft:
      break;  // it comes back with its next event
  }
}

}  // namespace

PredefineWatcher::PredefineWatcher(asio::io_context& io, const std::string& folder,
                                   PreDefineManager::ImportTarget target)
    : manager_(folder, std::move(target)), events_(io, MakeWatch(manager_.DropFolder())) {
  Queue("");
  worker_ = std::thread([this] { Work(); });
  ReadEvents();
}

PredefineWatcher::~PredefineWatcher() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  worker_.join();
}

void PredefineWatcher::ReadEvents() {
  events_.async_read_some(
      asio::buffer(buffer_), [this](const std::error_code& error, size_t bytes) {
        if (error == asio::error::operation_aborted) return;
        if (error) {
          Log(LOG_ERR, "predefine: the watch failed (%s); dropped files wait for a restart",
              error.message().c_str());
          return;
        }
        TakeEvents(bytes);
        ReadEvents();
      });
}

void PredefineWatcher::TakeEvents(size_t bytes) {
  size_t at = 0;
  while (at + sizeof(inotify_event) <= bytes) {
    inotify_event event;
    std::memcpy(&event, buffer_.data() + at, sizeof event);
    const size_t end = at + sizeof event + event.len;
    if (end > bytes) break;
    if ((event.mask & IN_Q_OVERFLOW) != 0) {
      Queue("");
    } else if (event.len > 0) {
      const char* name = buffer_.data() + at + sizeof event;
      Queue(std::string(name, ::strnlen(name, event.len)));
    }
    at = end;
  }
}

void PredefineWatcher::Queue(std::string file) {
  {
    std::lock_guard lock(mutex_);
    pending_.push_back(std::move(file));
  }
  wake_.notify_one();
}

void PredefineWatcher::Work() {
  std::unique_lock lock(mutex_);
  while (true) {
    wake_.wait(lock, [this] { return stopping_ || !pending_.empty(); });
    if (stopping_) return;
    const std::string file = std::move(pending_.front());
    pending_.pop_front();
    lock.unlock();
    std::vector<PredefineOutcome> outcomes(1);
    if (file.empty()) {
      outcomes.clear();
      if (manager_.ImportAll(outcomes) != kSuccess) {
        Log(LOG_ERR, "predefine: cannot read %s", manager_.DropFolder().c_str());
      }
    } else {
      (void)manager_.ImportFile(file, outcomes.front());
    }
    for (const PredefineOutcome& outcome : outcomes) LogOutcome(outcome);
    lock.lock();
  }
}

}  // namespace QelSS::service
