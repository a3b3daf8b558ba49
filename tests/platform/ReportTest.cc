#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/report/CaptureSink.h"
#include "platform/report/Report.h"

namespace QelSS::platform {
namespace {

using ::testing::ElementsAre;

void Report(const char (&tag)[5], const char* op, int64_t code, int severity = 1) {
  QelErrReportRef report =
      QelErrReportingBeginFailureReport(severity, QelErrTag(tag), "", "", kQelErrLocationCaller);
  QelErrReportingAddStringFailure(report, op, "Domain", "message");
  QelErrReportingAddIntFailure(report, op, "Domain", code);
  QelErrReportingEndFailureReport(report);
}

TEST(FailureReport, KeepsEveryAddInOrderAndEmitsOnlyAtEnd) {
  ScopedCaptureSink capture;
  QelErrReportRef report =
      QelErrReportingBeginFailureReport(2, QelErrTag("LDSE"), "", "", kQelErrLocationCaller);
  QelErrReportingAddStringFailure(report, "ReadSettings", "QelSharedSettingsErrorDomain",
                                  "Failed to read");
  QelErrReportingAddIntFailure(report, "ReadSettings", "QelSharedSettingsErrorDomain", 361);
  QelErrReportingAddStringFailure(report, "Backup", "kKeyErrorDomain", "no backup");
  QelErrReportingAddStringErrorData(report, "DomainName", "alerts");
  QelErrReportingAddStringErrorData(report, nullptr, nullptr);
  EXPECT_TRUE(capture->Records().empty());
  QelErrReportingEndFailureReport(report);

  EXPECT_THAT(capture->Descriptions(),
              ElementsAre("report LDSE/2"
                          " | S ReadSettings QelSharedSettingsErrorDomain \"Failed to read\""
                          " | I ReadSettings QelSharedSettingsErrorDomain 361"
                          " | S Backup kKeyErrorDomain \"no backup\""
                          " | D DomainName=alerts | D ="));
  const ReportRecord r = capture->Records().at(0);
  EXPECT_EQ(r.componentTag, 0x4C445345u);
  EXPECT_EQ(r.Message(), "Failed to read");
  EXPECT_EQ(r.Code(), 361);
  EXPECT_EQ(r.ErrorDomain(), "QelSharedSettingsErrorDomain");
  EXPECT_EQ(r.Data("DomainName"), "alerts");
  EXPECT_FALSE(r.Data("Missing"));
  EXPECT_TRUE(r.HasOperation("Backup"));
  EXPECT_FALSE(r.HasOperation("Write"));
}

TEST(FailureReport, NullHandleIsIgnored) {
  ScopedCaptureSink capture;
  QelErrReportingAddStringFailure(nullptr, "Get", "d", "m");
  QelErrReportingAddIntFailure(nullptr, "Get", "d", 1);
  QelErrReportingAddStringErrorData(nullptr, "k", "v");
  QelErrReportingEndFailureReport(nullptr);
  EXPECT_TRUE(capture->Records().empty());
}

TEST(ExceptionReport, OverloadNamesWhatWasCaught) {
  ScopedCaptureSink capture;
  const uint32_t tag = QelErrTag("SDOM");
  const QelErrLocation at = kQelErrLocationCaller;
  QelErrReportingReportCxxException(1, tag, "", "Get", at, std::out_of_range("range"));
  QelErrReportingReportCxxException(1, tag, "", "Set", at, std::runtime_error("runtime"));
  QelErrReportingReportCxxException(2, tag, "", "Delete", at, std::bad_alloc());
  QelErrReportingReportCxxException(1, tag, "", "Commit", at, std::make_exception_ptr(42));
  QelErrReportingReportCxxException(1, tag, "", "Block", at,
                                    std::make_exception_ptr(std::invalid_argument("inside")));
  EXPECT_THAT(
      capture->Descriptions(),
      ElementsAre("exception SDOM/1 Get logic_error \"range\"",
                  "exception SDOM/1 Set runtime_error \"runtime\"",
                  "exception SDOM/2 Delete exception \"std::bad_alloc\"",
                  "exception SDOM/1 Commit other \"\"", "exception SDOM/1 Block other \"inside\""));
  EXPECT_TRUE(capture->FindExceptionReport("SDOM", "Delete"));
  EXPECT_FALSE(capture->FindFailureReport("SDOM", "Delete"));
}

TEST(Trace, FormatsItsArgumentsAndBoundsItsLength) {
  ScopedCaptureSink capture;
  QelTrace("ReadSettings failed (%d)", 361);
  const std::string medium(1000, 'm');
  QelTrace("%s!", medium.c_str());
  QelTrace("%s", std::string(200 * 1024, 'h').c_str());

  EXPECT_THAT(capture->TraceLines(),
              ElementsAre("ReadSettings failed (361)", medium + "!", std::string(64 * 1024, 'h')));
  EXPECT_TRUE(capture->HasTrace("ReadSettings failed (361)"));
}

TEST(SinkInstallation, ScopesNestAndRestoreTheJournal) {
  ASSERT_EQ(CurrentReportSink(), nullptr);
  {
    ScopedCaptureSink outer;
    {
      ScopedCaptureSink inner;
      QelTrace("inner");
      EXPECT_TRUE(inner->HasTrace("inner"));
    }
    QelTrace("outer");
    EXPECT_THAT(outer->TraceLines(), ElementsAre("outer"));
    outer->Clear();
    EXPECT_TRUE(outer->Records().empty());
  }
  EXPECT_EQ(CurrentReportSink(), nullptr);

  auto sink = std::make_shared<CaptureSink>();
  EXPECT_EQ(InstallReportSink(sink), nullptr);
  EXPECT_EQ(InstallReportSink(nullptr), sink);
}

TEST(SinkInstallation, ConcurrentReportsSurviveSinkSwaps) {
  constexpr int kThreads = 4;
  constexpr int kReports = 300;
  auto first = std::make_shared<CaptureSink>();
  auto second = std::make_shared<CaptureSink>();
  InstallReportSink(first);

  std::atomic<bool> stop{false};
  std::thread swapper([&] {
    for (bool toSecond = true; !stop; toSecond = !toSecond) {
      InstallReportSink(toSecond ? std::shared_ptr<IReportSink>(second) : first);
      std::this_thread::yield();
    }
  });
  std::vector<std::thread> reporters;
  for (int t = 0; t < kThreads; ++t) {
    reporters.emplace_back([t] {
      const std::string op = "op" + std::to_string(t);
      for (int i = 0; i < kReports; ++i) Report("DOST", op.c_str(), i);
    });
  }
  for (std::thread& r : reporters) r.join();
  stop = true;
  swapper.join();
  InstallReportSink(nullptr);

  std::vector<ReportRecord> all = first->FailureReports();
  for (ReportRecord& r : second->FailureReports()) all.push_back(std::move(r));
  ASSERT_EQ(all.size(), size_t{kThreads * kReports});
  for (const ReportRecord& r : all) {
    ASSERT_EQ(r.failures.size(), 2u);
    EXPECT_EQ(r.failures[0].operation, r.failures[1].operation);
  }
  EXPECT_EQ(first->CountFailureReports("DOST", "op0") + second->CountFailureReports("DOST", "op0"),
            size_t{kReports});
}

TEST(CaptureSink, WaitsForAReportFromAnotherThread) {
  ScopedCaptureSink capture;
  EXPECT_FALSE(capture->WaitForFailureReport("CONN", "Connection", std::chrono::milliseconds(20)));
  std::thread later([] {
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    QelTrace("unrelated");
    Report("CONN", "Connection", 251);
  });
  const auto found = capture->WaitForFailureReport("CONN", "Connection", std::chrono::seconds(30));
  later.join();
  ASSERT_TRUE(found);
  EXPECT_EQ(found->Code(), 251);
}

}  // namespace
}  // namespace QelSS::platform
