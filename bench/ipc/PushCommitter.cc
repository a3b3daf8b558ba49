// The other process of the push-latency benchmark: for every line KEY read
// from standard input it commits, through the settings service, the current
// steady-clock time in nanoseconds under KEY of DOMAIN. The observer in the
// benchmark process subtracts that from the time it is called.
//
//   qelss_bench_push_committer DOMAIN

#include <chrono>
#include <iostream>
#include <memory>
#include <string>

#include "qelss/api/QSSDomain.h"

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  std::shared_ptr<QelSS::QSSDomain> domain;
  if (!QelSS::Succeeded(
          QelSS::QSSDomain::Create(domain, argv[1], "com.example.bench", nullptr, false))) {
    return 1;
  }
  std::string key;
  while (std::getline(std::cin, key)) {
    const long long now = std::chrono::duration_cast<std::chrono::nanoseconds>(
                              std::chrono::steady_clock::now().time_since_epoch())
                              .count();
    if (!QelSS::Succeeded(domain->SetCommit(key.c_str(), now))) return 1;
  }
  return 0;
}
