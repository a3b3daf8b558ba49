// Two services sharing domains through a one-member etcd on this machine, as
// two machines would (real processes; etcd syncs its own disk).
//
//   BarePut              one put through etcd's own API, the floor a commit
//                        through the service stands on
//   Commit               the facade's synchronous one-key commit through
//                        service A, acknowledged once etcd has it
//   CrossMachinePush     commit through service A (another process) to the
//                        call of this process's observer of service B
//   ConcurrentCommits    clients committing their own keys to one domain,
//                        half through A and half through B
//
// Latencies: p50_us and p99_us counters.

#include <benchmark/benchmark.h>
#include <spawn.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>

#include <grpcpp/grpcpp.h>

#include "etcd/etcdserver/etcdserverpb/rpc.grpc.pb.h"
#include "ipc/EtcdTestSupport.h"
#include "ipc/ServiceTestSupport.h"
#include "qelss/api/QSSDomain.h"
#include "qelss/domain/SettingsObserver.h"
#include "qelss/values/INumber.h"

namespace QelSS {
namespace {

using testing::ServiceProcess;

class Machines {
 public:
  static Machines& Get() {
    static Machines machines;
    return machines;
  }
  testing::EtcdCluster& Cluster() { return cluster_; }
  ServiceProcess& A() { return *a_; }
  ServiceProcess& B() { return *b_; }

  // A facade on a domain of `service`; opened one at a time, because the
  // runtime folder that clients find a service in is the process's.
  std::shared_ptr<QSSDomain> Open(ServiceProcess& service, const std::string& name) {
    std::lock_guard lock(mutex_);
    SetServiceRuntimeDirectory(service.RuntimeDir());
    std::shared_ptr<QSSDomain> domain;
    if (!Succeeded(QSSDomain::Create(domain, name.c_str(), "com.example.bench", nullptr, false))) {
      std::abort();
    }
    return domain;
  }

 private:
  Machines() : cluster_(1) {
    int code = -1;
    (void)testing::Output({QELSS_SERVICE_BINARY, "--make-cluster-key", key_}, code);
    if (code != 0 || !cluster_.Start()) std::abort();
    a_ = std::make_unique<ServiceProcess>(testing::EtcdServiceArguments(cluster_, key_));
    b_ = std::make_unique<ServiceProcess>(testing::EtcdServiceArguments(cluster_, key_));
    if (!a_->Start() || !b_->Start()) std::abort();
  }

  testing::EtcdCluster cluster_;
  testing::ScopedTempDir keys_;
  const std::string key_ = keys_ / "cluster.key";
  std::unique_ptr<ServiceProcess> a_, b_;
  std::mutex mutex_;
};

void ReportPercentiles(benchmark::State& state, std::vector<double> seconds) {
  if (seconds.empty()) return;
  std::sort(seconds.begin(), seconds.end());
  state.counters["p50_us"] = seconds[seconds.size() / 2] * 1e6;
  state.counters["p99_us"] = seconds[seconds.size() * 99 / 100] * 1e6;
}

template <typename Step>
void TimeEach(benchmark::State& state, Step&& step) {
  std::vector<double> seconds;
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    if (!step()) {
      state.SkipWithError("failed");
      break;
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    seconds.push_back(took.count());
    state.SetIterationTime(took.count());
  }
  ReportPercentiles(state, seconds);
}

void BarePut(benchmark::State& state) {
  Machines& machines = Machines::Get();
  std::string target = machines.Cluster().Endpoints();
  target.erase(0, std::string("http://").size());
  auto kv =
      etcdserverpb::KV::NewStub(grpc::CreateChannel(target, grpc::InsecureChannelCredentials()));
  etcdserverpb::PutRequest request;
  request.set_key("/bench/bare");
  request.set_value(std::string(64, 'x'));
  TimeEach(state, [&] {
    grpc::ClientContext context;
    etcdserverpb::PutResponse response;
    return kv->Put(&context, request, &response).ok();
  });
}
BENCHMARK(BarePut)->UseManualTime()->Unit(benchmark::kMicrosecond);

// The shape of a commit without the service: compare the count's revision,
// put the count and a log entry.
void BareTxn(benchmark::State& state) {
  Machines& machines = Machines::Get();
  std::string target = machines.Cluster().Endpoints();
  target.erase(0, std::string("http://").size());
  auto kv =
      etcdserverpb::KV::NewStub(grpc::CreateChannel(target, grpc::InsecureChannelCredentials()));
  // Benchmark runs this more than once: a fresh count each time.
  static int runs = 0;
  const std::string base = "/bench/txn" + std::to_string(++runs);
  int64_t revision = 0;
  long long generation = 0;
  TimeEach(state, [&] {
    etcdserverpb::TxnRequest request;
    auto* compare = request.add_compare();
    compare->set_key(base + "/generation");
    compare->set_target(etcdserverpb::Compare::MOD);
    compare->set_result(etcdserverpb::Compare::EQUAL);
    compare->set_mod_revision(revision);
    auto* count = request.add_success()->mutable_request_put();
    count->set_key(base + "/generation");
    count->set_value(std::to_string(++generation));
    auto* entry = request.add_success()->mutable_request_put();
    entry->set_key(base + "/log/" + std::to_string(generation));
    entry->set_value(std::string(200, 'x'));
    grpc::ClientContext context;
    etcdserverpb::TxnResponse response;
    if (!kv->Txn(&context, request, &response).ok() || !response.succeeded()) return false;
    revision = response.header().revision();
    return true;
  });
}
BENCHMARK(BareTxn)->UseManualTime()->Unit(benchmark::kMicrosecond);

void Commit(benchmark::State& state) {
  Machines& machines = Machines::Get();
  auto domain = machines.Open(machines.A(), "commit");
  long long value = 0;
  TimeEach(state, [&] { return Succeeded(domain->SetCommit("/key0", ++value)); });
}
BENCHMARK(Commit)->UseManualTime()->Unit(benchmark::kMicrosecond);

long long SteadyNanoseconds() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// qelss_bench_push_committer on service A, fed one key per line.
class Committer {
 public:
  Committer(const std::string& runtime, const std::string& domain) {
    int fds[2];
    if (::pipe(fds) != 0) std::abort();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[0], 0);
    posix_spawn_file_actions_addclose(&actions, fds[1]);
    std::string env = "QELSS_RUNTIME_DIR=" + runtime;
    char* envp[] = {env.data(), nullptr};
    std::string program = QELSS_PUSH_COMMITTER_BINARY;
    std::string name = domain;
    char* argv[] = {program.data(), name.data(), nullptr};
    if (posix_spawn(&pid_, argv[0], &actions, nullptr, argv, envp) != 0) std::abort();
    posix_spawn_file_actions_destroy(&actions);
    ::close(fds[0]);
    input_ = fds[1];
  }
  ~Committer() {
    ::close(input_);
    testing::WaitForChild(pid_, std::chrono::seconds(10));
  }
  void Commit(const std::string& key) {
    const std::string line = key + "\n";
    if (::write(input_, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
      std::abort();
    }
  }

 private:
  pid_t pid_ = -1;
  int input_ = -1;
};

struct Heard {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<double> latencies;
};

void CrossMachinePush(benchmark::State& state) {
  Machines& machines = Machines::Get();
  auto domain = machines.Open(machines.B(), "push");
  auto heard = std::make_shared<Heard>();
  std::shared_ptr<SettingsObserver> observer;
  (void)SettingsObserver::Create(
      [heard](const std::shared_ptr<IDomainSetting>&, const IObserver::ChangeList& changes) {
        const long long now = SteadyNanoseconds();
        auto number = std::dynamic_pointer_cast<INumber>(std::get<2>(changes.front()));
        int64_t sent = 0;
        if (!number || !Succeeded(number->GetInt64(sent))) return;
        std::lock_guard lock(heard->mutex);
        heard->latencies.push_back(static_cast<double>(now - sent) * 1e-9);
        heard->changed.notify_all();
      },
      observer);
  if (!Succeeded(domain->AddObserver(nullptr, observer))) std::abort();
  Committer committer(machines.A().RuntimeDir(), "push");
  size_t expected = 0;
  for (auto _ : state) {
    committer.Commit("/key0");
    ++expected;
    std::unique_lock lock(heard->mutex);
    if (!heard->changed.wait_for(lock, std::chrono::seconds(10),
                                 [&] { return heard->latencies.size() >= expected; })) {
      state.SkipWithError("no push arrived");
      break;
    }
    state.SetIterationTime(heard->latencies.back());
  }
  (void)domain->RemoveObserver(observer);
  std::lock_guard lock(heard->mutex);
  ReportPercentiles(state, heard->latencies);
}
BENCHMARK(CrossMachinePush)->UseManualTime()->Unit(benchmark::kMicrosecond);

void ConcurrentCommits(benchmark::State& state) {
  Machines& machines = Machines::Get();
  auto domain = machines.Open(state.thread_index() % 2 == 0 ? machines.A() : machines.B(), "crowd");
  const std::string key = "/key" + std::to_string(state.thread_index());
  long long done = 0;
  long long refused = 0;
  for (auto _ : state) {
    std::error_code result;
    while ((result = domain->SetCommit(key.c_str(), done)) == kTransactionConflict) ++refused;
    if (!Succeeded(result)) {
      state.SkipWithError("commit failed");
      break;
    }
    ++done;
  }
  state.SetItemsProcessed(done);
  state.counters["refused"] = benchmark::Counter(static_cast<double>(refused));
}
BENCHMARK(ConcurrentCommits)->Threads(16)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace QelSS
