// The phone's road on the local network, over real TCP on loopback against
// the service's own HTTP listener and routes.
//
// BM_ClearHealth is the baseline: GET /v1/health in the clear. BM_SealedPending
// is a paired phone's GET /v1/pending inside POST /v1/sealed (seal, route,
// seal the reply, open it). The /idle:60 variants hold 60 silent
// connections open throughout, as slow clients would, all but four of what
// the listener serves at once, to show the phone is still answered.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "listening_service.h"
#include "tolvanger/phone/phone_client.h"
#include "tolvanger/phone/sealed_road.h"

namespace {

using nlohmann::json;
using namespace tolvanger;
using namespace tolvanger::phone;
using namespace tolvanger::service;

struct World : bench::ListeningService {
  std::unique_ptr<SealedRoad> road;
  std::unique_ptr<DaemonClient> clear;

  World() {
    road = std::make_unique<SealedRoad>(
        base(), service->config.daemonID, phone.id, phone.secret, phone.cloud,
        ServiceInternals::identity(*service).spki(),
        ServiceInternals::identity(*service).pqPublicKey(),
        std::chrono::seconds(10));
    clear = std::make_unique<DaemonClient>(base(), std::chrono::seconds(10));
    for (int i = 0; i < 3; ++i) service->raise("deploy", Fields{}, {});
  }
};

World& world() {
  static World w;
  return w;
}

// Opens `count` connections to the listener that never send a byte.
// Silent connections for the /idle variants: the listener's cap, less four
// for the phone's own calls.
constexpr int kIdle = static_cast<int>(kMaxHTTPConnections) - 4;

std::vector<int> idleConnections(int port, int count) {
  std::vector<int> fds;
  for (int i = 0; i < count; ++i) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(static_cast<uint16_t>(port));
    if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0) {
      fds.push_back(fd);
    } else {
      ::close(fd);
    }
  }
  // Let the listener accept them all before anything is timed.
  if (count > 0) std::this_thread::sleep_for(std::chrono::milliseconds(500));
  return fds;
}

void BM_ClearHealth(benchmark::State& state) {
  World& w = world();
  const auto idle = idleConnections(w.port, static_cast<int>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(w.clear->health());
  state.SetItemsProcessed(state.iterations());
  state.counters["idle_open"] = static_cast<double>(idle.size());
  for (int fd : idle) ::close(fd);
}
BENCHMARK(BM_ClearHealth)->ArgName("idle")->Arg(0)->Arg(kIdle)->UseRealTime();

void BM_SealedPending(benchmark::State& state) {
  World& w = world();
  const auto idle = idleConnections(w.port, static_cast<int>(state.range(0)));
  size_t listed = 0;
  for (auto _ : state) listed = w.road->pending().rows.size();
  state.SetItemsProcessed(state.iterations());
  state.counters["idle_open"] = static_cast<double>(idle.size());
  state.counters["listed"] = static_cast<double>(listed);
  for (int fd : idle) ::close(fd);
}
BENCHMARK(BM_SealedPending)->ArgName("idle")->Arg(0)->Arg(kIdle)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
