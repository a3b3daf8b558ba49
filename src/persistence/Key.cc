#include "persistence/Key.h"

#include <cstdlib>
#include <memory>

#include "persistence/HostKeyFile.h"
#include "persistence/KeyDerivation.h"
#include "platform/crypto/SecureMemory.h"
#include "platform/report/Failure.h"
#include "platform/support/SiloedPath.h"
#include "qelss/platform/ErrorCode.h"

namespace QelSS {
namespace {

constexpr uint32_t kTag = QelErrTag("SSKC");
constexpr const char* kBaseDirectory = "/Library/Application Support/Qelvarin";
constexpr const char* kFolder = "DomainSettings";
constexpr const char* kFilePrefix = "com.qelvarin.";
constexpr const char* kFileSuffix = "QSS";

}  // namespace

Key& Key::Instance() {
  static Key instance;
  return instance;
}

Key::Key() : result_(make_error_code(kFailure)) {
  try {
    std::call_once(once_, [this] { Derive(); });
  } catch (...) {
    ReportCaughtException(2, kTag, "constructor");
  }
}

Key::~Key() { platform::crypto::SecureWipe(derivedKey_); }

void Key::Derive() {
  std::unique_ptr<char, decltype(&std::free)> folder(
      QelCreateSiloedPath(kBaseDirectory, kFolder, 0), &std::free);
  if (!folder) return;
  keyFilePath_ = std::string(folder.get()) + "/" + kFilePrefix + kFileSuffix;
  folder.reset();

  std::vector<uint8_t> hostKey;
  if (std::error_code code = GetHostKey(keyFilePath_, hostKey); code != kSuccess) {
    result_ = ReportFailure(
        FailureReport{kTag, "GetKey", kQelSharedSettingsErrorDomain, "Failed to get host key"},
        code);
    return;
  }
  std::error_code code = DeriveFileKey(hostKey, derivedKey_);
  platform::crypto::SecureWipe(hostKey);
  if (code != kSuccess) {
    result_ = ReportFailure(
        FailureReport{kTag, "Encryption", kQelSharedSettingsErrorDomain, "Failed to derive key"},
        code);
    return;
  }
  derived_ = true;
  result_ = code;
}

}  // namespace QelSS
