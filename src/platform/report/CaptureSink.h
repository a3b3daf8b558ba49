#pragma once

// A sink that keeps every record in memory, for tests that assert on what the
// library reported:
//
//   QelSS::platform::ScopedCaptureSink capture;
//   ... operation that fails ...
//   auto report = capture->FindFailureReport("SDOM", "Get");
//   ASSERT_TRUE(report);
//   EXPECT_EQ(report->Code(), 204);
//   EXPECT_TRUE(capture->HasTrace("Get failed (204)"));

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/report/ReportSink.h"

namespace QelSS::platform {

// One line per record, for assertions and failure output:
//   report SDOM/1 | S Get QelSharedSettingsErrorDomain "Invalid argument"
//     | I Get QelSharedSettingsErrorDomain 204 | D DomainName=alerts
//   exception SDOM/1 Get logic_error "what"
//   trace "Get failed (204)"
std::string Describe(const ReportRecord& record);

// Thread-safe: records may arrive from any thread while a test reads them.
class CaptureSink final : public IReportSink {
 public:
  void Emit(const ReportRecord& record) noexcept override;

  // Every record in arrival order, or those of one kind.
  std::vector<ReportRecord> Records() const;
  std::vector<ReportRecord> FailureReports() const;
  std::vector<ReportRecord> ExceptionReports() const;
  std::vector<std::string> TraceLines() const;
  // Describe() of every record in arrival order: one EXPECT_THAT checks a
  // whole sequence and prints readably when it fails.
  std::vector<std::string> Descriptions() const;
  void Clear();

  // The first failure report with that tag text that has a failure under
  // `operation`; nullopt when none arrived.
  std::optional<ReportRecord> FindFailureReport(std::string_view tag,
                                                std::string_view operation) const;
  size_t CountFailureReports(std::string_view tag, std::string_view operation) const;
  // The first exception record with that tag and operation.
  std::optional<ReportRecord> FindExceptionReport(std::string_view tag,
                                                  std::string_view operation) const;
  bool HasTrace(std::string_view text) const;

  // Like FindFailureReport, but waits up to `timeout` for a report that comes
  // from another thread or queue.
  std::optional<ReportRecord> WaitForFailureReport(std::string_view tag, std::string_view operation,
                                                   std::chrono::milliseconds timeout) const;

 private:
  std::optional<ReportRecord> FindLocked(ReportKind kind, std::string_view tag,
                                         std::string_view operation) const;

  mutable std::mutex mutex_;
  mutable std::condition_variable arrived_;
  std::vector<ReportRecord> records_;  // guarded by mutex_
};

// Installs a fresh CaptureSink for its lifetime; the destructor puts back the
// sink that was installed before (the journal, usually). Scopes nest.
class ScopedCaptureSink {
 public:
  ScopedCaptureSink();
  ~ScopedCaptureSink();
  ScopedCaptureSink(const ScopedCaptureSink&) = delete;
  ScopedCaptureSink& operator=(const ScopedCaptureSink&) = delete;

  CaptureSink& sink() { return *sink_; }
  CaptureSink* operator->() { return sink_.get(); }

 private:
  std::shared_ptr<CaptureSink> sink_;
  std::shared_ptr<IReportSink> previous_;
};

}  // namespace QelSS::platform
