#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "platform/report/CaptureSink.h"
#include "platform/report/Failure.h"
#include "qelss/platform/ErrorCode.h"

namespace QelSS {
namespace {

using platform::ScopedCaptureSink;
using ::testing::ElementsAre;

TEST(ReportFailure, TracesTheMessageThenTheCodeThenEmitsOneReport) {
  ScopedCaptureSink capture;
  EXPECT_EQ(ReportFailure({QelErrTag("QSST"), "ReadSettings", kQelSharedSettingsErrorDomain,
                           "Failed to read settings", nullptr, "alerts"},
                          make_error_code(kFileReadError)),
            make_error_code(kFileReadError));
  EXPECT_THAT(
      capture->Descriptions(),
      ElementsAre("trace \"Failed to read settings\"", "trace \"ReadSettings failed (361)\"",
                  "report QSST/1"
                  " | S ReadSettings QelSharedSettingsErrorDomain \"Failed to read settings\""
                  " | I ReadSettings QelSharedSettingsErrorDomain 361"
                  " | D DomainName=alerts"));
}

TEST(ReportFailure, TraceNameChangesOnlyTheTraceLine) {
  ScopedCaptureSink capture;
  ReportFailure({QelErrTag("SDOM"), "Get", kQelSharedSettingsErrorDomain, "Invalid argument",
                 "QSSDomain::Get"},
                make_error_code(kInvalidArgument));
  EXPECT_THAT(capture->Descriptions(),
              ElementsAre("trace \"Invalid argument\"", "trace \"QSSDomain::Get failed (204)\"",
                          "report SDOM/1 | S Get QelSharedSettingsErrorDomain \"Invalid argument\""
                          " | I Get QelSharedSettingsErrorDomain 204"));
}

TEST(ReportFailure, ForeignCodesAndMissingTextsPassThrough) {
  ScopedCaptureSink capture;
  const std::error_code denied(EACCES, std::system_category());
  EXPECT_EQ(
      ReportFailure({QelErrTag("SSKC"), "SetFilePermissions failure", kKeyErrorDomain, nullptr},
                    denied),
      denied);
  EXPECT_THAT(capture->Descriptions(),
              ElementsAre("trace \"\"", "trace \"SetFilePermissions failure failed (13)\"",
                          "report SSKC/1 | S SetFilePermissions failure kKeyErrorDomain \"\""
                          " | I SetFilePermissions failure kKeyErrorDomain 13"));
}

}  // namespace
}  // namespace QelSS
