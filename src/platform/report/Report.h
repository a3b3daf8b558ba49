#pragma once

// Failure reports and trace lines. Each failure report becomes one structured
// record in the systemd journal; trace lines go there at debug priority. When no
// journal is running, records are dropped. A library never writes to stderr.
// Tests replace the journal with a capturing sink (ReportSink.h).
//
// None of these functions throws: a failure inside reporting ends the process.

#include <cstdint>
#include <exception>
#include <stdexcept>

struct QelErrReport;
using QelErrReportRef = QelErrReport*;

enum QelErrLocation : int { kQelErrLocationCaller = 0 };

// A four-character component tag ("SDOM") as a 32-bit big-endian constant.
constexpr uint32_t QelErrTag(const char (&tag)[5]) {
  return (uint32_t(uint8_t(tag[0])) << 24) | (uint32_t(uint8_t(tag[1])) << 16) |
         (uint32_t(uint8_t(tag[2])) << 8) | uint32_t(uint8_t(tag[3]));
}

// Starts a report; the two strings are reserved and passed empty by the library.
QelErrReportRef QelErrReportingBeginFailureReport(int severity, uint32_t componentTag,
                                                  const char* reserved1, const char* reserved2,
                                                  QelErrLocation location) noexcept;
void QelErrReportingAddStringFailure(QelErrReportRef report, const char* operation,
                                     const char* errorDomain, const char* message) noexcept;
void QelErrReportingAddIntFailure(QelErrReportRef report, const char* operation,
                                  const char* errorDomain, int64_t code) noexcept;
void QelErrReportingAddStringErrorData(QelErrReportRef report, const char* key,
                                       const char* value) noexcept;
// Emits the record and frees the report.
void QelErrReportingEndFailureReport(QelErrReportRef report) noexcept;

// One record for an exception caught at a boundary, chosen by what was caught.
void QelErrReportingReportCxxException(int severity, uint32_t componentTag, const char* reserved,
                                       const char* operation, QelErrLocation location,
                                       const std::logic_error& exception) noexcept;
void QelErrReportingReportCxxException(int severity, uint32_t componentTag, const char* reserved,
                                       const char* operation, QelErrLocation location,
                                       const std::runtime_error& exception) noexcept;
void QelErrReportingReportCxxException(int severity, uint32_t componentTag, const char* reserved,
                                       const char* operation, QelErrLocation location,
                                       const std::exception& exception) noexcept;
void QelErrReportingReportCxxException(int severity, uint32_t componentTag, const char* reserved,
                                       const char* operation, QelErrLocation location,
                                       std::exception_ptr exception) noexcept;

// A trace line (printf format) at debug priority.
void QelTrace(const char* format, ...) noexcept __attribute__((format(printf, 1, 2)));
