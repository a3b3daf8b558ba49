#include "platform/report/ReportSink.h"

#include <mutex>

#include "platform/report/JournalSink.h"

namespace QelSS::platform {
namespace {

struct SinkSlot {
  std::mutex mutex;
  std::shared_ptr<IReportSink> sink;  // guarded by mutex; null means the journal
};

// Never destroyed: reports made by other static destructors at exit still need it.
SinkSlot& Slot() {
  static SinkSlot* slot = new SinkSlot;
  return *slot;
}

}  // namespace

std::shared_ptr<IReportSink> InstallReportSink(std::shared_ptr<IReportSink> sink) {
  std::lock_guard<std::mutex> lock(Slot().mutex);
  Slot().sink.swap(sink);
  return sink;
}

std::shared_ptr<IReportSink> CurrentReportSink() {
  std::lock_guard<std::mutex> lock(Slot().mutex);
  return Slot().sink;
}

void EmitReportRecord(const ReportRecord& record) noexcept {
  // Emit runs outside the lock so that a sink may itself report or swap sinks;
  // the copy keeps a sink that is being replaced alive until it returns.
  std::shared_ptr<IReportSink> sink = CurrentReportSink();
  if (sink) {
    sink->Emit(record);
  } else {
    SendToJournal(record);
  }
}

const char* ExceptionKindName(ExceptionKind kind) {
  switch (kind) {
    case ExceptionKind::kLogicError:
      return "logic_error";
    case ExceptionKind::kRuntimeError:
      return "runtime_error";
    case ExceptionKind::kStdException:
      return "exception";
    case ExceptionKind::kOther:
      return "other";
    case ExceptionKind::kNone:
      break;
  }
  return "none";
}

std::string TagText(uint32_t tag) {
  std::string text(4, '?');
  for (int i = 0; i < 4; ++i) {
    const unsigned char c = static_cast<unsigned char>(tag >> (24 - 8 * i));
    if (c >= 0x20 && c < 0x7f) text[i] = static_cast<char>(c);
  }
  return text;
}

bool ReportRecord::HasOperation(std::string_view op) const {
  for (const ReportFailureEntry& f : failures) {
    if (f.operation == op) return true;
  }
  return kind == ReportKind::kCxxException && operation == op;
}

std::optional<std::string> ReportRecord::Message() const {
  for (const ReportFailureEntry& f : failures) {
    if (f.kind == ReportFailureEntry::Kind::kString) return f.message;
  }
  return std::nullopt;
}

std::optional<int64_t> ReportRecord::Code() const {
  for (const ReportFailureEntry& f : failures) {
    if (f.kind == ReportFailureEntry::Kind::kInt) return f.code;
  }
  return std::nullopt;
}

std::optional<std::string> ReportRecord::ErrorDomain() const {
  if (failures.empty()) return std::nullopt;
  return failures.front().errorDomain;
}

std::optional<std::string> ReportRecord::Data(std::string_view key) const {
  for (const ReportErrorData& d : errorData) {
    if (d.key == key) return d.value;
  }
  return std::nullopt;
}

}  // namespace QelSS::platform
