#pragma once

// Imports the domain files an administrator drops into the service's
// predefines folder: everything there at start, then each file as its writer
// closes it or moves it in. The imports run on a thread of their own, since
// each waits until its commit is durable.

#include <array>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>

#include "qelss/predefine/PreDefineManager.h"

namespace QelSS::service {

class PredefineWatcher {
 public:
  // Makes the folders and the watch (before the first look, so that no file
  // dropped meanwhile is missed). Throws std::runtime_error when it cannot.
  PredefineWatcher(asio::io_context& io, const std::string& folder,
                   PreDefineManager::ImportTarget target);
  // Lets the import under way finish; the rest stay for the next start.
  ~PredefineWatcher();
  PredefineWatcher(const PredefineWatcher&) = delete;
  PredefineWatcher& operator=(const PredefineWatcher&) = delete;

 private:
  void ReadEvents();
  void TakeEvents(size_t bytes);
  // Queues the import of `file`; an empty name stands for every file.
  void Queue(std::string file);
  void Work();

  PreDefineManager manager_;
  asio::posix::stream_descriptor events_;
  alignas(8) std::array<char, 16384> buffer_{};
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::string> pending_;  // guarded by mutex_
  bool stopping_ = false;            // guarded by mutex_
  std::thread worker_;
};

}  // namespace QelSS::service
