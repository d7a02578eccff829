#include "tolvanger/service/runtime.h"

#include <string>

#include "tolvanger/kit/ascii.h"

namespace tolvanger::service {

namespace {}  // namespace

Runtime::Runtime(Home home, std::optional<Config> config,
                 UpstreamSettings upstream,
                 std::shared_ptr<CloudStore> cloudStore)
    : service_(std::make_unique<Service>(std::move(home), std::move(config))),
      broker_(std::make_unique<Broker>(*service_, std::move(upstream))) {
  routes_ = std::make_unique<Routes>(*service_);
  addresses_ = LocalAddress::resolve(service_->config.listen);
  http_ = std::make_unique<HTTPServer>(
      routes_->handler(), addresses_,
      static_cast<int>(service_->config.listenPort));
  service_->setListenAddresses(addresses_);
  socketPath_ = service_->home.socketPath();
  agents_ = std::make_unique<AgentSocket>(*service_, *broker_, socketPath_);
  if (service_->config.cloud.enabled) {
    if (!cloudStore) {
      cloudStore =
          storeForContainer(service_->config.cloud, service_->home, *service_);
    }
    cloud_ =
        std::make_shared<CloudRoad>(*service_, *routes_, std::move(cloudStore));
    service_->setCloudRoad(cloud_);
  }
}

Runtime::~Runtime() { stop(); }

void Runtime::start() {
  if (running_) return;
  agents_->start();
  try {
    http_->start();
  } catch (...) {
    agents_->stop();
    throw;
  }
  running_ = true;
  if (cloud_) cloud_->start();
  const Config& config = service_->config;
  service_->record("started", {{"socket", socketPath_},
                               {"listen", Ascii::join(addresses_, ",")},
                               {"port", config.listenPort},
                               {"sealed", config.requireSealed}});
}

void Runtime::stop() {
  if (!running_) return;
  running_ = false;
  if (cloud_) cloud_->stop();
  http_->stop();
  agents_->stop();
  // Allowances hold copies of values: they end, and say so, before the
  // credentials are wiped.
  service_->endAllowances("stopped");
  service_->scrubCredentials();
  service_->record("stopped", {});
}

}  // namespace tolvanger::service
