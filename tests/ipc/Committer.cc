// A client process for the service tests: commits keys "<client>-<i>" for i
// from 0 to count-1 into one domain, one transaction each, and writes a line
// "<i> <generation seen before it>" to its output file, flushed, for every
// commit the service acknowledged. It rides out a service that dies: it
// reconnects and retries until `seconds` have passed.
//
//   qelss_test_committer DOMAIN CLIENT COUNT OUTPUT SECONDS

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "domain/DomainRoot.h"
#include "domain/DomainTestSupport.h"
#include "ipc/ServiceTestSupport.h"

using namespace QelSS;

int main(int argc, char** argv) {
  if (argc != 6) return 2;
  const std::string domain = argv[1], client = argv[2];
  const long count = std::atol(argv[3]);
  FILE* out = std::fopen(argv[4], "w");
  if (out == nullptr) return 2;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(std::atol(argv[5]));
  auto connection = std::make_unique<testing::ServiceClient>(client);
  long next = 0;
  while (next < count && std::chrono::steady_clock::now() < deadline) {
    std::shared_ptr<IHash> root;
    int64_t generation = -1;
    std::error_code status = connection->Fetch(domain, true, &root);
    if (status == kSuccess) status = DomainRoot::GetGenerationCount(root, generation);
    if (status == kSuccess) {
      const std::string key = client + "-" + std::to_string(next);
      status = connection->CommitRecord(
          domain, testing::MakeRecord(domain, generation, key, testing::Int(next)));
    }
    if (status == kSuccess) {
      std::fprintf(out, "%ld %lld\n", next, static_cast<long long>(generation));
      std::fflush(out);
      ++next;
    } else if (status == kConnectionError || status == kTimeout) {
      // The service went away: a new connection, after a pause it can restart in.
      connection.reset();
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      connection = std::make_unique<testing::ServiceClient>(client);
    }
    // kTransactionConflict and the like: fetch again and retry.
  }
  std::fclose(out);
  return next == count ? 0 : 1;
}
