#pragma once

#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "QssRunner.h"

namespace qss_test {

// Each test gets its own temporary root holding the domain folder, the data
// home (so the host key is the test's own) and the runtime folder (so no real
// settings service is ever reached). The root goes when the test ends.
class QssFixture : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // qss --folder <the test's domain folder> ARGUMENTS...
  Outcome Qss(const std::vector<std::string>& arguments, const std::string& input = "") const;
  // qss ARGUMENTS..., with the test's environment and nothing else added.
  Outcome QssPlain(const std::vector<std::string>& arguments, const std::string& input = "") const;

  // Runs a command that must succeed, and hands back its standard output.
  std::string Succeed(const std::vector<std::string>& arguments, const std::string& input = "");

  // Where a local domain of the test's folder keeps its file.
  std::string DomainFile(const std::string& domain) const;
  std::string InRoot(const std::string& name) const { return root_ + "/" + name; }

  std::string root_;
  std::string folder_;
  std::map<std::string, std::string> environment_;
};

// The run ended with `status` and its standard error holds every one of
// `phrases`; standard output is empty.
void ExpectFailure(const Outcome& run, int status, const std::vector<std::string>& phrases);

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& text);
bool Exists(const std::string& path);

}  // namespace qss_test
