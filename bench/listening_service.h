// What the benches of the phone's roads stand on: a service in a temporary
// home whose phone listener serves on 127.0.0.1, with one software phone
// paired through the window, as the pair routes drive it.
#ifndef TOLVANGER_BENCH_LISTENING_SERVICE_H_
#define TOLVANGER_BENCH_LISTENING_SERVICE_H_

#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "harness.h"
#include "testing/paired_phone.h"
#include "testing/service_internals.h"
#include "tolvanger/service/http_server.h"
#include "tolvanger/service/routes.h"
#include "tolvanger/service/service.h"

namespace tolvanger::bench {

struct ListeningService {
  testing::TempDir dir;
  std::unique_ptr<service::Service> service;
  std::unique_ptr<service::Routes> routes;
  std::unique_ptr<service::HTTPServer> http;
  // Paired; its `secret` is set.
  service::Phone phone;
  int port = 0;

  ListeningService() {
    service::Config config = service::Config::defaults();
    config.listen = {"127.0.0.1"};
    port = service::FreePort::pick(20000 + ::getpid() % 12000, 200);
    config.listenPort = port;
    service = std::make_unique<service::Service>(
        service::Home(dir.file("home")), config);
    service->setListenAddresses({"127.0.0.1"});
    routes = std::make_unique<service::Routes>(*service);
    http = std::make_unique<service::HTTPServer>(
        routes->handler(), std::vector<std::string>{"127.0.0.1"}, port);
    http->start();
    phone.pair(*service);
  }

  // The listener's address as the phone's clients take it.
  std::string base() const {
    return "http://127.0.0.1:" + std::to_string(port);
  }
};

}  // namespace tolvanger::bench

#endif  // TOLVANGER_BENCH_LISTENING_SERVICE_H_
