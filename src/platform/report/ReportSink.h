#pragma once

// Where failure reports, exception reports and trace lines end up. By default
// every record goes to the systemd journal; a test installs its own sink
// (CaptureSink.h) to assert on what the library reported.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace QelSS::platform {

enum class ReportKind {
  kFailureReport,  // Begin/Add.../End
  kCxxException,   // QelErrReportingReportCxxException
  kTrace,          // QelTrace
};

// Which QelErrReportingReportCxxException overload made a kCxxException record.
enum class ExceptionKind {
  kNone,          // not an exception record
  kLogicError,    // std::logic_error and its descendants
  kRuntimeError,  // std::runtime_error and its descendants
  kStdException,  // another std::exception
  kOther,         // an exception_ptr; `exceptionWhat` is its what() if it holds a
                  // std::exception, empty otherwise
};

// One failure added to a report, in the order the Add calls were made.
struct ReportFailureEntry {
  enum class Kind { kString, kInt };
  Kind kind = Kind::kString;
  std::string operation;
  std::string errorDomain;
  std::string message;  // string failures only
  int64_t code = 0;     // int failures only
};

struct ReportErrorData {
  std::string key;  // "DomainName"
  std::string value;
};

struct ReportRecord {
  ReportKind kind = ReportKind::kTrace;

  // Failure reports and exception records.
  int severity = 0;
  uint32_t componentTag = 0;  // QelErrTag("SDOM")
  std::string tagText;        // "SDOM"; a non-printable byte shows as '?'

  // Failure reports.
  std::vector<ReportFailureEntry> failures;
  std::vector<ReportErrorData> errorData;

  // Exception records: `operation` is the reporting operation.
  std::string operation;
  ExceptionKind exceptionKind = ExceptionKind::kNone;
  std::string exceptionWhat;

  // Trace lines: the formatted text.
  std::string text;

  // Conveniences for failure reports; each looks at the first matching entry.
  bool HasOperation(std::string_view op) const;
  std::optional<std::string> Message() const;  // of the first string failure
  std::optional<int64_t> Code() const;         // of the first int failure
  std::optional<std::string> ErrorDomain() const;
  std::optional<std::string> Data(std::string_view key) const;
};

// Receives every record. Emit may be called from any thread at the same time and
// must not throw. It is called with no library lock held.
class IReportSink {
 public:
  virtual ~IReportSink() = default;
  virtual void Emit(const ReportRecord& record) noexcept = 0;
};

// Installs `sink` for the whole process and returns the sink it replaces (null
// when the journal was in use). Passing null restores the journal. Thread-safe;
// a record being emitted while the sink changes goes to either sink, and a
// replaced sink stays alive until its last Emit returns.
std::shared_ptr<IReportSink> InstallReportSink(std::shared_ptr<IReportSink> sink);

// The sink in use, null for the journal.
std::shared_ptr<IReportSink> CurrentReportSink();

// Hands a record to the installed sink, or to the journal.
void EmitReportRecord(const ReportRecord& record) noexcept;

// "SDOM" for QelErrTag("SDOM").
std::string TagText(uint32_t tag);

// "logic_error", "runtime_error", "exception", "other" or "none".
const char* ExceptionKindName(ExceptionKind kind);

}  // namespace QelSS::platform
