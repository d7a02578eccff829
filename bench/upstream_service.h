// What the brokered-call benches stand on: the whole service running in this
// process with a paired phone made of software keys, one bearer secret,
// "upstream", pinned to a local HTTPS server with a test CA, and an agent
// connection that has said hello.
#ifndef TOLVANGER_BENCH_UPSTREAM_SERVICE_H_
#define TOLVANGER_BENCH_UPSTREAM_SERVICE_H_

#include <unistd.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "harness.h"
#include "https_upstream.h"
#include "testing/service_internals.h"
#include "tolvanger/kit/crypto/mldsa65.h"
#include "tolvanger/kit/crypto/p256.h"
#include "tolvanger/kit/random.h"
#include "tolvanger/service/http_server.h"
#include "tolvanger/service/runtime.h"

namespace tolvanger::bench {

struct UpstreamService {
  testing::TempDir dir;
  testing::HTTPSUpstream upstream;
  std::unique_ptr<service::Runtime> runtime;
  // The phone's keys, to sign approvals with.
  crypto::P256PrivateKey key = crypto::P256PrivateKey::generate();
  crypto::MLDSA65PrivateKey pq = crypto::MLDSA65PrivateKey::generate();
  std::unique_ptr<testing::SocketClient> agent;

  UpstreamService() {
    using namespace service;
    upstream.writeCA(dir.file("ca.pem"));
    Config config = Config::defaults();
    config.listen = {"127.0.0.1"};
    config.listenPort = FreePort::pick(20000 + (::getpid() % 12000), 200);
    runtime = std::make_unique<Runtime>(Home(dir.file("home")), config,
                                        UpstreamSettings{dir.file("ca.pem")});
    Service& s = runtime->service();
    Device phone;
    phone.deviceID = "phone-1";
    phone.name = "Bench Phone";
    phone.spki = key.publicKey().der();
    phone.pq = pq.publicKey().raw();
    phone.secret = Random::hex(24);
    phone.pairedAt = 1;
    ServiceInternals::devices(s).put(phone);
    ServiceInternals::secrets(s).replace(
        {SecretName{"upstream", "bearer", {upstream.netloc()}, {}, 1}});
    runtime->start();
    agent = std::make_unique<testing::SocketClient>(runtime->socketPath());
    agent->call({{"op", "hello"}, {"client", "bench"}});
  }
  ~UpstreamService() { runtime->stop(); }

  // The URL of the upstream's one route.
  std::string itemsURL() const {
    return "https://" + upstream.netloc() + "/v1/items";
  }
};

}  // namespace tolvanger::bench

#endif  // TOLVANGER_BENCH_UPSTREAM_SERVICE_H_
