// The phone's road on the local network, over real TCP on loopback against
// the service's own HTTP listener and routes.
//
// BM_ClearHealth is the baseline: GET /v1/health in the clear. BM_SealedPending
// is a paired phone's GET /v1/pending inside POST /v1/sealed (seal, route,
// seal the reply, open it). The /idle:200 variants hold 200 silent
// connections open throughout, as slow clients would, to show the phone is
// still answered.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "harness.h"
#include "testing/service_internals.h"
#include "tolvanger/kit/crypto/mldsa65.h"
#include "tolvanger/kit/crypto/p256.h"
#include "tolvanger/kit/crypto/xwing.h"
#include "tolvanger/kit/pair_link.h"
#include "tolvanger/phone/phone_client.h"
#include "tolvanger/phone/sealed_road.h"
#include "tolvanger/service/http_server.h"
#include "tolvanger/service/routes.h"
#include "tolvanger/service/service.h"

namespace {

using nlohmann::json;
using namespace tolvanger;
using namespace tolvanger::phone;
using namespace tolvanger::service;

struct World {
  testing::TempDir dir;
  std::unique_ptr<Service> service;
  std::unique_ptr<Routes> routes;
  std::unique_ptr<HTTPServer> http;
  std::unique_ptr<SealedRoad> road;
  std::unique_ptr<DaemonClient> clear;
  int port = 0;

  World() {
    Config config = Config::defaults();
    config.listen = {"127.0.0.1"};
    port = FreePort::pick(20000 + ::getpid() % 12000, 200);
    config.listenPort = port;
    service = std::make_unique<Service>(Home(dir.file("home")), config);
    service->setListenAddresses({"127.0.0.1"});
    routes = std::make_unique<Routes>(*service);
    http = std::make_unique<HTTPServer>(
        routes->handler(), std::vector<std::string>{"127.0.0.1"}, port);
    http->start();

    // A phone pairs through the window, as the pair routes drive it.
    const auto key = crypto::P256PrivateKey::generate();
    const auto pq = crypto::MLDSA65PrivateKey::generate();
    auto cloud = crypto::XWingPrivateKey::generate();
    const auto link = PairURL::parse(
        ServiceInternals::pairing(*service).open(std::string("127.0.0.1")).url);
    ServiceInternals::pairing(*service).offer(
        json{{"token", link->token},
             {"device_id", "phone-1"},
             {"name", "Bench Phone"},
             {"public_key", toBase64(key.publicKey().der())},
             {"public_key_pq", toBase64(pq.publicKey().raw())},
             {"cloud_public_key", toBase64(cloud.publicKey().raw())}});
    const std::string code =
        ServiceInternals::pairing(*service).status()["code"];
    const std::string secret =
        ServiceInternals::pairing(*service)
            .confirm(json{{"token", link->token}, {"code", code}})
            .device.secret;

    const std::string base = "http://127.0.0.1:" + std::to_string(port);
    road = std::make_unique<SealedRoad>(
        base, service->config.daemonID, "phone-1", secret, std::move(cloud),
        ServiceInternals::identity(*service).spki(),
        ServiceInternals::identity(*service).pqPublicKey(),
        std::chrono::seconds(10));
    clear = std::make_unique<DaemonClient>(base, std::chrono::seconds(10));
    for (int i = 0; i < 3; ++i) service->raise("deploy", Fields{}, {});
  }
};

World& world() {
  static World w;
  return w;
}

// Opens `count` connections to the listener that never send a byte.
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
BENCHMARK(BM_ClearHealth)->ArgName("idle")->Arg(0)->Arg(200)->UseRealTime();

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
BENCHMARK(BM_SealedPending)->ArgName("idle")->Arg(0)->Arg(200)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
