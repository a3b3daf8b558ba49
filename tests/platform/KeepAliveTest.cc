#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/ChildProcess.h"
#include "platform/ScopedTempDir.h"
#include "platform/support/KeepAlive.h"

namespace QelSS::platform {
namespace {

using namespace std::chrono_literals;
using QelSS::testing::ChildExit;
using QelSS::testing::ChildResult;
using QelSS::testing::RunInChild;
using QelSS::testing::ScopedTempDir;

void Append(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::app) << text;
}

std::string Contents(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

// Runs `body` in a child that then leaves through exit(status), as a program does
// when main returns.
ChildResult ExitNormally(const std::function<void()>& body, int status) {
  return RunInChild(
      [&] {
        body();
        return status;
      },
      ChildExit::kNormal);
}

TEST(KeepAlive, CountsHeldTokens) {
  const unsigned long base = KeepAlive::Count();
  const KeepAlive::Token a = KeepAlive::Begin();
  const KeepAlive::Token b = KeepAlive::Begin();
  EXPECT_NE(a, 0u);
  EXPECT_NE(a, b);
  EXPECT_EQ(KeepAlive::Count(), base + 2);
  KeepAlive::End(a);
  KeepAlive::End(a);
  KeepAlive::End(0);
  EXPECT_EQ(KeepAlive::Count(), base + 1);
  KeepAlive::End(b);
  EXPECT_EQ(KeepAlive::Count(), base);
}

TEST(KeepAlive, ConcurrentBeginAndEndBalance) {
  const unsigned long base = KeepAlive::Count();
  std::vector<std::set<KeepAlive::Token>> seen(4);
  std::vector<std::thread> threads;
  for (auto& mine : seen) {
    threads.emplace_back([&mine] {
      for (int i = 0; i < 500; ++i) {
        const KeepAlive::Token token = KeepAlive::Begin();
        mine.insert(token);
        KeepAlive::End(token);
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(KeepAlive::Count(), base);
  std::set<KeepAlive::Token> all;
  for (const auto& mine : seen) all.insert(mine.begin(), mine.end());
  EXPECT_EQ(all.size(), 2000u);
}

TEST(ExitFlushers, RunInOrderAtNormalExitUnlessUnregistered) {
  ScopedTempDir temp;
  const std::string log = temp / "log";
  const ChildResult result = ExitNormally(
      [&] {
        KeepAlive::RegisterExitFlusher([&] { Append(log, "a"); }, 5s);
        const unsigned long gone = KeepAlive::RegisterExitFlusher([&] { Append(log, "x"); }, 5s);
        KeepAlive::RegisterExitFlusher([] { throw std::runtime_error("ignored"); }, 5s);
        KeepAlive::RegisterExitFlusher([&] { Append(log, "b"); }, 5s);
        KeepAlive::UnregisterExitFlusher(gone);
        KeepAlive::UnregisterExitFlusher(9999);
      },
      3);
  EXPECT_EQ(result.exitCode, 3);
  EXPECT_EQ(Contents(log), "ab");
}

TEST(ExitFlushers, AHangingFlusherIsAbandonedAtItsLimit) {
  ScopedTempDir temp;
  const std::string log = temp / "log";
  const ChildResult result = ExitNormally(
      [&] {
        KeepAlive::RegisterExitFlusher([] { std::this_thread::sleep_for(1h); }, 200ms);
        KeepAlive::RegisterExitFlusher([&] { Append(log, "after"); }, 5s);
      },
      5);
  // Unbounded, the child would sleep for an hour and be killed at the deadline.
  ASSERT_TRUE(result.finished);
  EXPECT_EQ(result.exitCode, 5);
  EXPECT_EQ(Contents(log), "after");
}

TEST(ExitFlushers, UnregisterWaitsForTheRunningCallButNotForItself) {
  ScopedTempDir temp;
  const std::string log = temp / "log";
  const ChildResult result = ExitNormally(
      [&] {
        static std::atomic<bool> started{false};
        static std::atomic<bool> unregistered{false};
        static unsigned long self = 0;
        const unsigned long slow = KeepAlive::RegisterExitFlusher(
            [&] {
              started = true;
              std::this_thread::sleep_for(300ms);
              Append(log, "slow ");
            },
            10s);
        KeepAlive::RegisterExitFlusher(
            [] {
              while (!unregistered) std::this_thread::yield();
            },
            10s);
        self = KeepAlive::RegisterExitFlusher(
            [&] {
              KeepAlive::UnregisterExitFlusher(self);
              Append(log, "self");
            },
            10s);
        std::thread([&, slow] {
          while (!started) std::this_thread::yield();
          KeepAlive::UnregisterExitFlusher(slow);
          Append(log, Contents(log) == "slow " ? "waited " : "early ");
          unregistered = true;
        }).detach();
      },
      0);
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(Contents(log), "slow waited self");
}

TEST(ExitFlushers, AForkedChildDoesNotRunItsParentsFlushers) {
  ScopedTempDir temp;
  const std::string log = temp / "log";
  const ChildResult result = ExitNormally(
      [&] {
        KeepAlive::RegisterExitFlusher([&] { Append(log, "parent"); }, 5s);
        const pid_t grandchild = fork();
        if (grandchild == 0) std::exit(0);
        waitpid(grandchild, nullptr, 0);
        if (!Contents(log).empty()) std::_Exit(9);
      },
      0);
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(Contents(log), "parent");
}

TEST(ExitGuards, ExitWaitsForWorkAnotherThreadStillDoes) {
  ScopedTempDir temp;
  const std::string log = temp / "log";
  const ChildResult result = ExitNormally(
      [&] {
        static std::atomic<bool> guarded{false};
        std::thread([&] {
          KeepAlive::ExitGuard guard(10s);
          guarded = true;
          std::this_thread::sleep_for(300ms);
          Append(log, "saved");
        }).detach();
        while (!guarded) std::this_thread::yield();
      },
      4);
  EXPECT_EQ(result.exitCode, 4);
  EXPECT_EQ(Contents(log), "saved");
}

TEST(ExitGuards, AnOverrunningGuardEndsTheProcessAtItsDeadline) {
  const auto started = std::chrono::steady_clock::now();
  const ChildResult result = ExitNormally(
      [&] {
        static std::atomic<bool> guarded{false};
        std::thread([&] {
          KeepAlive::ExitGuard guard(200ms);
          guarded = true;
          std::this_thread::sleep_for(1h);
        }).detach();
        while (!guarded) std::this_thread::yield();
        // An ended guard holds nothing up.
        KeepAlive::ExitGuard{1h};
      },
      6);
  ASSERT_TRUE(result.finished);
  EXPECT_EQ(result.exitCode, 6);
  EXPECT_LT(std::chrono::steady_clock::now() - started, 30s);
}

}  // namespace
}  // namespace QelSS::platform
