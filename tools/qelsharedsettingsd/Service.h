#pragma once

// The service's front: accepts connections, takes each frame apart far
// enough to find its domain, and hands it to that domain's queue.

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <asio/steady_timer.hpp>

#include "ServedDomain.h"
#include "Session.h"

namespace QelSS::service {

class Service {
 public:
  Service(asio::io_context& io, StoreSettings settings, std::chrono::seconds idleExit);

  // Serves clients on `acceptor` (already listening).
  void Serve(asio::local::stream_protocol::acceptor& acceptor);
  // Closes every connection and writes every changed domain's snapshot.
  void SaveAll();
  // Sets each value at its key path in domain `name`, in one commit that every
  // client of the domain hears of; waits until it is durable. For the
  // predefined-domain import. kInvalidArgument for a name no client could use.
  [[nodiscard]] std::error_code Import(
      const std::string& name,
      const std::vector<std::pair<std::string, std::shared_ptr<IValue>>>& values);

 private:
  void Accept(asio::local::stream_protocol::acceptor& acceptor);
  void OnFrame(const std::shared_ptr<Session>& session, uint64_t request, xpc_object_t message);
  void OnClose(const Session& session);
  std::shared_ptr<ServedDomain> DomainNamed(const std::string& name);
  void ArmIdleTimer();

  asio::io_context& io_;
  const StoreSettings settings_;
  const std::chrono::seconds idleExit_;
  asio::steady_timer idleTimer_;
  std::mutex mutex_;
  std::map<std::string, std::shared_ptr<ServedDomain>> domains_;
  std::set<std::shared_ptr<Session>> sessions_;  // I/O thread only
};

}  // namespace QelSS::service
