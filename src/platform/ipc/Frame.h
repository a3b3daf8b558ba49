#pragma once

// Frames: how messages travel over a service socket. The grammar and its
// limits are at the top of Frame.cc.

#include <cstddef>
#include <cstdint>
#include <span>
#include <system_error>
#include <vector>

#include "qelss/platform/xpc.h"

namespace QelSS::platform::ipc {

// The body of the largest frame: a whole domain of the largest size a domain
// file may hold (its wire form is never longer than its text form, which is
// capped at 32,000,000 bytes), with room for the message around it.
inline constexpr uint32_t kMaxFrameBody = 33'000'000;
inline constexpr size_t kFrameHeaderSize = 12;
// Request number of a message that expects no reply (pushes, one-way sends).
inline constexpr uint64_t kNoRequest = 0;

struct Frame {
  uint64_t request = kNoRequest;
  std::vector<uint8_t> body;  // the wire form of one object
};

// Appends the frame of `object` to `out`: kInvalidArgument when the object has
// no wire form, kInvalidData when its form is larger than kMaxFrameBody.
// `out` keeps what it held before on failure.
[[nodiscard]] std::error_code EncodeFrame(uint64_t request, xpc_object_t object,
                                          std::vector<uint8_t>& out);

// Cuts a byte stream into frames. Memory follows the bytes that actually
// arrived, never a length that a frame header claims, so a peer announcing a
// huge frame and sending nothing costs nothing.
class FrameReader {
 public:
  enum class Status { kFrame, kNeedMore, kBroken };

  // Adds bytes read from the stream.
  void Feed(std::span<const uint8_t> bytes);
  // kFrame with the next whole frame in `frame`, kNeedMore when none is
  // complete yet, kBroken when the stream can no longer be trusted (a header
  // announcing more than kMaxFrameBody); a broken reader stays broken.
  Status Next(Frame& frame);
  // Bytes held that are not yet part of a returned frame.
  size_t Buffered() const noexcept { return buffer_.size() - start_; }

 private:
  std::vector<uint8_t> buffer_;
  size_t start_ = 0;
  bool broken_ = false;
};

}  // namespace QelSS::platform::ipc
