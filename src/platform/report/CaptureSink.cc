#include "platform/report/CaptureSink.h"

namespace QelSS::platform {
namespace {

std::string Quoted(const std::string& text) { return "\"" + text + "\""; }

}  // namespace

std::string Describe(const ReportRecord& record) {
  const std::string source = record.tagText + "/" + std::to_string(record.severity);
  if (record.kind == ReportKind::kTrace) return "trace " + Quoted(record.text);
  if (record.kind == ReportKind::kCxxException) {
    return "exception " + source + " " + record.operation + " " +
           ExceptionKindName(record.exceptionKind) + " " + Quoted(record.exceptionWhat);
  }
  std::string text = "report " + source;
  for (const ReportFailureEntry& f : record.failures) {
    const bool isString = f.kind == ReportFailureEntry::Kind::kString;
    text += (isString ? " | S " : " | I ") + f.operation + " " + f.errorDomain + " " +
            (isString ? Quoted(f.message) : std::to_string(f.code));
  }
  for (const ReportErrorData& d : record.errorData) text += " | D " + d.key + "=" + d.value;
  return text;
}

void CaptureSink::Emit(const ReportRecord& record) noexcept {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    records_.push_back(record);
  }
  arrived_.notify_all();
}

std::vector<ReportRecord> CaptureSink::Records() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return records_;
}

std::vector<ReportRecord> CaptureSink::FailureReports() const {
  std::vector<ReportRecord> out;
  for (ReportRecord& r : Records()) {
    if (r.kind == ReportKind::kFailureReport) out.push_back(std::move(r));
  }
  return out;
}

std::vector<ReportRecord> CaptureSink::ExceptionReports() const {
  std::vector<ReportRecord> out;
  for (ReportRecord& r : Records()) {
    if (r.kind == ReportKind::kCxxException) out.push_back(std::move(r));
  }
  return out;
}

std::vector<std::string> CaptureSink::TraceLines() const {
  std::vector<std::string> out;
  for (ReportRecord& r : Records()) {
    if (r.kind == ReportKind::kTrace) out.push_back(std::move(r.text));
  }
  return out;
}

std::vector<std::string> CaptureSink::Descriptions() const {
  std::vector<std::string> out;
  for (const ReportRecord& r : Records()) out.push_back(Describe(r));
  return out;
}

void CaptureSink::Clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  records_.clear();
}

std::optional<ReportRecord> CaptureSink::FindLocked(ReportKind kind, std::string_view tag,
                                                    std::string_view operation) const {
  for (const ReportRecord& r : records_) {
    if (r.kind == kind && r.tagText == tag && r.HasOperation(operation)) return r;
  }
  return std::nullopt;
}

std::optional<ReportRecord> CaptureSink::FindFailureReport(std::string_view tag,
                                                           std::string_view operation) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return FindLocked(ReportKind::kFailureReport, tag, operation);
}

size_t CaptureSink::CountFailureReports(std::string_view tag, std::string_view operation) const {
  std::lock_guard<std::mutex> lock(mutex_);
  size_t count = 0;
  for (const ReportRecord& r : records_) {
    if (r.kind == ReportKind::kFailureReport && r.tagText == tag && r.HasOperation(operation)) {
      ++count;
    }
  }
  return count;
}

std::optional<ReportRecord> CaptureSink::FindExceptionReport(std::string_view tag,
                                                             std::string_view operation) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return FindLocked(ReportKind::kCxxException, tag, operation);
}

bool CaptureSink::HasTrace(std::string_view text) const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const ReportRecord& r : records_) {
    if (r.kind == ReportKind::kTrace && r.text == text) return true;
  }
  return false;
}

std::optional<ReportRecord> CaptureSink::WaitForFailureReport(
    std::string_view tag, std::string_view operation, std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mutex_);
  std::optional<ReportRecord> found;
  arrived_.wait_for(lock, timeout, [&] {
    found = FindLocked(ReportKind::kFailureReport, tag, operation);
    return found.has_value();
  });
  return found;
}

ScopedCaptureSink::ScopedCaptureSink()
    : sink_(std::make_shared<CaptureSink>()), previous_(InstallReportSink(sink_)) {}

ScopedCaptureSink::~ScopedCaptureSink() { InstallReportSink(std::move(previous_)); }

}  // namespace QelSS::platform
