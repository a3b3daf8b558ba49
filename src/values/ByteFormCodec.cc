#include "values/ByteFormCodec.h"

#include <atomic>

namespace QelSS {
namespace {

constinit std::atomic<const ByteFormCodec*> gCodec{&kLibraryByteFormCodec};

}  // namespace

void InstallByteFormCodec(const ByteFormCodec* codec) noexcept {
  gCodec.store(codec, std::memory_order_release);
}

const ByteFormCodec* InstalledByteFormCodec() noexcept {
  return gCodec.load(std::memory_order_acquire);
}

}  // namespace QelSS
