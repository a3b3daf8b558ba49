#include "platform/report/Report.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <string>

#include "platform/report/ReportSink.h"

using QelSS::platform::EmitReportRecord;
using QelSS::platform::ExceptionKind;
using QelSS::platform::ReportFailureEntry;
using QelSS::platform::ReportKind;
using QelSS::platform::ReportRecord;

struct QelErrReport {
  ReportRecord record;
};

namespace {

// A trace line longer than this is cut: one runaway format must not cost
// unbounded memory in every process that reports it.
constexpr size_t kMaxTraceLength = 64 * 1024;

const char* OrEmpty(const char* text) { return text ? text : ""; }

ReportRecord ExceptionRecord(int severity, uint32_t componentTag, const char* operation,
                             ExceptionKind kind, const char* what) {
  ReportRecord record;
  record.kind = ReportKind::kCxxException;
  record.severity = severity;
  record.componentTag = componentTag;
  record.tagText = QelSS::platform::TagText(componentTag);
  record.operation = OrEmpty(operation);
  record.exceptionKind = kind;
  record.exceptionWhat = OrEmpty(what);
  return record;
}

std::string FormatTrace(const char* format, va_list args) {
  char small[256];
  va_list copy;
  va_copy(copy, args);
  const int needed = std::vsnprintf(small, sizeof small, format, copy);
  va_end(copy);
  if (needed < 0) return std::string();
  if (static_cast<size_t>(needed) < sizeof small) return std::string(small, needed);

  std::string text(std::min(static_cast<size_t>(needed), kMaxTraceLength), '\0');
  std::vsnprintf(text.data(), text.size() + 1, format, args);
  return text;
}

}  // namespace

QelErrReportRef QelErrReportingBeginFailureReport(int severity, uint32_t componentTag,
                                                  const char* /*reserved1*/,
                                                  const char* /*reserved2*/,
                                                  QelErrLocation /*location*/) noexcept {
  auto* report = new QelErrReport;
  report->record.kind = ReportKind::kFailureReport;
  report->record.severity = severity;
  report->record.componentTag = componentTag;
  report->record.tagText = QelSS::platform::TagText(componentTag);
  return report;
}

void QelErrReportingAddStringFailure(QelErrReportRef report, const char* operation,
                                     const char* errorDomain, const char* message) noexcept {
  if (!report) return;
  ReportFailureEntry entry;
  entry.kind = ReportFailureEntry::Kind::kString;
  entry.operation = OrEmpty(operation);
  entry.errorDomain = OrEmpty(errorDomain);
  entry.message = OrEmpty(message);
  report->record.failures.push_back(std::move(entry));
}

void QelErrReportingAddIntFailure(QelErrReportRef report, const char* operation,
                                  const char* errorDomain, int64_t code) noexcept {
  if (!report) return;
  ReportFailureEntry entry;
  entry.kind = ReportFailureEntry::Kind::kInt;
  entry.operation = OrEmpty(operation);
  entry.errorDomain = OrEmpty(errorDomain);
  entry.code = code;
  report->record.failures.push_back(std::move(entry));
}

void QelErrReportingAddStringErrorData(QelErrReportRef report, const char* key,
                                       const char* value) noexcept {
  if (!report) return;
  report->record.errorData.push_back({OrEmpty(key), OrEmpty(value)});
}

void QelErrReportingEndFailureReport(QelErrReportRef report) noexcept {
  if (!report) return;
  EmitReportRecord(report->record);
  delete report;
}

void QelErrReportingReportCxxException(int severity, uint32_t componentTag,
                                       const char* /*reserved*/, const char* operation,
                                       QelErrLocation /*location*/,
                                       const std::logic_error& exception) noexcept {
  EmitReportRecord(ExceptionRecord(severity, componentTag, operation, ExceptionKind::kLogicError,
                                   exception.what()));
}

void QelErrReportingReportCxxException(int severity, uint32_t componentTag,
                                       const char* /*reserved*/, const char* operation,
                                       QelErrLocation /*location*/,
                                       const std::runtime_error& exception) noexcept {
  EmitReportRecord(ExceptionRecord(severity, componentTag, operation, ExceptionKind::kRuntimeError,
                                   exception.what()));
}

void QelErrReportingReportCxxException(int severity, uint32_t componentTag,
                                       const char* /*reserved*/, const char* operation,
                                       QelErrLocation /*location*/,
                                       const std::exception& exception) noexcept {
  EmitReportRecord(ExceptionRecord(severity, componentTag, operation, ExceptionKind::kStdException,
                                   exception.what()));
}

void QelErrReportingReportCxxException(int severity, uint32_t componentTag,
                                       const char* /*reserved*/, const char* operation,
                                       QelErrLocation /*location*/,
                                       std::exception_ptr exception) noexcept {
  std::string what;
  if (exception) {
    try {
      std::rethrow_exception(exception);
    } catch (const std::exception& e) {
      what = e.what();
    } catch (...) {
    }
  }
  EmitReportRecord(
      ExceptionRecord(severity, componentTag, operation, ExceptionKind::kOther, what.c_str()));
}

void QelTrace(const char* format, ...) noexcept {
  if (!format) return;
  ReportRecord record;
  record.kind = ReportKind::kTrace;
  va_list args;
  va_start(args, format);
  record.text = FormatTrace(format, args);
  va_end(args);
  EmitReportRecord(record);
}
