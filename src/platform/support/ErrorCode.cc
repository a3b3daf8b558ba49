#include "qelss/platform/ErrorCode.h"

#include <string>

namespace QelSS {

const char* QelSharedSettingError::name() const noexcept { return "QelSharedSettingError"; }

std::string QelSharedSettingError::message(int) const { return "QelSharedSetting Message"; }

namespace {

// Never destroyed: the worker pool runs on through exit, and the codes it
// makes and compares there must still reach their category. Constant
// initialisation spares every code made on a hot path the guard of a
// function-local static.
union Immortal {
  QelSharedSettingError category;
  constexpr Immortal() : category() {}
  ~Immortal() {}
};
constinit const Immortal immortal;

}  // namespace

const std::error_category& qelss_category() noexcept { return immortal.category; }

std::string_view ErrorCodeName(int value) noexcept {
  switch (value) {
    case kSuccess:
      return "kSuccess";
    case kDirectoryError:
      return "kDirectoryError";
    case kNotImplemented:
      return "kNotImplemented";
    case kNotFound:
      return "kNotFound";
    case kInvalidArgument:
      return "kInvalidArgument";
    case kInvalidType:
      return "kInvalidType";
    case kIndexOutOfRange:
      return "kIndexOutOfRange";
    case kConversionError:
      return "kConversionError";
    case kOperationRefused:
      return "kOperationRefused";
    case kConnectionError:
      return "kConnectionError";
    case kInvalidResponse:
      return "kInvalidResponse";
    case kInvalidCommand:
      return "kInvalidCommand";
    case kDomainNotOpen:
      return "kDomainNotOpen";
    case kTransactionConflict:
      return "kTransactionConflict";
    case kSerializationError:
      return "kSerializationError";
    case kFileReadError:
      return "kFileReadError";
    case kFileWriteError:
      return "kFileWriteError";
    case kStorageError:
      return "kStorageError";
    case kCryptError:
      return "kCryptError";
    case kKeyDerivationError:
      return "kKeyDerivationError";
    case kKeyReadError:
      return "kKeyReadError";
    case kKeyDecodeError:
      return "kKeyDecodeError";
    case kKeyChecksumMismatch:
      return "kKeyChecksumMismatch";
    case kVerificationError:
      return "kVerificationError";
    case kPredefineError:
      return "kPredefineError";
    case kTimeout:
      return "kTimeout";
    case kInvalidData:
      return "kInvalidData";
    case kAllocationFailed:
      return "kAllocationFailed";
    case kFailure:
      return "kFailure";
    default:
      return "unknown";
  }
}

std::string DescribeErrorCode(const std::error_code& code) {
  if (code.category() == qelss_category()) {
    return std::string(ErrorCodeName(code.value())) + " (" + std::to_string(code.value()) + ")";
  }
  return std::string(code.category().name()) + " (" + std::to_string(code.value()) + ")";
}

}  // namespace QelSS
