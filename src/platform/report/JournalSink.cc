#include "platform/report/JournalSink.h"

#include <sys/uio.h>
#include <syslog.h>

// The source location would always name this file, not the failing code.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

#include <cctype>
#include <cstdio>

namespace QelSS::platform {
namespace {

// Journal field names are upper-case letters, digits and underscores, at most
// 64 characters.
constexpr size_t kMaxFieldName = 64;

std::string FieldNameForKey(const std::string& key) {
  std::string name = "QELSS_";
  char previous = 0;
  for (char c : key) {
    const unsigned char u = static_cast<unsigned char>(c);
    if (std::isupper(u) && (std::islower(static_cast<unsigned char>(previous)) ||
                            std::isdigit(static_cast<unsigned char>(previous)))) {
      name += '_';
    }
    name += std::isalnum(u) && u < 0x80 ? static_cast<char>(std::toupper(u)) : '_';
    previous = c;
  }
  if (key.empty()) name += "DATA";
  if (name.size() > kMaxFieldName) name.resize(kMaxFieldName);
  return name;
}

int Priority(const ReportRecord& record) {
  if (record.kind == ReportKind::kTrace) return LOG_DEBUG;
  if (record.severity <= 0) return LOG_WARNING;
  return record.severity == 1 ? LOG_ERR : LOG_CRIT;
}

const char* KindName(ReportKind kind) {
  switch (kind) {
    case ReportKind::kFailureReport:
      return "failure-report";
    case ReportKind::kCxxException:
      return "cxx-exception";
    case ReportKind::kTrace:
      break;
  }
  return "trace";
}

std::string FailureReportMessage(const ReportRecord& record) {
  std::string text = record.tagText;
  const char* separator = " ";
  for (const ReportFailureEntry& f : record.failures) {
    text += separator;
    if (f.kind == ReportFailureEntry::Kind::kString) {
      text += f.operation + ": " + f.message;
    } else {
      text += f.operation + " failed (" + std::to_string(f.code) + ")";
    }
    separator = "; ";
  }
  for (const ReportErrorData& d : record.errorData) {
    text += separator + d.key + "=" + d.value;
    separator = "; ";
  }
  return text;
}

std::string Message(const ReportRecord& record) {
  switch (record.kind) {
    case ReportKind::kFailureReport:
      return FailureReportMessage(record);
    case ReportKind::kCxxException:
      return record.tagText + " " + record.operation + ": " +
             ExceptionKindName(record.exceptionKind) + ": " + record.exceptionWhat;
    case ReportKind::kTrace:
      break;
  }
  return record.text;
}

std::string HexTag(uint32_t tag) {
  char buffer[16];
  std::snprintf(buffer, sizeof buffer, "0x%08x", tag);
  return buffer;
}

void AddFailureFields(const ReportRecord& record, std::vector<std::string>& fields) {
  for (const ReportFailureEntry& f : record.failures) {
    fields.push_back("QELSS_OPERATION=" + f.operation);
    fields.push_back("QELSS_ERROR_DOMAIN=" + f.errorDomain);
    if (f.kind == ReportFailureEntry::Kind::kString) {
      fields.push_back("QELSS_FAILURE_MESSAGE=" + f.message);
    } else {
      fields.push_back("QELSS_CODE=" + std::to_string(f.code));
    }
  }
  for (const ReportErrorData& d : record.errorData) {
    fields.push_back(FieldNameForKey(d.key) + "=" + d.value);
  }
}

}  // namespace

std::vector<std::string> JournalFields(const ReportRecord& record) {
  std::vector<std::string> fields;
  fields.push_back("MESSAGE=" + Message(record));
  fields.push_back("PRIORITY=" + std::to_string(Priority(record)));
  fields.push_back(std::string("QELSS_RECORD=") + KindName(record.kind));
  if (record.kind == ReportKind::kTrace) return fields;

  fields.push_back("QELSS_SEVERITY=" + std::to_string(record.severity));
  fields.push_back("QELSS_COMPONENT=" + record.tagText);
  fields.push_back("QELSS_COMPONENT_TAG=" + HexTag(record.componentTag));
  if (record.kind == ReportKind::kFailureReport) {
    AddFailureFields(record, fields);
  } else {
    fields.push_back("QELSS_OPERATION=" + record.operation);
    fields.push_back(std::string("QELSS_EXCEPTION_KIND=") +
                     ExceptionKindName(record.exceptionKind));
    fields.push_back("QELSS_EXCEPTION_WHAT=" + record.exceptionWhat);
  }
  return fields;
}

void SendToJournal(const ReportRecord& record) noexcept {
  const std::vector<std::string> fields = JournalFields(record);
  std::vector<iovec> iov(fields.size());
  for (size_t i = 0; i < fields.size(); ++i) {
    iov[i].iov_base = const_cast<char*>(fields[i].data());
    iov[i].iov_len = fields[i].size();
  }
  // Without a journal socket the send fails; a library has nowhere better to put
  // the record, so it is dropped.
  (void)sd_journal_sendv(iov.data(), static_cast<int>(iov.size()));
}

}  // namespace QelSS::platform
