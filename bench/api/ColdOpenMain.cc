// Opens a local domain in a process of its own and reads one key: prints the
// nanoseconds from the start of main to the value, as a user's program would
// first see it. Usage: FOLDER NAME KEYPATH.
#include <chrono>
#include <cstdio>
#include <memory>

#include "qelss/api/QSSDomain.h"

int main(int argc, char** argv) {
  const auto start = std::chrono::steady_clock::now();
  if (argc != 4) return 1;
  std::shared_ptr<QelSS::QSSDomain> domain;
  if (!QelSS::Succeeded(QelSS::QSSDomain::Create(domain, argv[2], "bench", argv[1], true))) {
    return 2;
  }
  long long value = 0;
  if (!QelSS::Succeeded(domain->Get(argv[3], value))) return 3;
  const auto elapsed = std::chrono::steady_clock::now() - start;
  std::printf("%lld\n", static_cast<long long>(
                            std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count()));
  return 0;
}
