// HashFactory::CreateFromBytes on arbitrary bytes. Besides crashes and leaks it
// looks for any difference between the one-walk reader and the reference
// reader, and between the one-pass writer and the reference writer on what was
// read.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "FuzzSupport.h"
#include "persistence/ByteForm.h"
#include "persistence/ByteFormReference.h"
#include "qelss/values/HashFactory.h"

namespace {

using QelSS::fuzzing::Describe;

[[noreturn]] void Disagree(const char* what, const std::string& a, const std::string& b) {
  std::fprintf(stderr, "%s differ:\n  %s\n  %s\n", what, a.c_str(), b.c_str());
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  QelSS::fuzzing::SilenceReports();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::vector<uint8_t> bytes(data, data + size);
  std::shared_ptr<QelSS::IHash> hash;
  (void)QelSS::HashFactory::CreateFromBytes(hash, bytes);

  std::shared_ptr<QelSS::IValue> fast;
  std::shared_ptr<QelSS::IValue> reference;
  const std::error_code fastCode = QelSS::ReadByteForm(bytes, fast);
  const std::error_code referenceCode = QelSS::byteform::ReadByteFormReference(bytes, reference);
  if (fastCode != referenceCode) {
    Disagree("codes", std::to_string(fastCode.value()), std::to_string(referenceCode.value()));
  }
  if (Describe(fast) != Describe(reference)) Disagree("trees", Describe(fast), Describe(reference));

  if (fast) {
    std::vector<uint8_t> written;
    std::vector<uint8_t> writtenByReference;
    const std::error_code writeCode = QelSS::WriteByteForm(fast, written);
    if (writeCode != QelSS::byteform::WriteValueReference(fast, writtenByReference) ||
        written != writtenByReference) {
      Disagree("written forms", std::string(written.begin(), written.end()),
               std::string(writtenByReference.begin(), writtenByReference.end()));
    }
  }
  return 0;
}
