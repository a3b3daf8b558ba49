// A client process of remote domains for the tests that need several.
//
//   qelss_test_remote_client commit DOMAIN (set PATH INT | delete PATH)...
//     One transaction with these changes, in order. Exit 0 when accepted.
//
//   qelss_test_remote_client churn DOMAIN CLIENT SECONDS START DIR
//     Opens DOMAIN, writes DIR/CLIENT.ready and waits for DIR/go. Commits
//     random changes for SECONDS: deletions and writes of shared keys
//     "shared/k<i>" that every client touches, and writes of its own keys
//     "CLIENT/k<i>" with rising sequence numbers. Then writes DIR/CLIENT.stopped,
//     waits for DIR/settle, and checks what it ended with against the service:
//     same generation count, same tree, and each own key holds at least the
//     last value the service acknowledged. Writes "ok <accepted commits>
//     <generation>" or "fail <why>" to DIR/CLIENT.result.
//
//   qelss_test_remote_client watch DOMAIN CLIENT SECONDS START DIR
//     The same without commits, and with an observer from the start: its
//     change lists, replayed over the tree it started from, must give the
//     service's tree. (A committing client's observers do not hear its own
//     commits, so only a pure watcher can be checked this way.)

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <thread>

#include "domain/DomainTestSupport.h"
#include "ipc/RemoteTestSupport.h"
#include "ipc/ServiceTestSupport.h"

using namespace QelSS;
using namespace std::chrono_literals;

namespace {

bool WaitForFile(const std::string& path, std::chrono::seconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!std::filesystem::exists(path)) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(5ms);
  }
  return true;
}

void WriteFile(const std::string& path, const std::string& text) {
  const std::string partial = path + ".part";
  std::ofstream(partial) << text << '\n';
  std::filesystem::rename(partial, path);
}

int CommitOnce(const std::string& domainName, int argc, char** argv) {
  std::shared_ptr<IDomainSetting> domain;
  if (testing::OpenRemote(domainName, domain) != kSuccess) return 2;
  auto transaction = testing::NewTransaction(*domain);
  for (int i = 0; i < argc;) {
    const std::string op = argv[i];
    if (op == "set" && i + 2 < argc) {
      if (transaction->Set(argv[i + 1], testing::Int(std::atoll(argv[i + 2]))) != kSuccess)
        return 3;
      i += 3;
    } else if (op == "delete" && i + 1 < argc) {
      if (transaction->Delete(argv[i + 1]) != kSuccess) return 3;
      i += 2;
    } else {
      return 2;
    }
  }
  return testing::CommitAndWait(*domain, transaction) == kSuccess ? 0 : 1;
}

class Churn {
 public:
  Churn(bool commits, std::string domain, std::string client, unsigned start, std::string dir)
      : commits_(commits),
        domainName_(std::move(domain)),
        client_(std::move(client)),
        random_(start),
        dir_(std::move(dir)) {}

  std::string Run(std::chrono::seconds duration) {
    if (testing::OpenRemote(domainName_, domain_, client_) != kSuccess) return "fail open";
    testing::ChangeLog log(*domain_);
    if (log.Added() != kSuccess) return "fail observe";
    // Nobody commits before every client is ready, so the tree copied here is
    // the one the observer's first change applies to.
    const std::shared_ptr<IHash> start = testing::TreeOf(*domain_);
    WriteFile(dir_ + "/" + client_ + ".ready", "");
    if (!WaitForFile(dir_ + "/go", 120s)) return "fail no go";
    const auto deadline = std::chrono::steady_clock::now() + duration;
    while (commits_ && std::chrono::steady_clock::now() < deadline) CommitRandom();
    WriteFile(dir_ + "/" + client_ + ".stopped", "");
    if (!WaitForFile(dir_ + "/settle", 120s)) return "fail no settle";
    return Check(log, start);
  }

 private:
  void CommitRandom() {
    auto transaction = testing::NewTransaction(*domain_);
    if (!transaction) {
      std::this_thread::sleep_for(10ms);
      return;
    }
    // Always one write of an own key, which changes something, so that every
    // accepted commit raises the service's count.
    std::map<std::string, long long> own;
    const std::string mine = client_ + "/k" + std::to_string(random_() % 8);
    own[mine] = ++sequence_;
    (void)transaction->Set(mine, testing::Int(sequence_));
    const int changes = static_cast<int>(random_() % 3);
    for (int i = 0; i < changes; ++i) {
      const std::string shared = "shared/k" + std::to_string(random_() % 8);
      if (random_() % 3 == 0) {
        (void)transaction->Delete(shared);
      } else {
        (void)transaction->Set(shared, testing::Int(static_cast<long long>(random_() % 1000)));
      }
    }
    const std::error_code outcome = testing::CommitAndWait(*domain_, transaction);
    if (outcome == kSuccess) {
      ++accepted_;
      for (const auto& [key, value] : own) acknowledged_[key] = value;
    } else if (outcome == kConnectionError) {
      std::this_thread::sleep_for(20ms);  // the service is away
    }
  }

  std::string Check(testing::ChangeLog& log, const std::shared_ptr<IHash>& start) {
    std::shared_ptr<IHash> serviceRoot;
    std::shared_ptr<IHash> serviceTree;
    int64_t serviceCount = -1;
    {
      testing::ServiceClient truth(client_ + "-check");
      if (truth.Fetch(domainName_, false, &serviceRoot) != kSuccess ||
          DomainRoot::GetGenerationCount(serviceRoot, serviceCount) != kSuccess ||
          DomainRoot::GetInternalSettings(serviceRoot, serviceTree) != kSuccess) {
        return "fail service fetch";
      }
    }
    const auto deadline = std::chrono::steady_clock::now() + 30s;
    while (testing::GenerationOf(*domain_) != serviceCount ||
           !(*testing::TreeOf(*domain_) == *serviceTree)) {
      if (std::chrono::steady_clock::now() > deadline) {
        return "fail copy at generation " + std::to_string(testing::GenerationOf(*domain_)) +
               ", service at " + std::to_string(serviceCount);
      }
      std::this_thread::sleep_for(10ms);
    }
    if (commits_) return OwnKeysKept(serviceCount);
    // Deliveries are asynchronous: the last ones may still be on their way.
    bool replayedEqual = false;
    for (int i = 0; i < 1000 && !replayedEqual; ++i) {
      if (i > 0) std::this_thread::sleep_for(10ms);
      std::shared_ptr<IValue> copy;
      if (start->Clone(copy) != kSuccess) return "fail clone";
      const auto replayed = std::dynamic_pointer_cast<IHash>(copy);
      testing::Replay(replayed, log.Lists());
      replayedEqual = *replayed == *serviceTree;
    }
    if (!replayedEqual) return "fail replayed observer changes differ";
    return "ok 0 " + std::to_string(serviceCount);
  }

  std::string OwnKeysKept(int64_t serviceCount) {
    for (const auto& [key, value] : acknowledged_) {
      const auto held = testing::IntAt(*domain_, key);
      if (!held || *held < value) return "fail lost acknowledged " + key;
    }
    return "ok " + std::to_string(accepted_) + " " + std::to_string(serviceCount);
  }

  const bool commits_;
  const std::string domainName_;
  const std::string client_;
  std::mt19937 random_;
  const std::string dir_;
  std::shared_ptr<IDomainSetting> domain_;
  long long sequence_ = 0;
  long accepted_ = 0;
  std::map<std::string, long long> acknowledged_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 3 && std::string(argv[1]) == "commit") return CommitOnce(argv[2], argc - 3, argv + 3);
  const std::string mode = argc == 7 ? argv[1] : "";
  if (mode == "churn" || mode == "watch") {
    Churn churn(mode == "churn", argv[2], argv[3], static_cast<unsigned>(std::atol(argv[5])),
                argv[6]);
    const std::string result = churn.Run(std::chrono::seconds(std::atol(argv[4])));
    WriteFile(std::string(argv[6]) + "/" + argv[3] + ".result", result);
    return result.rfind("ok", 0) == 0 ? 0 : 1;
  }
  return 2;
}
