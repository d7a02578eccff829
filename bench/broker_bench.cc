// The brokered call and the MCP door, each against its baseline in the same
// run:
// - `proxy.perform` over the real agent socket (re-read, pins, spend, attach,
//   one HTTPS call with a fresh TLS session, reply) against a bare libcurl
//   call with the same settings to the same local HTTPS server;
// - `list_credentials` through `tolvanger-service mcp` (a separate process,
//   which opens a socket connection of its own for each call) against
//   `secret.list` on a connection already open.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "bare_get.h"
#include "testing/service_internals.h"
#include "tolvanger/kit/cloud_seal.h"
#include "tolvanger/kit/random.h"
#include "tolvanger/service/broker.h"
#include "upstream_service.h"

namespace {

using nlohmann::json;
using namespace tolvanger;
using namespace tolvanger::service;

struct World : bench::UpstreamService {
  // A brokered GET, raised and approved with a credential, ready to perform.
  std::string approved() {
    Service& s = runtime->service();
    Broker::Ask ask;
    ask.request = {{"secret", "upstream"},
                   {"method", "GET"},
                   {"url", "https://" + upstream.netloc() + "/v1/items"}};
    ask.agent = "bench";
    const std::string id = runtime->broker().request(ask)["request_id"];
    const StoredRequest r = *ServiceInternals::store(s).get(id);
    const std::string bound = s.binding(r);
    const json envelope =
        CloudSeal::seal(asBytes(json{{"request_id", id},
                                     {"name", "upstream"},
                                     {"kind", "bearer"},
                                     {"value", "token-" + Random::hex(16)}}
                                    .dump()),
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
    return id;
  }
};

World& world() {
  static World w;
  return w;
}

void BM_ProxyPerform(benchmark::State& state) {
  World& w = world();
  for (auto _ : state) {
    state.PauseTiming();
    const std::string id = w.approved();
    state.ResumeTiming();
    const json reply = w.agent->call({{"op", "proxy.perform"}, {"id", id}});
    if (reply.value("status", 0) != 200) {
      state.SkipWithError(reply.dump().c_str());
      break;
    }
  }
}
BENCHMARK(BM_ProxyPerform)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime()
    ->MinTime(2.0);

// The same perform called in process, without the socket in between.
void BM_PerformInProcess(benchmark::State& state) {
  World& w = world();
  for (auto _ : state) {
    state.PauseTiming();
    const std::string id = w.approved();
    state.ResumeTiming();
    benchmark::DoNotOptimize(w.runtime->broker().perform(id));
  }
}
BENCHMARK(BM_PerformInProcess)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime()
    ->MinTime(2.0);

// The outgoing call alone, in process: what perform adds around it is the
// difference to the figure above.
void BM_BrokerSendOnly(benchmark::State& state) {
  World& w = world();
  Wire wire;
  wire.method = "GET";
  wire.scheme = "https";
  wire.host = "localhost";
  wire.port = w.upstream.port();
  wire.path = "/v1/items";
  wire.secret = "upstream";
  const std::string header = "Bearer token-0123456789";
  for (auto _ : state) {
    state.PauseTiming();
    benchmark::DoNotOptimize(w.approved());
    std::vector<OutgoingHeader> headers;
    headers.push_back({"authorization", SecretBytes(asBytes(header))});
    state.ResumeTiming();
    benchmark::DoNotOptimize(
        Broker::send(wire, headers, UpstreamSettings{w.dir.file("ca.pem")}));
  }
}
BENCHMARK(BM_BrokerSendOnly)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime()
    ->MinTime(2.0);

void BM_BareCurl(benchmark::State& state) {
  World& w = world();
  const std::string url = "https://" + w.upstream.netloc() + "/v1/items";
  const std::string ca = w.dir.file("ca.pem");
  for (auto _ : state) {
    state.PauseTiming();
    // The same preparation between iterations as above, so both run with
    // the caches in the same state.
    benchmark::DoNotOptimize(w.approved());
    state.ResumeTiming();
    if (const char* failed = bench::bareGet(url, ca)) {
      state.SkipWithError(failed);
      break;
    }
  }
}
BENCHMARK(BM_BareCurl)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime()
    ->MinTime(2.0);

void BM_SecretListDirect(benchmark::State& state) {
  World& w = world();
  for (auto _ : state) {
    benchmark::DoNotOptimize(w.agent->call({{"op", "secret.list"}}));
  }
}
BENCHMARK(BM_SecretListDirect)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_ListCredentialsThroughMCP(benchmark::State& state) {
  World& w = world();
  testing::LineChild mcp({TOLVANGER_SERVICE_BIN, "mcp", "--client", "bench"},
                         {{"TOLVANGER_HOME", w.dir.file("home")}});
  mcp.exchange(json{{"jsonrpc", "2.0"},
                    {"id", 0},
                    {"method", "initialize"},
                    {"params", {{"protocolVersion", "2025-06-18"}}}}
                   .dump());
  int64_t id = 1;
  for (auto _ : state) {
    const auto line =
        mcp.exchange(json{{"jsonrpc", "2.0"},
                          {"id", id++},
                          {"method", "tools/call"},
                          {"params", {{"name", "list_credentials"}}}}
                         .dump());
    if (!line || line->find("upstream") == std::string::npos) {
      state.SkipWithError("no listing came back");
      break;
    }
  }
}
BENCHMARK(BM_ListCredentialsThroughMCP)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
