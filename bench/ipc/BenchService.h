#pragma once

// The settings service the benchmarks talk to: one process per sync mode in a
// temporary folder, started on first use.

#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ipc/ServiceTestSupport.h"

namespace QelSS::bench {

inline testing::ServiceProcess& ServiceFor(bool full) {
  static std::map<bool, std::unique_ptr<testing::ServiceProcess>> services;
  auto& service = services[full];
  if (service == nullptr) {
    // The runtime folder override is process-wide: one service at a time.
    services.clear();
    auto& fresh = services[full];
    fresh = std::make_unique<testing::ServiceProcess>(
        std::vector<std::string>{"--sync", full ? "full" : "none"});
    if (!fresh->Start()) std::abort();
    return *fresh;
  }
  return *service;
}

}  // namespace QelSS::bench
