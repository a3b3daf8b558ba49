// Two processes sharing one settings domain through the settings service: this
// program watches the domain and starts a second copy of itself that commits
// to it. Every commit of the second process reaches the first one's observer.
//
//   qelss_shared_domain
//
// Needs a running settings service (qelsharedsettingsd); QELSS_RUNTIME_DIR
// tells where its socket is when it is not the system's.

#include <qelss/QelSharedSettings.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

extern char** environ;

namespace {

constexpr const char* kDomain = "com.example.shareddemo";
constexpr int kRounds = 5;

bool Check(const char* what, const std::error_code& rc) {
  if (QelSS::Succeeded(rc)) return true;
  std::fprintf(stderr, "%s failed: %s\n", what, QelSS::DescribeErrorCode(rc).c_str());
  return false;
}

// The second process: one transaction per round, two keys each.
int Commit() {
  std::shared_ptr<QelSS::QSSDomain> prefs;
  if (!Check("QSSDomain::Create",
             QelSS::QSSDomain::Create(prefs, kDomain, "com.example.committer", nullptr, false))) {
    return 1;
  }
  for (long long round = 1; round <= kRounds; ++round) {
    if (!Check("CreateTransaction", prefs->CreateTransaction()) ||
        !Check("Set round", prefs->Set("/game/round", round)) ||
        !Check("Set leader", prefs->Set("/game/leader", "player " + std::to_string(round % 3))) ||
        !Check("CommitTransaction", prefs->CommitTransaction())) {
      return 1;
    }
  }
  return 0;
}

// What the watcher has heard, shared with the observer's thread.
struct Heard {
  std::mutex mutex;
  std::condition_variable changed;
  int64_t lastRound = 0;
};

int Watch(const char* self) {
  std::shared_ptr<QelSS::QSSDomain> prefs;
  if (!Check("QSSDomain::Create",
             QelSS::QSSDomain::Create(prefs, kDomain, "com.example.watcher", nullptr, false))) {
    return 1;
  }
  auto heard = std::make_shared<Heard>();
  std::shared_ptr<QelSS::SettingsObserver> observer;
  const auto onChange = [heard](const std::shared_ptr<QelSS::IDomainSetting>&,
                                const QelSS::IObserver::ChangeList& changes) {
    for (const auto& [path, type, value] : changes) {
      std::string text = "(deleted)";
      if (value) (void)value->Description(text);
      std::printf("heard %s %s\n", path.c_str(), text.c_str());
      int64_t round = 0;
      auto number = std::dynamic_pointer_cast<QelSS::INumber>(value);
      if (path == "/game/round" && number && QelSS::Succeeded(number->GetInt64(round))) {
        std::lock_guard lock(heard->mutex);
        heard->lastRound = round;
        heard->changed.notify_all();
      }
    }
    std::fflush(stdout);
  };
  if (!Check("SettingsObserver::Create", QelSS::SettingsObserver::Create(onChange, observer)) ||
      !Check("AddObserver", prefs->AddObserver(nullptr, observer))) {
    return 1;
  }

  pid_t child = 0;
  char* const arguments[] = {const_cast<char*>(self), const_cast<char*>("commit"), nullptr};
  if (posix_spawn(&child, "/proc/self/exe", nullptr, nullptr, arguments, environ) != 0) {
    std::perror("posix_spawn");
    return 1;
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::fprintf(stderr, "the committing process failed\n");
    return 1;
  }
  std::unique_lock lock(heard->mutex);
  const bool all = heard->changed.wait_for(lock, std::chrono::seconds(10),
                                           [&] { return heard->lastRound == kRounds; });
  lock.unlock();
  (void)prefs->RemoveObserver(observer);
  if (!all) {
    std::fprintf(stderr, "heard only up to round %lld of %d\n",
                 static_cast<long long>(heard->lastRound), kRounds);
    return 1;
  }
  long long round = 0;
  if (!Check("Get round", prefs->Get("/game/round", round))) return 1;
  std::printf("the watcher's copy is at round %lld\n", round);
  return round == kRounds ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], "commit") == 0) return Commit();
  return Watch(argv[0]);
}
