// A phone's call through the cloud road's folder store, from the call's
// record written to its reply read, against the same call on the sealed LAN
// road, all in one run and one process.
//
// BM_SealedLAN is the baseline: a paired phone's GET /v1/pending inside POST
// /v1/sealed over loopback. BM_CloudFolder/push:1 is the same call through a
// folder store that inotify watches on both sides, so each side reads a new
// record as soon as it lands; BM_CloudFolder/push:0 has no watch, so each
// side finds the record at its next look (the phone's 1 s poll, the
// service's 2 s nap while requests are pending) and is shown separately.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <thread>
#include <vector>

#include "listening_service.h"
#include "tolvanger/kit/folder_cloud.h"
#include "tolvanger/phone/cloud_transport.h"
#include "tolvanger/phone/sealed_road.h"
#include "tolvanger/service/cloud_road.h"

namespace {

using nlohmann::json;
using namespace tolvanger;
using namespace tolvanger::phone;
using namespace tolvanger::service;
namespace fs = std::filesystem;

struct World : bench::ListeningService {
  std::unique_ptr<SealedRoad> road;
  struct Way {
    std::string name;
    bool push;
    std::shared_ptr<FolderCloudStore> store;
    std::unique_ptr<CloudRoad> road;
    std::unique_ptr<CloudTransport> phone;
  };
  Way ways[2] = {{"pushed", true, {}, {}, {}}, {"napping", false, {}, {}, {}}};
  ~World() {
    for (Way& way : ways) {
      way.phone.reset();
      way.road->stop();
    }
  }

  World() {
    // Pending requests before the roads start, so that their pumps nap the
    // short nap from their first round, as a service with work waiting does.
    for (int i = 0; i < 3; ++i) service->raise("deploy", Fields{}, {});
    for (Way& way : ways) {
      fs::create_directories(dir.file(way.name));
      way.store = std::make_shared<FolderCloudStore>(
          dir.file(way.name), dir.file(way.name + "-mac-cursor"), nullptr,
          way.push);
      way.road = std::make_unique<CloudRoad>(*service, *routes, way.store);
      way.road->start();
      auto phoneStore = std::make_shared<FolderCloudStore>(
          dir.file(way.name), dir.file(way.name + "-phone-cursor"), nullptr,
          way.push);
      for (int i = 0; i < 500 && !way.road->connected(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
      way.phone = CloudTransport::connect(
          phoneStore, ServiceInternals::identity(*service).spki(),
          ServiceInternals::identity(*service).pqPublicKey(), phone.id,
          phone.secret, phone.cloud);
    }
    road = std::make_unique<SealedRoad>(
        base(), service->config.daemonID, phone.id, phone.secret, phone.cloud,
        ServiceInternals::identity(*service).spki(),
        ServiceInternals::identity(*service).pqPublicKey(),
        std::chrono::seconds(10));
  }
};

World& world() {
  static World w;
  return w;
}

void BM_SealedLAN(benchmark::State& state) {
  World& w = world();
  size_t listed = 0;
  for (auto _ : state) listed = w.road->pending().rows.size();
  state.counters["listed"] = static_cast<double>(listed);
}
BENCHMARK(BM_SealedLAN)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_CloudFolder(benchmark::State& state) {
  World& w = world();
  World::Way& way = w.ways[state.range(0) == 1 ? 0 : 1];
  size_t listed = 0;
  for (auto _ : state) listed = way.phone->pending().rows.size();
  state.counters["listed"] = static_cast<double>(listed);
}
BENCHMARK(BM_CloudFolder)
    ->ArgName("push")
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_CloudFolder)
    ->ArgName("push")
    ->Arg(0)
    ->Iterations(4)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
