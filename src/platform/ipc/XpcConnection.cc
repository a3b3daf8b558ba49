// A client connection: one Unix stream socket to a service, driven by the
// worker pool's io_context. Socket work runs on the link's strand; the state
// that senders on other threads touch sits behind the link's mutex; handlers
// run on dispatch queues, never on the strand, so a slow handler never holds
// up the socket.

#include <sys/socket.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <asio/bind_executor.hpp>
#include <asio/error.hpp>
#include <asio/local/stream_protocol.hpp>
#include <asio/post.hpp>
#include <asio/strand.hpp>
#include <asio/write.hpp>

#include "platform/dispatch/WorkerPool.h"
#include "platform/ipc/Frame.h"
#include "platform/support/Mutex.h"
#include "platform/xpc/XpcWire.h"
#include "qelss/platform/ErrorCode.h"
#include "qelss/platform/xpc_connection.h"

namespace QelSS::platform::ipc {
namespace {

// Asio's error categories are statics of their own, destroyed at exit like
// any other. The worker pool runs on through exit and may still complete a
// socket operation there, which compares codes of those categories. Made
// before the rest of the process's statics, they are destroyed after all of
// them, by when no connection of ours is left working.
struct AsioCategoriesFirst {
  AsioCategoriesFirst() {
    (void)asio::system_category();
    (void)asio::error::get_misc_category();
    (void)asio::error::get_netdb_category();
    (void)asio::error::get_addrinfo_category();
  }
};
__attribute__((init_priority(101))) const AsioCategoriesFirst kAsioCategoriesFirst;

// A retained queue handle.
class QueueRef {
 public:
  QueueRef() = default;
  explicit QueueRef(dispatch_queue_t queue) : queue_(queue) { dispatch_retain(queue_); }
  QueueRef(const QueueRef& other) : QueueRef(other.queue_) {}
  QueueRef& operator=(QueueRef other) {
    std::swap(queue_, other.queue_);
    return *this;
  }
  ~QueueRef() { dispatch_release(queue_); }
  dispatch_queue_t get() const { return queue_; }

 private:
  dispatch_queue_t queue_ = nullptr;
};

constexpr std::chrono::seconds kCloseWait{2};

struct PendingReply {
  QueueRef queue;
  xpc_handler_t handler;
};

// Runs `handler` with `object` (owned) on `queue` and then lets go of both.
void DeliverOn(const QueueRef& queue, xpc_handler_t handler, xpc_object_t object) {
  if (queue.get() == nullptr || !handler) {
    xpc_release(object);
    return;
  }
  dispatch_async(queue.get(), [queue, handler = std::move(handler), object] {
    handler(object);
    xpc_release(object);
  });
}

}  // namespace

class Link : public std::enable_shared_from_this<Link> {
 public:
  explicit Link(std::string path)
      : path_(std::move(path)),
        strand_(asio::make_strand(WorkerPool::Instance().Context())),
        socket_(strand_) {}

  void SetTargetQueue(dispatch_queue_t queue) {
    MutexLock lock(mutex_);
    target_ = QueueRef(queue);
  }

  void SetHandler(xpc_handler_t handler) {
    MutexLock lock(mutex_);
    handler_ = std::move(handler);
  }

  void Resume() {
    {
      MutexLock lock(mutex_);
      if (state_ != State::kSuspended) return;
      state_ = State::kConnecting;
    }
    asio::post(strand_, [self = shared_from_this()] { self->Connect(); });
  }

  // The awaited replies and the handler hear of the end before this returns,
  // so that a queue finished right after still runs them; the socket closes
  // on the strand.
  // Then waits (at most kCloseWait) until the socket is closed and its last
  // operation has finished: those finish on the worker pool with codes of
  // asio's error categories, which a process that leaves right after destroys.
  void Cancel() {
    EndState();
    asio::post(strand_, [self = shared_from_this()] { self->CloseSocket(); });
    if (strand_.running_in_this_thread()) return;
    WorkerPool::BlockingScope blocking;
    std::unique_lock lock(closeMutex_);
    quiet_.wait_for(lock, kCloseWait, [this] { return closed_ && operations_ == 0; });
  }

  void Send(xpc_object_t message, dispatch_queue_t replyQueue, xpc_handler_t reply) {
    const bool wantsReply = static_cast<bool>(reply);
    uint64_t request = kNoRequest;
    if (wantsReply) {
      MutexLock lock(mutex_);
      request = nextRequest_++;
    }
    std::vector<uint8_t> frame;
    const bool encoded = xpc_get_type(message) == XPC_TYPE_DICTIONARY &&
                         EncodeFrame(request, message, frame) == make_error_code(kSuccess);
    MutexLock lock(mutex_);
    if (!encoded || state_ == State::kEnded) {
      // Nothing will answer: the reply hears so at once, as after a loss.
      if (wantsReply) {
        DeliverOn(replyQueue != nullptr ? QueueRef(replyQueue) : target_, std::move(reply),
                  XPC_ERROR_CONNECTION_INVALID);
      }
      return;
    }
    if (wantsReply) {
      pending_.emplace(request, PendingReply{replyQueue != nullptr ? QueueRef(replyQueue) : target_,
                                             std::move(reply)});
    }
    size_t written = 0;
    // With nothing queued or being written, the frame goes out from this
    // thread: a hop to the I/O thread costs more than the write itself.
    if (state_ == State::kOpen && !writePosted_ && outgoing_.empty())
      written = WriteNowLocked(frame);
    if (written == frame.size()) return;
    outgoing_.insert(outgoing_.end(), frame.begin() + static_cast<std::ptrdiff_t>(written),
                     frame.end());
    if (state_ == State::kOpen) PostWriteLocked();
  }

 private:
  enum class State { kSuspended, kConnecting, kOpen, kEnded };

  // What the socket takes of `frame` now, without waiting; 0 also when it
  // failed (the reader notices that).
  size_t WriteNowLocked(const std::vector<uint8_t>& frame) QELSS_REQUIRES(mutex_) {
    const ssize_t written =
        ::send(socket_.native_handle(), frame.data(), frame.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    return written > 0 ? static_cast<size_t>(written) : 0;
  }

  void PostWriteLocked() QELSS_REQUIRES(mutex_) {
    if (writePosted_) return;
    writePosted_ = true;
    asio::post(strand_, [self = shared_from_this()] { self->WriteMore(); });
  }

  // ---- On the strand.

  void Connect() {
    asio::local::stream_protocol::endpoint endpoint;
    try {
      endpoint = asio::local::stream_protocol::endpoint(path_);
    } catch (const std::exception&) {
      End();  // a path too long for a socket address
      return;
    }
    Started();
    socket_.async_connect(endpoint, [self = shared_from_this()](const std::error_code& error) {
      const Finished finished(*self);
      if (error) {
        self->End();
        return;
      }
      {
        MutexLock lock(self->mutex_);
        if (self->state_ != State::kConnecting) return;
        self->state_ = State::kOpen;
        if (!self->outgoing_.empty()) self->PostWriteLocked();
      }
      self->ReadMore();
    });
  }

  void ReadMore() {
    Started();
    socket_.async_read_some(asio::buffer(chunk_),
                            [self = shared_from_this()](const std::error_code& error, size_t n) {
                              const Finished finished(*self);
                              if (error) {
                                self->End();
                                return;
                              }
                              self->reader_.Feed({self->chunk_.data(), n});
                              if (self->TakeFrames()) self->ReadMore();
                            });
  }

  // False when the stream broke and the link ended.
  bool TakeFrames() {
    Frame frame;
    for (;;) {
      switch (reader_.Next(frame)) {
        case FrameReader::Status::kNeedMore:
          return true;
        case FrameReader::Status::kBroken:
          End();
          return false;
        case FrameReader::Status::kFrame:
          if (!Dispatch(frame)) {
            End();
            return false;
          }
      }
    }
  }

  // A service whose frames do not decode is not trusted any further.
  bool Dispatch(const Frame& frame) {
    xpc_object_t object = nullptr;
    if (xpc::DecodeWire(frame.body, object) != make_error_code(kSuccess)) return false;
    MutexLock lock(mutex_);
    if (state_ == State::kEnded) {
      xpc_release(object);
      return true;
    }
    if (frame.request == kNoRequest) {
      DeliverEventLocked(object);
      return true;
    }
    auto found = pending_.find(frame.request);
    if (found == pending_.end()) {
      xpc_release(object);  // a reply nobody waits for any more
      return true;
    }
    PendingReply reply = std::move(found->second);
    pending_.erase(found);
    DeliverOn(reply.queue, std::move(reply.handler), object);
    return true;
  }

  // The handler is looked up when the event runs, so that replacing it also
  // silences events already queued.
  void DeliverEventLocked(xpc_object_t object) QELSS_REQUIRES(mutex_) {
    xpc_handler_t handler = [self = shared_from_this()](xpc_object_t event) {
      xpc_handler_t current;
      {
        MutexLock lock(self->mutex_);
        current = self->handler_;
      }
      if (current) current(event);
    };
    DeliverOn(target_, std::move(handler), object);
  }

  void WriteMore() {
    {
      MutexLock lock(mutex_);
      if (outgoing_.empty() || state_ != State::kOpen) {
        writePosted_ = false;
        return;
      }
      inFlight_.swap(outgoing_);
      outgoing_.clear();
    }
    Started();
    asio::async_write(socket_, asio::buffer(inFlight_),
                      [self = shared_from_this()](const std::error_code& error, size_t) {
                        const Finished finished(*self);
                        if (error) {
                          self->End();
                          return;
                        }
                        self->WriteMore();
                      });
  }

  void End() {
    EndState();
    CloseSocket();
  }

  void CloseSocket() {
    std::error_code ignored;
    socket_.close(ignored);
    std::lock_guard lock(closeMutex_);
    closed_ = true;
    quiet_.notify_all();
  }

  // Counts the socket operations under way, for Cancel.
  void Started() {
    std::lock_guard lock(closeMutex_);
    ++operations_;
  }
  class Finished {
   public:
    explicit Finished(Link& link) : link_(link) {}
    ~Finished() {
      std::lock_guard lock(link_.closeMutex_);
      if (--link_.operations_ == 0) link_.quiet_.notify_all();
    }
    Finished(const Finished&) = delete;
    Finished& operator=(const Finished&) = delete;

   private:
    Link& link_;
  };

  // ---- From any thread.

  void EndState() {
    MutexLock lock(mutex_);
    if (state_ == State::kEnded) return;
    state_ = State::kEnded;
    for (auto& [request, reply] : pending_) {
      DeliverOn(reply.queue, std::move(reply.handler), XPC_ERROR_CONNECTION_INVALID);
    }
    pending_.clear();
    outgoing_.clear();
    DeliverEventLocked(XPC_ERROR_CONNECTION_INVALID);
  }

  const std::string path_;
  asio::strand<asio::io_context::executor_type> strand_;
  // On the strand only.
  asio::local::stream_protocol::socket socket_;
  std::array<uint8_t, 64 * 1024> chunk_{};
  FrameReader reader_;
  std::vector<uint8_t> inFlight_;

  std::mutex closeMutex_;
  std::condition_variable quiet_;
  bool closed_ = false;  // guarded by closeMutex_
  int operations_ = 0;   // guarded by closeMutex_

  Mutex mutex_;
  State state_ QELSS_GUARDED_BY(mutex_) = State::kSuspended;
  bool writePosted_ QELSS_GUARDED_BY(mutex_) = false;
  QueueRef target_ QELSS_GUARDED_BY(mutex_);
  xpc_handler_t handler_ QELSS_GUARDED_BY(mutex_);
  std::map<uint64_t, PendingReply> pending_ QELSS_GUARDED_BY(mutex_);
  uint64_t nextRequest_ QELSS_GUARDED_BY(mutex_) = 1;
  // Frames not yet handed to the socket, back to back, so that a burst of
  // small messages leaves in one write.
  std::vector<uint8_t> outgoing_ QELSS_GUARDED_BY(mutex_);
};

}  // namespace QelSS::platform::ipc

struct _xpc_connection_s {
  std::atomic<uint32_t> refs{1};
  std::shared_ptr<QelSS::platform::ipc::Link> link;
};

using QelSS::platform::ipc::Link;

xpc_connection_t xpc_connection_create_mach_service(const char* name, dispatch_queue_t targetq,
                                                    uint64_t) noexcept {
  if (name == nullptr) return nullptr;
  try {
    auto* connection = new _xpc_connection_s;
    connection->link = std::make_shared<Link>(QelSS::ServiceSocketPath(name));
    if (targetq != nullptr) connection->link->SetTargetQueue(targetq);
    return connection;
  } catch (const std::exception&) {
    return nullptr;
  }
}

xpc_connection_t xpc_retain(xpc_connection_t connection) noexcept {
  if (connection != nullptr) connection->refs.fetch_add(1, std::memory_order_relaxed);
  return connection;
}

void xpc_release(xpc_connection_t connection) noexcept {
  if (connection == nullptr || connection->refs.fetch_sub(1, std::memory_order_acq_rel) != 1) {
    return;
  }
  connection->link->Cancel();
  delete connection;
}

bool xpc_equal(xpc_connection_t a, xpc_connection_t b) noexcept { return a == b; }

void xpc_connection_set_target_queue(xpc_connection_t connection,
                                     dispatch_queue_t targetq) noexcept {
  if (connection != nullptr) connection->link->SetTargetQueue(targetq);
}

void xpc_connection_set_event_handler(xpc_connection_t connection, xpc_handler_t handler) noexcept {
  if (connection != nullptr) connection->link->SetHandler(std::move(handler));
}

void xpc_connection_resume(xpc_connection_t connection) noexcept {
  if (connection != nullptr) connection->link->Resume();
}

void xpc_connection_cancel(xpc_connection_t connection) noexcept {
  if (connection != nullptr) connection->link->Cancel();
}

void xpc_connection_send_message(xpc_connection_t connection, xpc_object_t message) noexcept {
  if (connection == nullptr) return;
  try {
    connection->link->Send(message, nullptr, {});
  } catch (const std::exception&) {
    // Out of memory: the message is dropped, as a send to a lost peer is.
  }
}

void xpc_connection_send_message_with_reply(xpc_connection_t connection, xpc_object_t message,
                                            dispatch_queue_t replyq,
                                            xpc_handler_t handler) noexcept {
  if (connection == nullptr || !handler) return;
  try {
    connection->link->Send(message, replyq, std::move(handler));
  } catch (const std::exception&) {
  }
}
