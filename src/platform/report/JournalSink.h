#pragma once

#include <string>
#include <vector>

#include "platform/report/ReportSink.h"

namespace QelSS::platform {

// The journal fields of a record, each "NAME=value", MESSAGE first. A failure
// report carries QELSS_RECORD, QELSS_SEVERITY, QELSS_COMPONENT ("SDOM"),
// QELSS_COMPONENT_TAG (hex), then per failure QELSS_OPERATION and
// QELSS_ERROR_DOMAIN with QELSS_FAILURE_MESSAGE or QELSS_CODE (repeated fields
// when a report holds several), and each error datum as QELSS_<KEY> with the key
// in upper snake case ("DomainName" gives QELSS_DOMAIN_NAME). Exception records
// carry QELSS_OPERATION, QELSS_EXCEPTION_KIND and QELSS_EXCEPTION_WHAT; trace
// lines only MESSAGE, PRIORITY and QELSS_RECORD.
std::vector<std::string> JournalFields(const ReportRecord& record);

// Sends one record to the journal. Without a running journal the record is lost;
// nothing is written anywhere else.
void SendToJournal(const ReportRecord& record) noexcept;

}  // namespace QelSS::platform
