// Starts and stops a service's listeners and its cloud road in a fixed order
// and writes the journal's `started` and `stopped` lines.
//
// Thread safety: `start` and `stop` are called by one thread (the process's
// main thread); `service()` may be used from any thread once started.
#ifndef TOLVANGER_SERVICE_RUNTIME_H_
#define TOLVANGER_SERVICE_RUNTIME_H_

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tolvanger/kit/cloud_store.h"
#include "tolvanger/service/agent_socket.h"
#include "tolvanger/service/broker.h"
#include "tolvanger/service/cloud_road.h"
#include "tolvanger/service/config.h"
#include "tolvanger/service/home.h"
#include "tolvanger/service/http_server.h"
#include "tolvanger/service/routes.h"
#include "tolvanger/service/service.h"

namespace tolvanger::service {

class Runtime {
 public:
  // Builds the service and its broker, whose outgoing calls use `upstream`,
  // and, when the configuration enables it, the cloud road on `cloudStore`
  // or else on the store its container names; throws what the service's
  // construction throws.
  explicit Runtime(Home home, std::optional<Config> config = std::nullopt,
                   UpstreamSettings upstream = {},
                   std::shared_ptr<CloudStore> cloudStore = nullptr);
  ~Runtime();

  Runtime(const Runtime&) = delete;
  Runtime& operator=(const Runtime&) = delete;

  // Opens the agent socket, then the phone's HTTP listener, and writes
  // `started`. Throws ServiceError if one cannot be opened; whatever had
  // opened is closed again.
  void start();
  // Closes everything, scrubs what is held and writes `stopped`. Idempotent.
  void stop();

  Service& service() { return *service_; }
  Broker& broker() { return *broker_; }
  const std::string& socketPath() const { return socketPath_; }
  const std::vector<std::string>& addresses() const { return addresses_; }
  // The cloud road, when the configuration enables one.
  CloudRoad* cloud() { return cloud_.get(); }

 private:
  std::unique_ptr<Service> service_;
  std::unique_ptr<Broker> broker_;
  std::unique_ptr<Routes> routes_;
  std::unique_ptr<HTTPServer> http_;
  std::string socketPath_;
  std::unique_ptr<AgentSocket> agents_;
  std::vector<std::string> addresses_;
  // Last, so that it goes before what it uses.
  std::shared_ptr<CloudRoad> cloud_;
  bool running_ = false;
};

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_RUNTIME_H_
