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
// Latencies: p50_us, p90_us and p99_us counters.

#include <benchmark/benchmark.h>

#include <mutex>

#include <grpcpp/grpcpp.h>

#include "BenchService.h"
#include "etcd/etcdserver/etcdserverpb/rpc.grpc.pb.h"
#include "ipc/EtcdTestSupport.h"
#include "ipc/ServiceTestSupport.h"
#include "qelss/api/QSSDomain.h"

namespace QelSS {
namespace {

using bench::TimeEach;
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

  // etcd's own client API on the cluster, without the service.
  std::unique_ptr<etcdserverpb::KV::Stub> BareClient() {
    std::string target = cluster_.Endpoints();
    target.erase(0, std::string("http://").size());
    return etcdserverpb::KV::NewStub(
        grpc::CreateChannel(target, grpc::InsecureChannelCredentials()));
  }

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

void BarePut(benchmark::State& state) {
  auto kv = Machines::Get().BareClient();
  etcdserverpb::PutRequest request;
  request.set_key("/bench/bare");
  request.set_value(std::string(64, 'x'));
  TimeEach(state, "failed", [&] {
    grpc::ClientContext context;
    etcdserverpb::PutResponse response;
    return kv->Put(&context, request, &response).ok();
  });
}
BENCHMARK(BarePut)->UseManualTime()->Unit(benchmark::kMicrosecond);

// The shape of a commit without the service: compare the count's revision,
// put the count and a log entry.
void BareTxn(benchmark::State& state) {
  auto kv = Machines::Get().BareClient();
  // Benchmark runs this more than once: a fresh count each time.
  static int runs = 0;
  const std::string base = "/bench/txn" + std::to_string(++runs);
  int64_t revision = 0;
  long long generation = 0;
  TimeEach(state, "failed", [&] {
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
  TimeEach(state, "failed", [&] { return Succeeded(domain->SetCommit("/key0", ++value)); });
}
BENCHMARK(Commit)->UseManualTime()->Unit(benchmark::kMicrosecond);

void CrossMachinePush(benchmark::State& state) {
  Machines& machines = Machines::Get();
  auto domain = machines.Open(machines.B(), "push");
  bench::MeasurePushes(state, *domain, "push", machines.A().RuntimeDir());
}
BENCHMARK(CrossMachinePush)->UseManualTime()->Unit(benchmark::kMicrosecond);

void ConcurrentCommits(benchmark::State& state) {
  Machines& machines = Machines::Get();
  auto domain = machines.Open(state.thread_index() % 2 == 0 ? machines.A() : machines.B(), "crowd");
  bench::CommitOwnKey(state, *domain);
}
BENCHMARK(ConcurrentCommits)->Threads(16)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace QelSS
