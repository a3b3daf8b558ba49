// A program of its own that the local-domain tests start, so that a domain
// lives in a fresh process that ends the way the test chooses:
//   domain_child commit <folder> <name> <path> <value>
//       commits the number, then returns from main (the save happens at exit)
//   domain_child expect <folder> <name> <path> <value>
//       exits with 0 when the domain holds that number at the path
//   domain_child handoff <folder> <name> <path> <value>
//       commits the number beside a large blob, lets another thread drop the
//       last reference, and returns from main while that thread still saves
//   domain_child churn <folder> <name> <path>
//       commits 0, 1, 2, ... saving each and printing it once saved, until killed
// The file key folder comes from the environment (XDG_DATA_HOME).
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "domain/LocalDomainSetting.h"
#include "domain/LocalDomainTestSupport.h"
#include "qelss/domain/DomainFactory.h"
#include "qelss/values/DataFactory.h"

// Outside any anonymous namespace, so that the store to it stays and a leak
// checker sees the domain as reachable.
std::shared_ptr<QelSS::IDomainSetting>* gKept = nullptr;

namespace {

using namespace QelSS;

enum Exit { kOk = 0, kUsage = 2, kNotOpened = 3, kNotCommitted = 4, kMismatch = 5 };

std::shared_ptr<IDomainSetting> Open(const std::string& folder, const std::string& name) {
  std::shared_ptr<IDomainFactory> factory = GetDomainFactory(nullptr);
  std::shared_ptr<IDomainSetting> opened;
  if (!factory) return opened;
  factory->OpenDomain(
      Configuration{folder, true}, name, "domain_child",
      [&](std::shared_ptr<IDomainSetting>& domain, std::error_code) { opened = domain; }, true);
  return opened;
}

// A save long enough (tens of milliseconds) for main to return while it runs.
int Handoff(std::shared_ptr<IDomainSetting> domain, const std::string& path, long long value) {
  // Several blobs, small enough together for the byte form's reader.
  const std::vector<uint8_t> bytes(1'000'000, 0x5a);
  auto transaction = testing::NewTransaction(*domain);
  if (!transaction) return kNotCommitted;
  for (int i = 0; i < 4; ++i) {
    std::shared_ptr<IData> blob;
    if (DataFactory::Create(blob, bytes.data(), bytes.size()) != kSuccess ||
        transaction->Set("blob" + std::to_string(i), blob) != kSuccess) {
      return kNotCommitted;
    }
  }
  if (transaction->Set(path, testing::Int(value)) != kSuccess ||
      testing::Commit(*domain, transaction) != kSuccess) {
    return kNotCommitted;
  }
  std::atomic<bool> taken{false};
  std::thread([&taken, last = std::move(domain)]() mutable {
    std::shared_ptr<IDomainSetting> mine = std::move(last);
    taken = true;
    mine.reset();
  }).detach();
  while (!taken) std::this_thread::yield();
  // Lets the destructor begin its save before exit starts.
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  return kOk;
}

int Churn(IDomainSetting& domain, const std::string& path) {
  auto& local = dynamic_cast<LocalDomainSetting&>(domain);
  for (long long i = 0;; ++i) {
    if (testing::SetNumber(domain, path, i) != kSuccess) return kNotCommitted;
    if (local.SaveSettings(10) != kSuccess) return kNotCommitted;
    std::printf("%lld\n", i);
    std::fflush(stdout);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) return kUsage;
  const std::string mode = argv[1];
  std::shared_ptr<IDomainSetting> domain = Open(argv[2], argv[3]);
  if (!domain) return kNotOpened;
  const std::string path = argv[4];
  if (mode == "churn") return Churn(*domain, path);
  if (argc < 6) return kUsage;
  const long long value = std::atoll(argv[5]);
  if (mode == "commit") {
    if (testing::SetNumber(*domain, path, value) != kSuccess) return kNotCommitted;
    // Never released, so that only the save at process exit can write it.
    gKept = new std::shared_ptr<IDomainSetting>(domain);
    return kOk;
  }
  if (mode == "handoff") return Handoff(std::move(domain), path, value);
  if (mode == "expect") return testing::IntAt(*domain, path) == value ? kOk : kMismatch;
  return kUsage;
}
