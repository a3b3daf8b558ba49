// A 10,000-key local domain opened by a new process: from the start of main
// to the first value read (the program's own clock), and `qss read` of one
// key as a whole process (spawn to exit). The file is in the page cache after
// the first run, as it is for an application started again.
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "qelss/api/QSSDomain.h"

extern char** environ;

namespace QelSS {
namespace {

constexpr const char* kName = "cold10000";
constexpr const char* kReadPath = "/s57/k5711";

// The folder of the domain (and, through XDG_DATA_HOME, of the host key),
// filled once and removed at the end.
class ColdDomain {
 public:
  static ColdDomain& Instance() {
    static ColdDomain domain;
    return domain;
  }
  const std::string& folder() const { return folder_; }
  bool ready() const { return ready_; }

 private:
  ColdDomain() {
    std::string pattern = (std::filesystem::temp_directory_path() / "qelss-cold-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) return;
    root_ = pattern;
    folder_ = root_ + "/domains";
    ::setenv("XDG_DATA_HOME", (root_ + "/home").c_str(), 1);
    std::shared_ptr<QSSDomain> domain;
    if (!Succeeded(QSSDomain::Create(domain, kName, "bench", folder_.c_str(), true)) ||
        !Succeeded(domain->CreateTransaction())) {
      return;
    }
    for (int k = 0; k < 10000; ++k) {
      const std::string path = "/s" + std::to_string(k / 100) + "/k" + std::to_string(k);
      if (!Succeeded(domain->Set(path.c_str(), static_cast<long long>(k)))) return;
    }
    ready_ = Succeeded(domain->CommitTransaction()) && Succeeded(domain->Save(30));
  }
  ~ColdDomain() {
    std::error_code ignored;
    if (!root_.empty()) std::filesystem::remove_all(root_, ignored);
  }

  std::string root_;
  std::string folder_;
  bool ready_ = false;
};

// Runs `args` with its standard output into `out`; the exit status, or -1.
int Run(const std::vector<std::string>& args, std::string& out) {
  int pipes[2];
  if (::pipe(pipes) != 0) return -1;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipes[1], STDOUT_FILENO);
  posix_spawn_file_actions_addclose(&actions, pipes[0]);
  std::vector<char*> argv;
  for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  pid_t pid = -1;
  const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(pipes[1]);
  out.clear();
  char buffer[256];
  ssize_t n = 0;
  while (spawned == 0 && (n = ::read(pipes[0], buffer, sizeof buffer)) > 0) {
    out.append(buffer, static_cast<size_t>(n));
  }
  ::close(pipes[0]);
  int status = 0;
  if (spawned != 0 || ::waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void BM_ColdOpenToFirstRead(benchmark::State& state) {
  ColdDomain& domain = ColdDomain::Instance();
  if (!domain.ready()) return state.SkipWithError("the domain could not be made");
  std::string out;
  for (auto _ : state) {
    if (Run({QELSS_COLD_OPEN_BINARY, domain.folder(), kName, kReadPath}, out) != 0) {
      return state.SkipWithError("the opening process failed");
    }
    state.SetIterationTime(std::stod(out) / 1e9);
  }
}
BENCHMARK(BM_ColdOpenToFirstRead)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_QssReadWholeProcess(benchmark::State& state) {
  ColdDomain& domain = ColdDomain::Instance();
  if (!domain.ready()) return state.SkipWithError("the domain could not be made");
  std::string out;
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    if (Run({QELSS_QSS_BINARY, "--folder", domain.folder(), "read", kName, kReadPath}, out) != 0) {
      return state.SkipWithError("qss failed");
    }
    state.SetIterationTime(
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
}
BENCHMARK(BM_QssReadWholeProcess)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace QelSS
