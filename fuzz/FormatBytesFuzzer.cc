// serialization_helpers::FormatBytes on arbitrary bytes.

#include <cstdint>
#include <vector>

#include "FuzzSupport.h"
#include "qelss/persistence/SerializationHelpers.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  QelSS::fuzzing::SilenceReports();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<unsigned char> formatted;
  (void)QelSS::serialization_helpers::FormatBytes(std::vector<unsigned char>(data, data + size),
                                                  formatted);
  return 0;
}
