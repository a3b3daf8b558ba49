// Frame grammar, all integers little-endian:
//
//   frame   = length request body
//   length  = u32, the size of body; at most kMaxFrameBody
//   request = u64; a command's number, which its reply carries back, or
//             kNoRequest (0) for a message that is not answered and for a push
//   body    = the wire form of one object (XpcWire.cc)
//
// A stream is a sequence of frames and nothing else. A header that announces
// an oversize body breaks the stream: the reader says so and the connection
// is closed, since nothing after it can be framed again.

#include "platform/ipc/Frame.h"

#include <algorithm>

#include "platform/xpc/XpcWire.h"
#include "qelss/platform/ErrorCode.h"

namespace QelSS::platform::ipc {
namespace {

uint64_t ReadLittleEndian(const uint8_t* p, int bytes) {
  uint64_t v = 0;
  for (int i = bytes - 1; i >= 0; --i) v = v << 8 | p[i];
  return v;
}

}  // namespace

std::error_code EncodeFrame(uint64_t request, xpc_object_t object, std::vector<uint8_t>& out) {
  const size_t start = out.size();
  out.resize(start + kFrameHeaderSize);
  const std::error_code encoded = xpc::EncodeWire(object, out);
  if (encoded != make_error_code(kSuccess)) {
    out.resize(start);
    return encoded;
  }
  const size_t body = out.size() - start - kFrameHeaderSize;
  if (body > kMaxFrameBody) {
    out.resize(start);
    return make_error_code(kInvalidData);
  }
  for (int i = 0; i < 4; ++i) out[start + i] = static_cast<uint8_t>(body >> (8 * i));
  for (int i = 0; i < 8; ++i) out[start + 4 + i] = static_cast<uint8_t>(request >> (8 * i));
  return make_error_code(kSuccess);
}

void FrameReader::Feed(std::span<const uint8_t> bytes) {
  if (broken_) return;
  // Drop what earlier frames used before growing, so a long-lived connection
  // holds at most one partial frame.
  if (start_ > 0 && (start_ == buffer_.size() || start_ >= buffer_.size() / 2)) {
    buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(start_));
    start_ = 0;
  }
  buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
}

FrameReader::Status FrameReader::Next(Frame& frame) {
  if (broken_) return Status::kBroken;
  if (Buffered() < kFrameHeaderSize) return Status::kNeedMore;
  const uint8_t* header = buffer_.data() + start_;
  const uint64_t length = ReadLittleEndian(header, 4);
  if (length > kMaxFrameBody) {
    broken_ = true;
    buffer_.clear();
    buffer_.shrink_to_fit();
    start_ = 0;
    return Status::kBroken;
  }
  if (Buffered() - kFrameHeaderSize < length) return Status::kNeedMore;
  frame.request = ReadLittleEndian(header + 4, 8);
  const auto body = buffer_.begin() + static_cast<std::ptrdiff_t>(start_ + kFrameHeaderSize);
  frame.body.assign(body, body + static_cast<std::ptrdiff_t>(length));
  start_ += kFrameHeaderSize + length;
  if (start_ == buffer_.size()) {
    buffer_.clear();
    start_ = 0;
  }
  return Status::kFrame;
}

}  // namespace QelSS::platform::ipc
