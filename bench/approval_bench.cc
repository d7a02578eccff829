// One full approval on the service's side (both signature checks, the
// credential envelope opened, the decision and the credential held) against
// the bare OpenSSL work it contains: a P-256 verify, an ML-DSA-65 verify and
// an HPKE open of the same envelope, measured in the same run.
#include <benchmark/benchmark.h>

#include <memory>

#include "harness.h"
#include "testing/service_internals.h"
#include "tolvanger/kit/cloud_seal.h"
#include "tolvanger/kit/crypto/mldsa65.h"
#include "tolvanger/kit/crypto/p256.h"
#include "tolvanger/kit/random.h"
#include "tolvanger/service/service.h"

namespace {

using nlohmann::json;
using namespace tolvanger;
using namespace tolvanger::service;

struct World {
  testing::TempDir dir;
  std::unique_ptr<Service> service;
  crypto::P256PrivateKey key = crypto::P256PrivateKey::generate();
  crypto::MLDSA65PrivateKey pq = crypto::MLDSA65PrivateKey::generate();

  World() {
    // Decided requests leave memory at the next sweep, so the store holds the
    // handful of requests a person deals with at a time rather than every
    // request of the run (each operation sweeps the whole store).
    Config config = Config::defaults();
    config.redeemGraceSeconds = -3601;
    service = std::make_unique<Service>(Home(dir.file("home")), config);
    Device phone;
    phone.deviceID = "phone-1";
    phone.name = "Bench Phone";
    phone.spki = key.publicKey().der();
    phone.pq = pq.publicKey().raw();
    phone.secret = Random::hex(24);
    phone.pairedAt = 1;
    ServiceInternals::devices(*service).put(phone);
    ServiceInternals::secrets(*service).replace(
        {SecretName{"sheets", "bearer", {"api.example"}, {}, 1}});
  }

  // A raised request and everything a phone sends to approve it.
  struct Ready {
    StoredRequest request;
    std::string bound;
    Bytes sig, sigPQ;
    json envelope;
  };
  Ready prepare() {
    RaiseOptions options;
    options.credentialName = "sheets";
    Ready r;
    r.request = service->raise("deploy", Fields{}, options);
    r.bound = service->binding(r.request);
    r.sig = key.sign(asBytes(r.bound));
    r.sigPQ = pq.sign(asBytes(r.bound));
    const std::string offer = json{{"request_id", r.request.id},
                                   {"name", "sheets"},
                                   {"kind", "bearer"},
                                   {"value", "token-" + Random::hex(16)}}
                                  .dump();
    r.envelope =
        CloudSeal::seal(
            asBytes(offer),
            ServiceInternals::identity(*service).cloudKey().publicKey(), "cred",
            r.request.id)
            .asDictionary();
    return r;
  }
};

World& world() {
  static World w;
  return w;
}

void BM_ServiceApprove(benchmark::State& state) {
  World& w = world();
  for (auto _ : state) {
    state.PauseTiming();
    World::Ready r = w.prepare();
    Approval a;
    a.requestID = r.request.id;
    a.deviceID = "phone-1";
    a.digest = r.request.digest;
    a.signatureBase64 = toBase64(r.sig);
    a.pqSignatureBase64 = toBase64(r.sigPQ);
    a.credentialEnvelope = &r.envelope;
    a.road = "lan";
    state.ResumeTiming();
    benchmark::DoNotOptimize(w.service->approve(a));
    state.PauseTiming();
    ServiceInternals::credentials(*w.service).take(r.request.id);
    state.ResumeTiming();
  }
}
BENCHMARK(BM_ServiceApprove)->Unit(benchmark::kMicrosecond);

void BM_BareVerifyAndOpen(benchmark::State& state) {
  // The same preparation between iterations as above, so both run with the
  // caches in the same state.
  World& w = world();
  const auto spki = crypto::P256PublicKey::fromDER(w.key.publicKey().der());
  const auto pqKey = crypto::MLDSA65PublicKey::fromRaw(w.pq.publicKey().raw());
  for (auto _ : state) {
    state.PauseTiming();
    const World::Ready r = w.prepare();
    const CloudEnvelope envelope = CloudEnvelope::from(r.envelope);
    state.ResumeTiming();
    benchmark::DoNotOptimize(spki->verify(asBytes(r.bound), r.sig));
    benchmark::DoNotOptimize(pqKey->verify(asBytes(r.bound), r.sigPQ));
    benchmark::DoNotOptimize(CloudSeal::open(
        envelope, ServiceInternals::identity(*w.service).cloudKey()));
  }
}
BENCHMARK(BM_BareVerifyAndOpen)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
