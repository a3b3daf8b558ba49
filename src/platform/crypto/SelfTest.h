#pragma once

// Known-answer checks of the primitives the library's files depend on, and of
// the XML library it was built against. A failing check means the process cannot
// trust its own encryption or serialisation, so nothing should be opened.

namespace QelSS::platform::crypto {

enum class SelfTestResult {
  kPassed,
  kAes256CbcFailed,
  kHmacSha256Failed,
  kPbkdf2Failed,
  kSha256Failed,
  kXmlLibraryFailed,  // the libxml2 loaded at run time is not compatible with the headers
};

// Runs every check, in the order of the enumeration, and names the first that
// fails. Takes a few milliseconds; callers run it once per process. Thread-safe.
SelfTestResult RunSelfTest() noexcept;

// "AES-256-CBC", "HMAC-SHA256", ... for logs; "passed" for kPassed.
const char* SelfTestResultName(SelfTestResult result) noexcept;

}  // namespace QelSS::platform::crypto
