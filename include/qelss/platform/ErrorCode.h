#pragma once

#include <cstdint>
#include <string_view>
#include <system_error>

#include "qelss/Export.h"

namespace QelSS {

// Result codes of every QelSS operation. The numbers are fixed: they cross the
// process boundary inside settings-service responses and are compared numerically.
// Operations return std::error_code of this library's single category; compare a
// result against make_error_code(kSuccess), never against 0.
//
// How a caller should react, by family:
//   1xx  success.
//   2xx  the request or the state it met is wrong: fix the arguments or re-read
//        the state first. 255 (conflict) means another commit won: re-read the
//        domain and build the transaction again.
//   25x  the settings service answered badly or not at all: retry later.
//   3xx  files, serialisation and crypto: the data on disk is unreadable or the
//        disk refused a write; the local domain retries writes on its own.
//   4xx  497 timeout: retry; 498 bad bytes or wrong type: do not retry the same
//        input; 499 out of resources.
//   500  unspecified failure.
enum ErrorCode : int32_t {
  kSuccess = 100,
  kDirectoryError = 201,       // a needed directory cannot be created, or is not one
  kNotImplemented = 202,       // the value type does not provide this operation
  kNotFound = 203,             // a key, path or file is absent
  kInvalidArgument = 204,      // a required argument is null, empty or unusable
  kInvalidType = 205,          // a value is not of the type the operation requires
  kIndexOutOfRange = 206,      // an array index at or beyond the element count
  kConversionError = 207,      // text cannot be converted in the current locale
  kOperationRefused = 208,     // the request conflicts with the present state
  kConnectionError = 251,      // the connection delivered an error instead of a reply
  kInvalidResponse = 252,      // a reply without a usable response entry
  kInvalidCommand = 253,       // a command message lacks a required field
  kDomainNotOpen = 254,        // the facade holds no domain, or the domain has no state
  kTransactionConflict = 255,  // the change cannot be applied to the current state
  kSerializationError = 351,   // the XML writer or reader failed
  kFileReadError = 361,        // a file cannot be opened or read, or does not exist
  kFileWriteError = 362,       // a file cannot be written or its permissions set
  kStorageError = 363,         // a domain file fails its checks after reading
  kCryptError = 370,           // encryption or decryption failed
  kKeyDerivationError = 371,   // the file key cannot be derived
  kKeyReadError = 372,         // the host key cannot be encoded for its file
  kKeyDecodeError = 373,       // the stored host key cannot be decoded
  kKeyChecksumMismatch = 374,  // the stored host key fails its SHA-256 check
  kVerificationError = 375,    // a domain file fails its integrity check
  kPredefineError = 376,       // a dropped domain file cannot be imported
  kTimeout = 497,              // a deadline passed before the awaited answer
  kInvalidData = 498,          // bytes or a message cannot be turned into a value
  kAllocationFailed = 499,     // a platform object could not be created
  kFailure = 500,              // unspecified failure
};

// The library's error category. Its message() is the same text for every code.
class QELSS_EXPORT QelSharedSettingError final : public std::error_category {
 public:
  const char* name() const noexcept override;
  std::string message(int value) const override;
};

// The single category object; it is never destroyed.
QELSS_EXPORT const std::error_category& qelss_category() noexcept;

inline std::error_code make_error_code(ErrorCode code) noexcept {
  return std::error_code(static_cast<int>(code), qelss_category());
}

// The enumerator's name for a code value ("kNotFound" for 203), for tools and
// logs; "unknown" for a value that is not one of the library's codes.
QELSS_EXPORT std::string_view ErrorCodeName(int value) noexcept;

// "kNotFound (203)" for a library code; the category name and value otherwise.
QELSS_EXPORT std::string DescribeErrorCode(const std::error_code& code);

// True when `code` is the library's success code.
inline bool Succeeded(const std::error_code& code) noexcept {
  return code == make_error_code(kSuccess);
}

}  // namespace QelSS

namespace std {
template <>
struct is_error_code_enum<QelSS::ErrorCode> : true_type {};
}  // namespace std
