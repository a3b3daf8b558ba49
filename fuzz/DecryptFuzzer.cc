// Decrypt on arbitrary bytes, under a fixed host key so that the envelopes of
// the starting corpus decrypt and their mutations reach the MAC check. What
// decrypts goes on to the hash reader, as a domain file's payload does.

#include <cstdint>
#include <vector>

#include "FuzzSupport.h"
#include "persistence/Envelope.h"
#include "qelss/values/HashFactory.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  QelSS::fuzzing::SilenceReports();
  QelSS::fuzzing::UseFixedKeyHome();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<uint8_t> payload;
  if (QelSS::Succeeded(QelSS::Decrypt(std::vector<uint8_t>(data, data + size), payload))) {
    std::shared_ptr<QelSS::IHash> hash;
    (void)QelSS::HashFactory::CreateFromBytes(hash, payload);
  }
  return 0;
}
