#pragma once

// One connected client: frames in, frames out. Reading and writing run on the
// service's I/O thread; Send may be called from any thread.

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <vector>

#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>

#include "platform/ipc/Frame.h"
#include "platform/support/Mutex.h"

namespace QelSS::service {

using SharedFrame = std::shared_ptr<const std::vector<uint8_t>>;

// A client whose unread output passes this many bytes is cut off rather than
// let the service's memory grow with it. One frame is always let through, so
// that the largest domain can still be fetched by a client that reads.
inline constexpr size_t kMaxQueuedOutput = 16u << 20;

struct PeerCredentials {
  uid_t uid = static_cast<uid_t>(-1);
  pid_t pid = 0;
};

class Session : public std::enable_shared_from_this<Session> {
 public:
  // Called on the I/O thread for each frame whose body decoded into an
  // object (owned by the callee); a frame that does not decode closes the
  // session instead.
  using FrameHandler =
      std::function<void(const std::shared_ptr<Session>&, uint64_t request, xpc_object_t body)>;

  Session(asio::local::stream_protocol::socket socket, FrameHandler handler,
          std::function<void(const Session&)> onClose);

  // Reads the peer's credentials and starts reading. On the I/O thread.
  void Start();
  // Queues `frame`; cuts the client off when its queue would pass
  // kMaxQueuedOutput. Thread-safe; does nothing once closed.
  void Send(SharedFrame frame);
  // Closes the connection; queued output is dropped. Thread-safe.
  void Close();
  bool IsOpen() const;
  const PeerCredentials& Peer() const noexcept { return peer_; }

 private:
  // ---- On the I/O thread.
  void ReadMore();
  void WriteMore();
  void CloseOnIoThread();
  // ---- Any thread, under mutex_.
  SharedFrame WriteNowLocked(SharedFrame frame) QELSS_REQUIRES(mutex_);

  asio::local::stream_protocol::socket socket_;
  const FrameHandler handler_;
  const std::function<void(const Session&)> onClose_;
  PeerCredentials peer_;  // set by Start, constant after
  std::vector<uint8_t> chunk_;
  platform::ipc::FrameReader reader_;
  std::vector<SharedFrame> inFlight_;

  mutable platform::Mutex mutex_;
  std::deque<SharedFrame> queued_ QELSS_GUARDED_BY(mutex_);
  size_t queuedBytes_ QELSS_GUARDED_BY(mutex_) = 0;
  bool writing_ QELSS_GUARDED_BY(mutex_) = false;
  bool open_ QELSS_GUARDED_BY(mutex_) = true;
  bool closeReported_ = false;  // I/O thread only
};

}  // namespace QelSS::service
