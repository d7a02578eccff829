// Starts and stops a service's listeners in a fixed order and writes the
// journal's `started` and `stopped` lines.
//
// Thread safety: `start` and `stop` are called by one thread (the process's
// main thread); `service()` may be used from any thread once started.
#ifndef TOLVANGER_SERVICE_RUNTIME_H_
#define TOLVANGER_SERVICE_RUNTIME_H_

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tolvanger/service/agent_socket.h"
#include "tolvanger/service/broker.h"
#include "tolvanger/service/config.h"
#include "tolvanger/service/home.h"
#include "tolvanger/service/http_server.h"
#include "tolvanger/service/routes.h"
#include "tolvanger/service/service.h"

namespace tolvanger::service {

class Runtime {
 public:
  // Builds the service and its broker, whose outgoing calls use `upstream`;
  // throws what the service's construction throws.
  explicit Runtime(Home home, std::optional<Config> config = std::nullopt,
                   UpstreamSettings upstream = {});
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

 private:
  std::unique_ptr<Service> service_;
  std::unique_ptr<Broker> broker_;
  std::unique_ptr<Routes> routes_;
  std::unique_ptr<HTTPServer> http_;
  std::string socketPath_;
  std::unique_ptr<AgentSocket> agents_;
  std::vector<std::string> addresses_;
  bool running_ = false;
};

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_RUNTIME_H_
