#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "platform/ChildProcess.h"
#include "platform/report/JournalSink.h"
#include "platform/report/Report.h"

namespace QelSS::platform {
namespace {

using QelSS::testing::ChildExit;
using QelSS::testing::RunInChild;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Not;
using ::testing::Pair;

constexpr int kNoNamespace = 77;

void ReportGetFailure() {
  QelErrReportRef report =
      QelErrReportingBeginFailureReport(1, QelErrTag("SDOM"), "", "", kQelErrLocationCaller);
  QelErrReportingAddStringFailure(report, "Get", "QelSharedSettingsErrorDomain", "two\nlines");
  QelErrReportingAddIntFailure(report, "Get", "QelSharedSettingsErrorDomain", 204);
  QelErrReportingAddStringErrorData(report, "DomainName", "alerts");
  QelErrReportingEndFailureReport(report);
}

// Gives the calling child an empty /run of its own: no journal is reachable, and
// a test may put its own socket where the journal's would be.
bool PrivateRun() {
  return unshare(CLONE_NEWNS) == 0 &&
         mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount("tmpfs", "/run", "tmpfs", 0, "mode=0755") == 0;
}

int BindJournalSocket() {
  if (mkdir("/run/systemd", 0755) != 0 || mkdir("/run/systemd/journal", 0755) != 0) return -1;
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, "/run/systemd/journal/socket");
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return -1;
  return fd;
}

std::string ReadAll(int fd) {
  std::string data;
  char buffer[4096];
  for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;) data.append(buffer, n);
  return data;
}

// Splits a datagram of the journal's native protocol: "NAME=value\n", or for a
// value with a line break "NAME\n", its 64-bit little-endian length, value, "\n".
std::vector<std::pair<std::string, std::string>> ParseDatagram(const std::string& datagram) {
  std::vector<std::pair<std::string, std::string>> fields;
  for (size_t at = 0, end; (end = datagram.find_first_of("=\n", at)) != std::string::npos;) {
    const std::string name = datagram.substr(at, end - at);
    if (datagram[end] == '=') {
      const size_t eol = datagram.find('\n', end);
      fields.emplace_back(name, datagram.substr(end + 1, eol - end - 1));
      at = eol + 1;
    } else {
      uint64_t length = 0;
      std::memcpy(&length, datagram.data() + end + 1, sizeof length);
      fields.emplace_back(name, datagram.substr(end + 1 + sizeof length, length));
      at = end + 1 + sizeof length + length + 1;
    }
  }
  return fields;
}

TEST(Journal, FieldsOfEachRecordKind) {
  ReportRecord report;
  report.kind = ReportKind::kFailureReport;
  report.severity = 1;
  report.componentTag = QelErrTag("QSST");
  report.tagText = "QSST";
  report.failures.push_back({ReportFailureEntry::Kind::kString, "ReadSettings", "D", "gone", 0});
  report.failures.push_back({ReportFailureEntry::Kind::kInt, "ReadSettings", "D", "", 361});
  report.errorData.push_back({"DomainName", "alerts"});
  report.errorData.push_back({"odd key-2x", "v"});
  EXPECT_THAT(JournalFields(report),
              ElementsAre("MESSAGE=QSST ReadSettings: gone; ReadSettings failed (361); "
                          "DomainName=alerts; odd key-2x=v",
                          "PRIORITY=3", "QELSS_RECORD=failure-report", "QELSS_SEVERITY=1",
                          "QELSS_COMPONENT=QSST", "QELSS_COMPONENT_TAG=0x51535354",
                          "QELSS_OPERATION=ReadSettings", "QELSS_ERROR_DOMAIN=D",
                          "QELSS_FAILURE_MESSAGE=gone", "QELSS_OPERATION=ReadSettings",
                          "QELSS_ERROR_DOMAIN=D", "QELSS_CODE=361", "QELSS_DOMAIN_NAME=alerts",
                          "QELSS_ODD_KEY_2X=v"));

  ReportRecord trace;
  trace.text = "Delete failed (203)";
  EXPECT_THAT(JournalFields(trace),
              ElementsAre("MESSAGE=Delete failed (203)", "PRIORITY=7", "QELSS_RECORD=trace"));
}

TEST(Journal, AReportReachesTheJournalSocketAsOneDatagram) {
  int pipeFds[2];
  ASSERT_EQ(pipe(pipeFds), 0);
  const auto result = RunInChild(
      [&] {
        if (!PrivateRun()) return kNoNamespace;
        const int journal = BindJournalSocket();
        if (journal < 0) return 1;
        ReportGetFailure();
        char buffer[65536];
        const ssize_t n = recv(journal, buffer, sizeof buffer, MSG_DONTWAIT);
        if (n <= 0 || write(pipeFds[1], buffer, n) != n) return 2;
        return recv(journal, buffer, sizeof buffer, MSG_DONTWAIT) < 0 ? 0 : 3;
      },
      ChildExit::kImmediate);
  close(pipeFds[1]);
  const auto fields = ParseDatagram(ReadAll(pipeFds[0]));
  close(pipeFds[0]);
  if (result.exitCode == kNoNamespace) GTEST_SKIP() << "no private mount namespace here";
  ASSERT_EQ(result.exitCode, 0);

  EXPECT_THAT(fields, Contains(Pair("PRIORITY", "3")));
  EXPECT_THAT(fields, Contains(Pair("QELSS_COMPONENT", "SDOM")));
  EXPECT_THAT(fields, Contains(Pair("QELSS_FAILURE_MESSAGE", "two\nlines")));
  EXPECT_THAT(fields, Contains(Pair("QELSS_CODE", "204")));
  EXPECT_THAT(fields, Contains(Pair("QELSS_DOMAIN_NAME", "alerts")));
  EXPECT_THAT(fields, Not(Contains(Pair("CODE_FILE", ::testing::_))));
}

TEST(Journal, WithoutAJournalNothingIsWrittenAnywhere) {
  int pipeFds[2];
  ASSERT_EQ(pipe(pipeFds), 0);
  const auto result = RunInChild(
      [&] {
        PrivateRun();  // where it cannot be made, the machine has no journal either
        dup2(pipeFds[1], STDOUT_FILENO);
        dup2(pipeFds[1], STDERR_FILENO);
        close(pipeFds[1]);
        for (int i = 0; i < 100; ++i) {
          ReportGetFailure();
          QelTrace("trace %d", i);
        }
        return 0;
      },
      ChildExit::kImmediate);
  close(pipeFds[1]);
  EXPECT_EQ(ReadAll(pipeFds[0]), "");
  close(pipeFds[0]);
  EXPECT_EQ(result.exitCode, 0);
}

}  // namespace
}  // namespace QelSS::platform
