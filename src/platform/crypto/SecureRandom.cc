#include "platform/crypto/SecureRandom.h"

#include <openssl/rand.h>

#include <algorithm>
#include <climits>

#include "platform/crypto/OpenSsl.h"

namespace QelSS::platform::crypto {

CryptStatus RandomBytes(std::span<uint8_t> out) noexcept {
  detail::GetAlgorithms();  // keeps OpenSSL's at-exit teardown out, as for every primitive
  for (size_t offset = 0; offset < out.size(); offset += INT_MAX) {
    const size_t slice = std::min<size_t>(INT_MAX, out.size() - offset);
    if (RAND_bytes(out.data() + offset, static_cast<int>(slice)) != 1) {
      return detail::Fail(CryptStatus::kLibraryError);
    }
  }
  return CryptStatus::kSuccess;
}

}  // namespace QelSS::platform::crypto
