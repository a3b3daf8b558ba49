#pragma once

#include <map>
#include <string>
#include <vector>

namespace qss_test {

// What one run of the qss binary left behind.
struct Outcome {
  int status = -1;  // exit status; 128 + signal number when a signal ended it
  std::string out;
  std::string err;
};

// Runs the built qss binary with `arguments`, feeding it `input` on standard
// input. The environment is this process's with `environment` laid over it.
// Fails the calling test (and returns status -1) when the binary cannot be
// started or runs longer than two minutes.
Outcome RunQss(const std::vector<std::string>& arguments,
               const std::map<std::string, std::string>& environment,
               const std::string& input = "");

// Runs a program by path, as above.
Outcome RunProgram(const std::string& program, const std::vector<std::string>& arguments,
                   const std::map<std::string, std::string>& environment,
                   const std::string& input = "");

}  // namespace qss_test
