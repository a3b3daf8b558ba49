#include "FuzzSupport.h"

#include <stdlib.h>
#include <sys/stat.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <vector>

#include "persistence/HostKeyFile.h"
#include "persistence/Key.h"
#include "platform/report/ReportSink.h"
#include "qelss/values/IArray.h"
#include "qelss/values/IData.h"
#include "qelss/values/IDate.h"
#include "qelss/values/IHash.h"
#include "qelss/values/INumber.h"
#include "qelss/values/IString.h"
#include "qelss/values/IUUID.h"

namespace QelSS::fuzzing {
namespace {

class NullSink final : public platform::IReportSink {
 public:
  void Emit(const platform::ReportRecord&) noexcept override {}
};

std::string gKeyHome;

void RemoveKeyHome() {
  std::error_code ignored;
  std::filesystem::remove_all(gKeyHome, ignored);
}

std::string DescribeNumber(const INumber& number) {
  int64_t i;
  uint64_t u;
  bool b;
  double d;
  if (Succeeded(number.GetInt64(i))) return "i" + std::to_string(i);
  if (Succeeded(number.GetUInt64(u))) return "u" + std::to_string(u);
  if (Succeeded(number.GetBool(b))) return b ? "true" : "false";
  if (!Succeeded(number.GetDouble(d))) return "number?";
  uint64_t bits;
  std::memcpy(&bits, &d, sizeof bits);
  char text[32];
  std::snprintf(text, sizeof text, "d%016" PRIx64, bits);
  return text;
}

}  // namespace

void SilenceReports() { platform::InstallReportSink(std::make_shared<NullSink>()); }

void UseFixedKeyHome() {
  std::string pattern = (std::filesystem::temp_directory_path() / "qelss-fuzz-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) std::abort();
  gKeyHome = pattern;
  std::atexit(RemoveKeyHome);
  ::setenv("XDG_DATA_HOME", gKeyHome.c_str(), 1);

  const std::string folder = gKeyHome + "/qelvarin/DomainSettings";
  std::filesystem::create_directories(folder);
  const std::string path = folder + "/com.qelvarin.QSS";
  std::vector<uint8_t> hostKey(kHostKeySize);
  for (size_t i = 0; i < hostKey.size(); ++i) hostKey[i] = static_cast<uint8_t>(0xA0 + i);
  if (!Succeeded(WriteHostKeyFile(path, hostKey))) std::abort();
  if (Key::Instance().KeyFilePath() != path || !Key::Instance().IsDerived()) {
    std::fprintf(stderr, "the file key does not come from %s\n", path.c_str());
    std::abort();
  }
}

std::string Describe(const std::shared_ptr<IValue>& value) {
  if (!value) return "-";
  switch (value->GetType()) {
    case kValueTypeNull:
      return "null";
    case kValueTypeNumber:
      return DescribeNumber(dynamic_cast<const INumber&>(*value));
    case kValueTypeString:
      return "s'" + std::string(dynamic_cast<const IString&>(*value).GetCString()) + "'";
    case kValueTypeData: {
      auto& data = dynamic_cast<const IData&>(*value);
      return "x" + std::string(reinterpret_cast<const char*>(data.GetBytes()), data.GetLength());
    }
    case kValueTypeDate:
      return "t" + std::to_string(dynamic_cast<const IDate&>(*value).GetTime());
    case kValueTypeUUID:
      return "g" +
             std::string(
                 reinterpret_cast<const char*>(dynamic_cast<const IUUID&>(*value).GetBytes()), 16);
    case kValueTypeArray: {
      std::string out = "[";
      (void)dynamic_cast<const IArray&>(*value).Iterate(
          [&](const std::shared_ptr<IValue>& element, unsigned int, bool&) {
            out += Describe(element) + ",";
          });
      return out + "]";
    }
    case kValueTypeHash: {
      std::string out = "{";
      (void)dynamic_cast<const IHash&>(*value).Iterate(
          [&](const std::shared_ptr<IString>& key, const std::shared_ptr<IValue>& element, bool&) {
            out += Describe(key) + ":" + Describe(element) + ",";
          });
      return out + "}";
    }
    default:
      return "?";
  }
}

}  // namespace QelSS::fuzzing
