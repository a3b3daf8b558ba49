// The service's input path on arbitrary bytes: a stream cut into frames (at
// places the input's first byte chooses), each body read as a wire form and,
// when it is a dictionary, turned into a Hash as a command would be. Besides
// crashes and leaks it checks that a decoded object's form is stable: its
// encoding decodes to an object with the same encoding.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "FuzzSupport.h"
#include "platform/ipc/Frame.h"
#include "platform/xpc/XpcWire.h"
#include "qelss/values/HashFactory.h"

namespace {

void CheckStable(xpc_object_t object) {
  std::vector<uint8_t> once, twice;
  if (QelSS::xpc::EncodeWire(object, once) != QelSS::kSuccess) std::abort();
  xpc_object_t again = nullptr;
  if (QelSS::xpc::DecodeWire(once, again) != QelSS::kSuccess) std::abort();
  if (QelSS::xpc::EncodeWire(again, twice) != QelSS::kSuccess || once != twice) {
    std::fprintf(stderr, "wire form not stable\n");
    std::abort();
  }
  xpc_release(again);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  QelSS::fuzzing::SilenceReports();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const size_t chunk = 1 + data[0];
  QelSS::platform::ipc::FrameReader reader;
  QelSS::platform::ipc::Frame frame;
  for (size_t at = 1; at < size; at += chunk) {
    reader.Feed({data + at, std::min(chunk, size - at)});
    for (;;) {
      const auto status = reader.Next(frame);
      if (status != QelSS::platform::ipc::FrameReader::Status::kFrame) break;
      xpc_object_t object = nullptr;
      if (QelSS::xpc::DecodeWire(frame.body, object) != QelSS::kSuccess) continue;
      CheckStable(object);
      std::shared_ptr<QelSS::IHash> hash;
      void* const dictionary = object;
      (void)QelSS::HashFactory::Create<void*>(hash, dictionary);
      xpc_release(object);
    }
  }
  return 0;
}
