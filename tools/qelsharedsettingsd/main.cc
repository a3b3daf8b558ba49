// qelsharedsettingsd: keeps shared settings domains for the processes that
// open them remotely. A foreground daemon: logs to standard error (the
// journal, under the service manager), never forks.

#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>

#include <CLI/CLI.hpp>
#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <asio/signal_set.hpp>

#include "LocalStore.h"
#include "Log.h"
#include "PredefineWatcher.h"
#include "Service.h"
#include "persistence/HostKeyFile.h"
#include "platform/dispatch/PollingRun.h"
#include "qelss/ipc/Connection.h"
#include "qelss/platform/xpc_connection.h"
#ifdef QELSS_WITH_ETCD
#include "etcd/EtcdStore.h"
#endif

namespace {

using QelSS::service::Log;

// The service answers a busy client's next request without a wake-up.
constexpr std::chrono::microseconds kPollWindow{500};

using Protocol = asio::local::stream_protocol;

struct Options {
  std::string socket;
  std::string stateDir = "/var/lib/qelvarin/service";
  std::string socketGroup = "qelvarin";
  std::string socketMode = "0660";
  std::string sync = "full";
  std::string store = "local";
  unsigned idleExit = 0;
  unsigned quietSeconds = 10;
  std::string predefines;  // empty: the default folder
  std::string etcdEndpoints = "http://127.0.0.1:2379";
  std::string etcdPrefix = "/qelvarin/";
  std::string etcdClusterKey;
  double etcdDialTimeout = 5;
  double etcdRequestTimeout = 5;
  std::string makeClusterKey;
};

bool MakeFolder(const std::string& path, mode_t mode) {
  std::error_code error;
  std::filesystem::create_directories(path, error);
  if (error) return false;
  return ::chmod(path.c_str(), mode) == 0;
}

// True when a server answers on `path`: then it is not ours to take over.
bool SomeoneListens(const std::string& path) {
  asio::io_context io;
  Protocol::socket probe(io);
  std::error_code error;
  probe.connect(Protocol::endpoint(path), error);
  return !error;
}

std::optional<std::string> BindSocket(Protocol::acceptor& acceptor, const Options& options) {
  const std::string path = options.socket.empty()
                               ? QelSS::ServiceSocketPath(QelSS::ClientConnection::kServiceName)
                               : options.socket;
  if (path.size() >= sizeof(sockaddr_un{}.sun_path)) return "socket path too long: " + path;
  struct group* group = ::getgrnam(options.socketGroup.c_str());
  if (group == nullptr) return "socket group '" + options.socketGroup + "' does not exist";
  mode_t mode = 0;
  try {
    mode = static_cast<mode_t>(std::stoul(options.socketMode, nullptr, 8));
  } catch (const std::exception&) {
    return "bad socket mode '" + options.socketMode + "'";
  }
  const std::string folder = std::filesystem::path(path).parent_path().string();
  if (!std::filesystem::exists(folder)) {
    if (!MakeFolder(folder, 0750) ||
        ::chown(folder.c_str(), static_cast<uid_t>(-1), group->gr_gid) != 0) {
      return "cannot make socket folder " + folder + ": " + std::strerror(errno);
    }
  }
  if (SomeoneListens(path)) return "another service listens on " + path;
  ::unlink(path.c_str());
  std::error_code error;
  acceptor.open(Protocol(), error);
  if (!error) acceptor.bind(Protocol::endpoint(path), error);
  if (!error) acceptor.listen(asio::socket_base::max_listen_connections, error);
  if (error) return "cannot listen on " + path + ": " + error.message();
  if (::chown(path.c_str(), static_cast<uid_t>(-1), group->gr_gid) != 0 ||
      ::chmod(path.c_str(), mode) != 0) {
    return "cannot set owner and mode of " + path + ": " + std::strerror(errno);
  }
  Log(LOG_INFO, "listening on %s", path.c_str());
  return std::nullopt;
}

std::optional<std::string> TakeSocket(Protocol::acceptor& acceptor, const Options& options) {
  const int handed = sd_listen_fds(1);
  if (handed > 1)
    return "expected one socket from the service manager, got " + std::to_string(handed);
  if (handed == 1) {
    std::error_code error;
    acceptor.assign(Protocol(), SD_LISTEN_FDS_START, error);
    if (error) return "cannot use the socket handed over: " + error.message();
    Log(LOG_INFO, "serving the socket handed over by the service manager");
    return std::nullopt;
  }
  return BindSocket(acceptor, options);
}

// A drop folder that cannot be watched costs the administrator the automatic
// import, not the clients their settings: the service runs on without it.
std::unique_ptr<QelSS::service::PredefineWatcher> WatchPredefines(asio::io_context& io,
                                                                  QelSS::service::Service& service,
                                                                  const Options& options) {
  std::string folder = options.predefines;
  if (folder == "none") return nullptr;
  if (folder.empty() && QelSS::PreDefineManager::DefaultFolder(folder) != QelSS::kSuccess) {
    Log(LOG_ERR, "predefine: no folder for predefined domains");
    return nullptr;
  }
  try {
    auto watcher = std::make_unique<QelSS::service::PredefineWatcher>(
        io, folder, [&service](const std::string& domain, const auto& leaves) {
          return service.Import(domain, leaves);
        });
    Log(LOG_INFO, "predefine: watching %s/Domains", folder.c_str());
    return watcher;
  } catch (const std::exception& e) {
    Log(LOG_ERR, "predefine: %s; dropped files are not imported", e.what());
    return nullptr;
  }
}

std::shared_ptr<QelSS::service::StoreProvider> LocalStores(const Options& options) {
  if (!MakeFolder(options.stateDir + "/domains", 0700) ||
      !MakeFolder(options.stateDir + "/journals", 0700)) {
    Log(LOG_ERR, "cannot make the state folder %s", options.stateDir.c_str());
    return nullptr;
  }
  return std::make_shared<QelSS::service::LocalStores>(
      options.stateDir,
      options.sync == "none" ? QelSS::service::SyncMode::kNone : QelSS::service::SyncMode::kFull);
}

#ifdef QELSS_WITH_ETCD
std::shared_ptr<QelSS::service::StoreProvider> EtcdStores(const Options& options) {
  namespace etcd = QelSS::service::etcd;
  etcd::StoreOptions store;
  std::stringstream endpoints(options.etcdEndpoints);
  for (std::string endpoint; std::getline(endpoints, endpoint, ',');) {
    if (!endpoint.empty()) store.client.endpoints.push_back(endpoint);
  }
  store.client.dialTimeout = std::chrono::milliseconds(std::lround(options.etcdDialTimeout * 1e3));
  store.client.requestTimeout =
      std::chrono::milliseconds(std::lround(options.etcdRequestTimeout * 1e3));
  store.prefix = options.etcdPrefix;
  if (options.etcdClusterKey.empty()) {
    Log(LOG_ERR, "--store etcd needs --etcd-cluster-key");
    return nullptr;
  }
  if (std::error_code read = QelSS::ReadHostKeyFile(options.etcdClusterKey, store.clusterKey);
      read != QelSS::kSuccess || store.clusterKey.size() != QelSS::kHostKeySize) {
    Log(LOG_ERR, "cannot use the cluster key %s (%d)", options.etcdClusterKey.c_str(),
        read.value());
    return nullptr;
  }
  try {
    auto stores = std::make_shared<etcd::EtcdStores>(std::move(store));
    Log(LOG_INFO, "keeping domains in etcd at %s under %s", options.etcdEndpoints.c_str(),
        options.etcdPrefix.c_str());
    return stores;
  } catch (const std::exception& e) {
    Log(LOG_ERR, "etcd at %s: %s", options.etcdEndpoints.c_str(), e.what());
    return nullptr;
  }
}
#endif

// A new cluster key, for the administrator to copy to every machine.
int MakeClusterKey(const std::string& path) {
  if (std::filesystem::exists(path)) {
    Log(LOG_ERR, "%s exists; a cluster key is never replaced", path.c_str());
    return 1;
  }
  std::vector<uint8_t> key;
  if (std::error_code made = QelSS::GetHostKey(path, key); made != QelSS::kSuccess) {
    Log(LOG_ERR, "cannot write the cluster key %s (%d)", path.c_str(), made.value());
    return 1;
  }
  return 0;
}

int Run(const Options& options) {
  QelSS::service::StoreSettings settings;
  settings.quiet = std::chrono::seconds(options.quietSeconds);
#ifdef QELSS_WITH_ETCD
  settings.stores = options.store == "etcd" ? EtcdStores(options) : LocalStores(options);
#else
  settings.stores = LocalStores(options);
#endif
  if (settings.stores == nullptr) return 1;
  asio::io_context io(1);
  Protocol::acceptor acceptor(io);
  if (auto failed = TakeSocket(acceptor, options)) {
    Log(LOG_ERR, "%s", failed->c_str());
    return 1;
  }
  QelSS::service::Service service(io, settings, std::chrono::seconds(options.idleExit));
  asio::signal_set signals(io, SIGTERM, SIGINT);
  signals.async_wait([&](const std::error_code& error, int signal) {
    if (error) return;
    Log(LOG_INFO, "signal %d: saving and exiting", signal);
    io.stop();
  });
  ::signal(SIGPIPE, SIG_IGN);
  // Watched before the first client is served: a client that drops a file
  // once it can connect finds the folder there and the watch on.
  std::unique_ptr<QelSS::service::PredefineWatcher> predefines =
      WatchPredefines(io, service, options);
  service.Serve(acceptor);
  sd_notify(0, "READY=1");
  QelSS::platform::RunPolling(io, kPollWindow);
  sd_notify(0, "STOPPING=1");
  std::error_code ignored;
  acceptor.close(ignored);
  predefines.reset();
  service.SaveAll();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CLI::App app("Keeps shared settings domains for the processes that open them remotely.",
               "qelsharedsettingsd");
  app.add_option("--socket", options.socket,
                 "where to listen when the service manager hands over no socket");
  app.add_option("--state-dir", options.stateDir, "domain snapshots and journals")
      ->capture_default_str();
  app.add_option("--socket-group", options.socketGroup, "group that may connect")
      ->capture_default_str();
  app.add_option("--socket-mode", options.socketMode, "mode of the socket (octal)")
      ->capture_default_str();
  app.add_option("--sync", options.sync,
                 "when a commit is answered: full (on stable storage) or "
                 "none (handed to the kernel)")
      ->check(CLI::IsMember({"full", "none"}))
      ->capture_default_str();
#ifdef QELSS_WITH_ETCD
  const std::vector<std::string> stores = {"local", "etcd"};
#else
  const std::vector<std::string> stores = {"local"};  // built without the etcd store
#endif
  app.add_option("--store", options.store,
                 "where domains live: local (the state folder) or etcd (a cluster that the "
                 "services of several machines share)")
      ->check(CLI::IsMember(stores))
      ->capture_default_str();
  app.add_option("--etcd-endpoints", options.etcdEndpoints,
                 "the etcd cluster's members, http://host:port[,...]")
      ->capture_default_str();
  app.add_option("--etcd-prefix", options.etcdPrefix, "where under etcd's keys domains live")
      ->capture_default_str();
  app.add_option("--etcd-cluster-key", options.etcdClusterKey,
                 "the key file that seals every value in etcd; the same on every machine");
  app.add_option("--etcd-dial-timeout", options.etcdDialTimeout,
                 "seconds to reach a member at start")
      ->check(CLI::Range(0.1, 600.0))
      ->capture_default_str();
  app.add_option("--etcd-request-timeout", options.etcdRequestTimeout,
                 "seconds a member may take over one request")
      ->check(CLI::Range(0.1, 600.0))
      ->capture_default_str();
  app.add_option("--make-cluster-key", options.makeClusterKey,
                 "write a new cluster key to this file and exit");
  app.add_option("--predefines", options.predefines,
                 "folder whose Domains/ the administrator drops domain files into ("
                 "\"none\": no import); by default qelvarin/DomainSettings/Predefines in the "
                 "data folder");
  app.add_option("--idle-exit", options.idleExit,
                 "exit after this many seconds without a client (0: never)")
      ->capture_default_str();
  app.add_option("--snapshot-after", options.quietSeconds,
                 "seconds without a commit before a domain's snapshot is written")
      ->check(CLI::Range(1u, 86400u))
      ->capture_default_str();
  CLI11_PARSE(app, argc, argv);
  if (!options.makeClusterKey.empty()) return MakeClusterKey(options.makeClusterKey);
  return Run(options);
}
