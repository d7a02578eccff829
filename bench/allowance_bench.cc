// A brokered call under an open allowance, against its baseline in the same
// run: `proxy.request` and `proxy.perform` over the real agent socket, the
// request settled at once by the allowance with no phone in the loop, then
// one HTTPS call with the credential attached; against a bare libcurl call
// with the same settings to the same local HTTPS server. Each is repeated and
// reported by its median; the target is a ratio under 1.3.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "bare_get.h"
#include "testing/service_internals.h"
#include "tolvanger/kit/cloud_seal.h"
#include "tolvanger/kit/random.h"
#include "upstream_service.h"

namespace {

using nlohmann::json;
using namespace tolvanger;
using namespace tolvanger::service;

struct World : bench::UpstreamService {
  json ask;

  World() {
    ask = {{"op", "proxy.request"},
           {"request",
            {{"secret", "upstream"}, {"method", "GET"}, {"url", itemsURL()}}}};
    openAllowance();
  }

  // The phone's approval of a first request from this process, with a hold
  // of an hour: an allowance for every request after it.
  void openAllowance() {
    Service& s = runtime->service();
    const std::string id = agent->call(ask)["request_id"];
    const StoredRequest r = *ServiceInternals::store(s).get(id);
    const std::string bound = s.binding(r);
    const json envelope =
        CloudSeal::seal(asBytes(json{
                            {"request_id", id},
                            {"name", "upstream"},
                            {"kind", "bearer"},
                            {"value", "token-" + Random::hex(16)},
                            {"hold_seconds",
                             3600}}.dump()),
                        ServiceInternals::identity(s).cloudKey().publicKey(),
                        "cred", id)
            .asDictionary();
    Approval a;
    a.requestID = id;
    a.deviceID = "phone-1";
    a.digest = r.digest;
    a.signatureBase64 = toBase64(key.sign(asBytes(bound)));
    a.pqSignatureBase64 = toBase64(pq.sign(asBytes(bound)));
    a.credentialEnvelope = &envelope;
    a.road = "lan";
    s.approve(a);
    agent->call({{"op", "proxy.perform"}, {"id", id}});
  }
};

World& world() {
  static World w;
  return w;
}

void BM_CallUnderAllowance(benchmark::State& state) {
  World& w = world();
  for (auto _ : state) {
    const json opened = w.agent->call(w.ask);
    const json reply = w.agent->call(
        {{"op", "proxy.perform"}, {"id", opened.value("request_id", "")}});
    if (reply.value("status", 0) != 200) {
      state.SkipWithError(reply.dump().c_str());
      break;
    }
  }
}
BENCHMARK(BM_CallUnderAllowance)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime()
    ->MinTime(0.5)
    ->Repetitions(7)
    ->ReportAggregatesOnly(true);

void BM_BareCurl(benchmark::State& state) {
  World& w = world();
  const std::string url = "https://" + w.upstream.netloc() + "/v1/items";
  const std::string ca = w.dir.file("ca.pem");
  for (auto _ : state) {
    if (const char* failed = bench::bareGet(url, ca)) {
      state.SkipWithError(failed);
      break;
    }
  }
}
BENCHMARK(BM_BareCurl)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime()
    ->MinTime(0.5)
    ->Repetitions(7)
    ->ReportAggregatesOnly(true);

}  // namespace

BENCHMARK_MAIN();
