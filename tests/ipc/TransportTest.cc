#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cmath>
#include <cstring>
#include <thread>

#include "ipc/ServiceTestSupport.h"
#include "platform/ipc/Frame.h"
#include "platform/xpc/XpcWire.h"
#include "qelss/values/XPCObject.h"

namespace QelSS {
namespace {

using platform::ipc::Frame;
using platform::ipc::FrameReader;

XPCObject Owned(xpc_object_t object) { return XPCObject(object, false); }

std::vector<uint8_t> Wire(xpc_object_t object) {
  std::vector<uint8_t> bytes;
  EXPECT_EQ(xpc::EncodeWire(object, bytes), kSuccess);
  return bytes;
}

XPCObject EveryKind() {
  const unsigned char uuid[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
  XPCObject inner = Owned(xpc_array_create(nullptr, 0));
  xpc_array_append_value(inner.Get(), Owned(xpc_null_create()).Get());
  xpc_array_append_value(inner.Get(), Owned(xpc_dictionary_create(nullptr, nullptr, 0)).Get());
  XPCObject d = Owned(xpc_dictionary_create(nullptr, nullptr, 0));
  xpc_dictionary_set_value(d.Get(), "null", Owned(xpc_null_create()).Get());
  xpc_dictionary_set_bool(d.Get(), "bool", true);
  xpc_dictionary_set_int64(d.Get(), "int64", INT64_MIN);
  xpc_dictionary_set_uint64(d.Get(), "uint64", UINT64_MAX);
  xpc_dictionary_set_uint64(d.Get(), "uint64 small", 5);
  xpc_dictionary_set_int64(d.Get(), "int64 small", 5);
  xpc_dictionary_set_double(d.Get(), "double", -0.5);
  xpc_dictionary_set_string(d.Get(), "string", "gr\xC3\xBC\xC3\x9F");
  xpc_dictionary_set_value(d.Get(), "data", Owned(xpc_data_create("\0\1\2", 3)).Get());
  xpc_dictionary_set_value(d.Get(), "date", Owned(xpc_date_create(-1234567890123)).Get());
  xpc_dictionary_set_value(d.Get(), "uuid", Owned(xpc_uuid_create(uuid)).Get());
  xpc_dictionary_set_value(d.Get(), "array", inner.Get());
  return d;
}

TEST(WireForm, EveryKindRoundTripsExactly) {
  XPCObject original = EveryKind();
  const std::vector<uint8_t> bytes = Wire(original.Get());
  xpc_object_t decoded = nullptr;
  ASSERT_EQ(xpc::DecodeWire(bytes, decoded), kSuccess);
  XPCObject back = Owned(decoded);
  EXPECT_TRUE(xpc_equal(original.Get(), back.Get()));
  EXPECT_EQ(xpc_get_type(xpc_dictionary_get_value(back.Get(), "uint64 small")), XPC_TYPE_UINT64);
  EXPECT_EQ(xpc_get_type(xpc_dictionary_get_value(back.Get(), "int64 small")), XPC_TYPE_INT64);
  EXPECT_EQ(Wire(back.Get()), bytes) << "one object, one form";

  XPCObject nan = Owned(xpc_double_create(std::nan("")));
  ASSERT_EQ(xpc::DecodeWire(Wire(nan.Get()), decoded), kSuccess);
  EXPECT_TRUE(std::isnan(xpc_double_get_value(decoded)));
  xpc_release(decoded);
}

TEST(WireForm, TheFormOfASmallDictionaryIsFixed) {
  XPCObject d = Owned(xpc_dictionary_create(nullptr, nullptr, 0));
  xpc_dictionary_set_int64(d.Get(), "b", -2);
  xpc_dictionary_set_string(d.Get(), "a", "x");
  const std::vector<uint8_t> expected = {
      0x0B, 2, 0, 0, 0,                                       // dictionary of two
      1,    0, 0, 0, 'a', 0x06, 1,    0,    0,    0,    'x',  // "a": "x"
      1,    0, 0, 0, 'b', 0x03, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};  // "b": -2
  EXPECT_EQ(Wire(d.Get()), expected);
}

TEST(WireForm, MalformedInputIsRefused) {
  std::vector<uint8_t> deep;
  for (size_t i = 0; i <= xpc::kMaxWireDepth; ++i) deep.insert(deep.end(), {0x0A, 1, 0, 0, 0});
  deep.push_back(0x00);
  const std::pair<const char*, std::vector<uint8_t>> cases[] = {
      {"empty", {}},
      {"unknown tag", {0x0C}},
      {"short int64", {0x03, 1, 2, 3}},
      {"string longer than the input", {0x06, 9, 0, 0, 0, 'a'}},
      {"string with a NUL", {0x06, 2, 0, 0, 0, 'a', 0}},
      {"array count beyond the input", {0x0A, 0xFF, 0xFF, 0xFF, 0x7F, 0x00}},
      {"keys out of order", {0x0B, 2, 0, 0, 0, 1, 0, 0, 0, 'b', 0, 1, 0, 0, 0, 'a', 0}},
      {"duplicate key", {0x0B, 2, 0, 0, 0, 1, 0, 0, 0, 'a', 0, 1, 0, 0, 0, 'a', 0}},
      {"trailing byte", {0x00, 0x00}},
      {"nesting too deep", deep},
  };
  for (const auto& [what, bytes] : cases) {
    xpc_object_t out = nullptr;
    EXPECT_EQ(xpc::DecodeWire(bytes, out), kInvalidData) << what;
    EXPECT_EQ(out, nullptr) << what;
  }
  std::vector<uint8_t> unused;
  EXPECT_EQ(xpc::EncodeWire(XPC_ERROR_CONNECTION_INVALID, unused), kInvalidArgument);
  EXPECT_EQ(xpc::EncodeWire(nullptr, unused), kInvalidArgument);
  EXPECT_TRUE(unused.empty());
}

TEST(Frames, AStreamCutAnywhereGivesTheSameFrames) {
  XPCObject message = EveryKind();
  std::vector<uint8_t> stream;
  ASSERT_EQ(platform::ipc::EncodeFrame(7, message.Get(), stream), kSuccess);
  ASSERT_EQ(platform::ipc::EncodeFrame(0, message.Get(), stream), kSuccess);
  for (size_t cut = 0; cut <= stream.size(); ++cut) {
    FrameReader reader;
    std::vector<Frame> frames;
    Frame frame;
    reader.Feed({stream.data(), cut});
    while (reader.Next(frame) == FrameReader::Status::kFrame) frames.push_back(frame);
    reader.Feed({stream.data() + cut, stream.size() - cut});
    while (reader.Next(frame) == FrameReader::Status::kFrame) frames.push_back(frame);
    ASSERT_EQ(frames.size(), 2u) << "cut at " << cut;
    EXPECT_EQ(frames[0].request, 7u);
    EXPECT_EQ(frames[1].request, 0u);
    EXPECT_EQ(frames[0].body, frames[1].body);
    EXPECT_EQ(reader.Buffered(), 0u);
  }
}

TEST(Frames, AnOversizeHeaderBreaksTheStreamWithoutAllocating) {
  FrameReader reader;
  std::vector<uint8_t> header(platform::ipc::kFrameHeaderSize, 0);
  const uint32_t length = platform::ipc::kMaxFrameBody + 1;
  std::memcpy(header.data(), &length, 4);
  reader.Feed(header);
  Frame frame;
  EXPECT_EQ(reader.Next(frame), FrameReader::Status::kBroken);
  reader.Feed(header);
  EXPECT_EQ(reader.Next(frame), FrameReader::Status::kBroken);
  EXPECT_EQ(reader.Buffered(), 0u);
}

TEST(ClientConnectionTest, BadArgumentsSendNothingAndTeardownIsSafeInEveryState) {
  const testing::ScopedTempDir runtime;
  SetServiceRuntimeDirectory(runtime.path());
  std::shared_ptr<ClientConnection> never, other;
  ASSERT_EQ(ClientConnection::Create(never), kSuccess);
  ASSERT_EQ(ClientConnection::Create(other), kSuccess);
  std::shared_ptr<IHash> message;
  ASSERT_EQ(HashFactory::Create(message), kSuccess);
  EXPECT_EQ(never->SendMessage(nullptr), kInvalidArgument);
  EXPECT_EQ(never->SendMessageWithReply(nullptr, [](std::error_code, const auto&) {}),
            kInvalidArgument);
  EXPECT_EQ(never->SendMessageWithReply(message, {}), kInvalidArgument);
  EXPECT_EQ(never->RegisterInvalidationHandler({}), kInvalidArgument);
  EXPECT_TRUE(never->IsEqual(never));
  EXPECT_FALSE(never->IsEqual(other));
  EXPECT_FALSE(never->IsEqual(nullptr));
  never->ShutDownConnection();  // never initialised
  never->ShutDownConnection();  // twice

  // No service at all: the connection fails and says so.
  testing::ServiceClient client;
  EXPECT_EQ(client.InitResult().value(), 0);
  EXPECT_TRUE(client.WaitForInvalidation());
  EXPECT_EQ(client.Call(message), kConnectionError);
  SetServiceRuntimeDirectory("");
}

// A peer that answers every frame with `reply`, built on the same frames.
void AnswerOnce(int listener, xpc_object_t reply) {
  const int fd = ::accept(listener, nullptr, nullptr);
  FrameReader reader;
  Frame frame;
  uint8_t buffer[4096];
  while (reader.Next(frame) != FrameReader::Status::kFrame) {
    const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
    if (n <= 0) break;
    reader.Feed({buffer, static_cast<size_t>(n)});
  }
  std::vector<uint8_t> out;
  (void)platform::ipc::EncodeFrame(frame.request, reply, out);
  (void)!::send(fd, out.data(), out.size(), MSG_NOSIGNAL);
  ::close(fd);
}

TEST(ClientConnectionTest, AReplyWithoutAResponseIsInvalid) {
  const testing::ScopedTempDir runtime;
  SetServiceRuntimeDirectory(runtime.path());
  const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  ServiceSocketPath(ClientConnection::kServiceName).copy(address.sun_path, 107);
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(listener, 4), 0);
  XPCObject reply = Owned(xpc_dictionary_create(nullptr, nullptr, 0));
  xpc_dictionary_set_int64(reply.Get(), "Unexpected", 1);
  std::thread peer([&] { AnswerOnce(listener, reply.Get()); });
  {
    testing::ServiceClient client;
    std::shared_ptr<IHash> message;
    ASSERT_EQ(HashFactory::Create(message), kSuccess);
    EXPECT_EQ(client.Call(message), kInvalidResponse);
  }
  peer.join();
  ::close(listener);
  SetServiceRuntimeDirectory("");
}

}  // namespace
}  // namespace QelSS
