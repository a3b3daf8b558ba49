#include "WatchCommand.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <mutex>

#include "DomainSession.h"
#include "ValueText.h"
#include "qelss/domain/SettingsObserver.h"

namespace QelSS::Qss {
namespace {

int stopPipe[2] = {-1, -1};

void OnStopSignal(int) {
  const int saved = errno;
  const char byte = 0;
  (void)!::write(stopPipe[1], &byte, 1);
  errno = saved;
}

// Observers run on library threads and any of them may take the signal, so
// the handler only wakes the waiting main thread through a pipe.
bool InstallStopHandlers() {
  if (::pipe2(stopPipe, O_CLOEXEC) != 0) return false;
  struct sigaction action = {};
  action.sa_handler = OnStopSignal;
  sigemptyset(&action.sa_mask);
  return ::sigaction(SIGINT, &action, nullptr) == 0 && ::sigaction(SIGTERM, &action, nullptr) == 0;
}

void WaitForStop() {
  char byte;
  while (::read(stopPipe[0], &byte, 1) < 0 && errno == EINTR) {
  }
}

// `path` with its empty levels dropped: "/a//b/" is "a/b".
std::string Levels(const std::string& path) {
  std::string joined;
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    if (end > start) {
      if (!joined.empty()) joined += '/';
      joined.append(path, start, end - start);
    }
    start = end + 1;
  }
  return joined;
}

// Whether one of the two paths (already in Levels form) is the other or lies
// under it.
bool Overlap(const std::string& a, const std::string& b) {
  const std::string& shorter = a.size() <= b.size() ? a : b;
  const std::string& longer = a.size() <= b.size() ? b : a;
  if (shorter.empty()) return true;
  return longer.compare(0, shorter.size(), shorter) == 0 &&
         (longer.size() == shorter.size() || longer[shorter.size()] == '/');
}

void PrintChanges(std::mutex& lock, std::ostream& out, const std::string& watched,
                  const IObserver::ChangeList& changes) {
  std::lock_guard<std::mutex> guard(lock);
  for (const auto& [path, type, value] : changes) {
    if (!Overlap(watched, Levels(path))) continue;
    if (type == IObserver::Deleted || !value) {
      out << "deleted " << path << '\n';
      continue;
    }
    std::string text;
    if (!ValueLine(value, text).ok()) text = "(value cannot be shown)";
    out << "modified " << path << ' ' << text << '\n';
  }
  out.flush();
}

}  // namespace

Status RunWatch(const DomainOptions& options, const std::string& domain, const std::string& path,
                std::ostream& out) {
  if (!options.service) {
    return Status::Usage(
        "a local domain tells no one of its commits, so it cannot be watched",
        make_error_code(kOperationRefused),
        "watch a domain of the settings service: `qss --service watch " + domain + "`");
  }
  std::unique_ptr<DomainSession> session;
  if (Status opened = DomainSession::Open(options, domain, DomainSession::Mode::kRead, session);
      !opened.ok()) {
    return opened;
  }
  if (!InstallStopHandlers()) {
    return Status::Failure("cannot install the signal handlers", make_error_code(kFailure), "");
  }
  std::mutex lock;
  std::shared_ptr<SettingsObserver> observer;
  std::error_code added = SettingsObserver::Create(
      [&, watched = Levels(path)](const std::shared_ptr<IDomainSetting>&,
                                  const IObserver::ChangeList& changes) {
        PrintChanges(lock, out, watched, changes);
      },
      observer);
  if (Succeeded(added)) added = session->facade().AddObserver(nullptr, observer);
  if (!Succeeded(added)) return Status::Failure("cannot watch domain " + domain, added, "");
  WaitForStop();
  // Detaching waits for a delivery under way, so none can touch `lock` or
  // `out` after this returns.
  (void)session->facade().RemoveObserver(observer);
  observer->Detach();
  return Status::Ok();
}

}  // namespace QelSS::Qss
