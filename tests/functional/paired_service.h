// A fixture for the functional tests that begin the same way: the real
// service started in a new home, an admin connection, and the software phone
// paired with it through the window.
#ifndef TOLVANGER_TESTS_FUNCTIONAL_PAIRED_SERVICE_H_
#define TOLVANGER_TESTS_FUNCTIONAL_PAIRED_SERVICE_H_

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "harness.h"

namespace tolvanger::testing {

class PairedServiceTest : public ::testing::Test {
 protected:
  // Inits the home, gives it a free port, runs the service with `args`
  // (`serve --quiet` when empty), says hello as admin and pairs the phone.
  // A failed step fails the test: call it under ASSERT_NO_FATAL_FAILURE.
  void startPaired(std::vector<std::string> args = {}) {
    home_ = dir_.file("mac");
    phoneHome_ = dir_.file("phone");
    ASSERT_EQ(runService(home_, {"init", "--quiet"}), 0);
    port_ = useFreePort(home_);
    if (args.empty()) args = {"serve", "--quiet"};
    service_ = std::make_unique<ServiceProcess>(home_, std::move(args));
    ASSERT_TRUE(service_->waitForSocket());
    admin_ = std::make_unique<SocketClient>(service_->socketPath());
    ASSERT_EQ(admin_->call({{"op", "hello"}, {"role", "admin"}})["ok"], true);
    const Ran paired = pairPhone(*admin_, phoneHome_, port_);
    ASSERT_EQ(paired.status, 0) << paired.err;
  }

  // Adds a bearer secret for `host` on the phone.
  void addSecret(const std::string& name, const std::string& host) {
    const Ran added = runPhone(phoneHome_, {"secrets", "add", name, "--kind",
                                            "bearer", "--host", host});
    ASSERT_EQ(added.status, 0) << added.err;
  }

  TempDir dir_;
  std::string home_, phoneHome_;
  int port_ = 0;
  std::unique_ptr<ServiceProcess> service_;
  std::unique_ptr<SocketClient> admin_;
};

}  // namespace tolvanger::testing

#endif  // TOLVANGER_TESTS_FUNCTIONAL_PAIRED_SERVICE_H_
