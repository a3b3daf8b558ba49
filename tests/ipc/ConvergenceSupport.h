#pragma once

// Several client processes (RemoteClient.cc) commit random changes to one
// domain through one or more services, while others watch, and each then
// checks itself against its service.

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "ipc/ServiceTestSupport.h"

namespace QelSS::testing {

class ConvergenceTest : public ::testing::Test {
 protected:
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  // Ten instrumented processes on two cores: a shorter load, as many checks.
  static constexpr std::chrono::seconds kLoad{2};
#else
  static constexpr std::chrono::seconds kLoad{4};
#endif
  static constexpr int kCommitters = 8;
  static constexpr int kClients = kCommitters + 2;

  struct Outcome {
    long accepted = 0;
    int64_t generation = -1;
  };

  // The children's outcomes; a failed check fails the test. Client i talks
  // to services[i % services.size()]; `fault(k)` runs `faults` times, spread
  // over the load.
  std::vector<Outcome> Run(const std::vector<ServiceProcess*>& services,
                           std::chrono::seconds duration, int faults = 0,
                           const std::function<void(int)>& fault = {}) {
    std::vector<pid_t> children;
    for (int i = 0; i < kClients; ++i) {
      children.push_back(
          Spawn({QELSS_REMOTE_CLIENT_BINARY, "churn", "prefs", "client" + std::to_string(i),
                 std::to_string(duration.count()), std::to_string(i + 1), dir_.path()},
                services[static_cast<size_t>(i) % services.size()]->RuntimeDir()));
    }
    EXPECT_TRUE(AllWrote(".ready", std::chrono::seconds(60)));
    Touch("go");
    for (int k = 0; k < faults; ++k) {
      std::this_thread::sleep_for(duration / (faults + 1));
      fault(k);
    }
    EXPECT_TRUE(AllWrote(".stopped", duration + std::chrono::seconds(60)));
    // Services that share a store hear each other's last commits a moment
    // after their own clients stopped.
    if (services.size() > 1) std::this_thread::sleep_for(std::chrono::milliseconds(500));
    Touch("settle");
    for (pid_t child : children) WaitForChild(child, std::chrono::seconds(120));
    std::vector<Outcome> outcomes;
    for (int i = 0; i < kClients; ++i) {
      std::ifstream in(dir_ / ("client" + std::to_string(i) + ".result"));
      std::string verdict;
      Outcome outcome;
      in >> verdict >> outcome.accepted >> outcome.generation;
      EXPECT_EQ(verdict, "ok") << "client" << i << ": " << outcome.accepted;
      if (verdict != "ok") {
        std::ifstream again(dir_ / ("client" + std::to_string(i) + ".result"));
        std::string line;
        std::getline(again, line);
        ADD_FAILURE() << line;
      }
      outcomes.push_back(outcome);
    }
    return outcomes;
  }

  bool AllWrote(const std::string& suffix, std::chrono::seconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (int i = 0; i < kClients; ++i) {
      while (!std::filesystem::exists(dir_ / ("client" + std::to_string(i) + suffix))) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
    }
    return true;
  }

  void Touch(const std::string& name) { std::ofstream(dir_ / name) << ""; }

  // The commits the clients saw accepted, once every copy is checked to end at
  // the same generation.
  static long AcceptedAtOneGeneration(const std::vector<Outcome>& outcomes) {
    long accepted = 0;
    for (const Outcome& outcome : outcomes) {
      accepted += outcome.accepted;
      EXPECT_EQ(outcome.generation, outcomes[0].generation);
    }
    return accepted;
  }

  ScopedTempDir dir_;
};

}  // namespace QelSS::testing
