#include "Session.h"

#include <sys/socket.h>

#include <asio/post.hpp>
#include <asio/write.hpp>

#include "platform/xpc/XpcWire.h"
#include "qelss/platform/ErrorCode.h"

namespace QelSS::service {

Session::Session(asio::local::stream_protocol::socket socket, FrameHandler handler,
                 std::function<void(const Session&)> onClose)
    : socket_(std::move(socket)),
      handler_(std::move(handler)),
      onClose_(std::move(onClose)),
      chunk_(64 * 1024) {}

void Session::Start() {
  struct ucred credentials {};
  socklen_t length = sizeof credentials;
  if (::getsockopt(socket_.native_handle(), SOL_SOCKET, SO_PEERCRED, &credentials, &length) == 0) {
    peer_.uid = credentials.uid;
    peer_.pid = credentials.pid;
  }
  ReadMore();
}

void Session::ReadMore() {
  socket_.async_read_some(asio::buffer(chunk_),
                          [self = shared_from_this()](const std::error_code& error, size_t n) {
                            if (error) {
                              self->CloseOnIoThread();
                              return;
                            }
                            self->reader_.Feed({self->chunk_.data(), n});
                            platform::ipc::Frame frame;
                            for (;;) {
                              const auto status = self->reader_.Next(frame);
                              if (status == platform::ipc::FrameReader::Status::kNeedMore) break;
                              xpc_object_t body = nullptr;
                              if (status == platform::ipc::FrameReader::Status::kBroken ||
                                  xpc::DecodeWire(frame.body, body) != make_error_code(kSuccess)) {
                                self->CloseOnIoThread();
                                return;
                              }
                              self->handler_(self, frame.request, body);
                              if (!self->IsOpen()) return;
                            }
                            self->ReadMore();
                          });
}

// Writes what the socket takes now without waiting: the whole frame, or its
// remainder as a new frame (null when all of it went). The frame itself when
// nothing could be written, or the socket failed (the reader notices that).
SharedFrame Session::WriteNowLocked(SharedFrame frame) {
  const ssize_t written =
      ::send(socket_.native_handle(), frame->data(), frame->size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  if (written <= 0) return frame;
  if (static_cast<size_t>(written) == frame->size()) return nullptr;
  return std::make_shared<const std::vector<uint8_t>>(frame->begin() + written, frame->end());
}

void Session::Send(SharedFrame frame) {
  bool startWrite = false;
  {
    platform::MutexLock lock(mutex_);
    if (!open_) return;
    if (queuedBytes_ > 0 && queuedBytes_ + frame->size() > kMaxQueuedOutput) {
      lock.Unlock();
      Close();
      return;
    }
    // With nothing queued or being written, the frame goes out from this
    // thread: a hop to the I/O thread costs more than the write itself.
    if (!writing_) {
      frame = WriteNowLocked(std::move(frame));
      if (frame == nullptr) return;
    }
    queuedBytes_ += frame->size();
    queued_.push_back(std::move(frame));
    startWrite = !writing_;
    writing_ = true;
  }
  if (startWrite) {
    asio::post(socket_.get_executor(), [self = shared_from_this()] { self->WriteMore(); });
  }
}

void Session::WriteMore() {
  std::vector<asio::const_buffer> buffers;
  {
    platform::MutexLock lock(mutex_);
    if (!open_) {
      inFlight_.clear();
      writing_ = false;
      return;
    }
    // Frames stay counted until written: the limit is on what the client has
    // not taken yet.
    for (const SharedFrame& frame : inFlight_) queuedBytes_ -= frame->size();
    inFlight_.clear();
    if (queued_.empty()) {
      writing_ = false;
      return;
    }
    while (!queued_.empty() && inFlight_.size() < 64) {
      inFlight_.push_back(std::move(queued_.front()));
      queued_.pop_front();
    }
  }
  for (const SharedFrame& frame : inFlight_) buffers.emplace_back(asio::buffer(*frame));
  asio::async_write(socket_, buffers,
                    [self = shared_from_this()](const std::error_code& error, size_t) {
                      if (error) {
                        self->CloseOnIoThread();
                        return;
                      }
                      self->WriteMore();
                    });
}

void Session::Close() {
  asio::post(socket_.get_executor(), [self = shared_from_this()] { self->CloseOnIoThread(); });
}

void Session::CloseOnIoThread() {
  {
    platform::MutexLock lock(mutex_);
    open_ = false;
    queued_.clear();
    queuedBytes_ = 0;
  }
  std::error_code ignored;
  socket_.close(ignored);
  if (!closeReported_) {
    closeReported_ = true;
    if (onClose_) onClose_(*this);
  }
}

bool Session::IsOpen() const {
  platform::MutexLock lock(mutex_);
  return open_;
}

}  // namespace QelSS::service
