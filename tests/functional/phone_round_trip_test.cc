// The round trip with two real processes and real TCP: the service, the
// software phone pairing with it and answering requests that an agent raised
// over the socket; and a proxy that rewrites a payload on the way.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <regex>
#include <string>
#include <thread>

#include "harness.h"

namespace tolvanger::testing {
namespace {

using nlohmann::json;

class PhoneRoundTrip : public ::testing::Test {
 protected:
  void start(bool sealed) {
    home_ = dir_.file("mac");
    phoneHome_ = dir_.file("phone");
    ASSERT_EQ(runService(home_, {"init", "--quiet"}), 0);
    port_ = useFreePort(home_);
    if (!sealed) {
      json config = json::parse(readFile(home_ + "/config.json"));
      config["require_sealed"] = false;
      std::ofstream(home_ + "/config.json") << config.dump(2);
    }
    service_ = std::make_unique<ServiceProcess>(home_);
    ASSERT_TRUE(service_->waitForSocket());
    admin_ = std::make_unique<SocketClient>(service_->socketPath());
    ASSERT_EQ(admin_->call({{"op", "hello"}, {"role", "admin"}})["ok"], true);
  }

  void pair(int port) {
    const Ran paired = pairPhone(*admin_, phoneHome_, port);
    ASSERT_EQ(paired.status, 0) << paired.err;
  }

  TempDir dir_;
  std::string home_, phoneHome_;
  int port_ = 0;
  std::unique_ptr<ServiceProcess> service_;
  std::unique_ptr<SocketClient> admin_;
};

TEST_F(PhoneRoundTrip, AgentRaisesThePhoneApprovesAndDeniesOverTheSealedRoad) {
  start(/*sealed=*/true);
  pair(port_);
  EXPECT_EQ(admin_->call({{"op", "status"}})["devices"].size(), 1u);

  SocketClient agent(service_->socketPath());
  agent.call({{"op", "hello"}, {"client", "claude"}});
  const json opened = agent.call({{"op", "request"},
                                  {"operation", "deploy.prod"},
                                  {"fields", {{"reason", "ship it"}}}});
  ASSERT_EQ(opened["ok"], true) << opened;
  const std::string id = opened["request_id"];

  const Ran pending = runPhone(phoneHome_, {"pending"});
  ASSERT_EQ(pending.status, 0) << pending.err;
  EXPECT_NE(pending.out.find(id), std::string::npos) << pending.out;
  const Ran shown = runPhone(phoneHome_, {"show", id});
  ASSERT_EQ(shown.status, 0) << shown.err;
  EXPECT_NE(shown.out.find("deploy.prod"), std::string::npos) << shown.out;
  EXPECT_NE(shown.out.find("ship it"), std::string::npos) << shown.out;

  const Ran approved = runPhone(phoneHome_, {"approve", id}, "approve\n");
  ASSERT_EQ(approved.status, 0) << approved.err;
  EXPECT_EQ(agent.call({{"op", "poll"}, {"id", id}, {"wait", 5}})["state"],
            "approved");
  const json redeemed = agent.call({{"op", "redeem"}, {"id", id}});
  EXPECT_EQ(redeemed["state"], "approved");
  EXPECT_NE(redeemed["device_id"], "");

  // A denial reaches a subscribed agent as an event.
  EXPECT_EQ(agent.call({{"op", "subscribe"}})["subscribed"], true);
  const std::string second = agent.call(
      {{"op", "request"}, {"operation", "deploy.prod"}})["request_id"];
  const Ran denied = runPhone(phoneHome_, {"deny", second});
  ASSERT_EQ(denied.status, 0) << denied.err;
  const auto event = agent.readLine();
  ASSERT_TRUE(event.has_value());
  EXPECT_EQ(*event, (json{{"event", "decided"},
                          {"ok", true},
                          {"request_id", second},
                          {"state", "denied"}}));

  ASSERT_EQ(service_->stop(), 0);
  const std::string journal = readFile(home_ + "/journal.log");
  EXPECT_TRUE(std::regex_search(
      journal, std::regex(" paired device=\\S+ fingerprint=")));
  EXPECT_NE(journal.find(" approved client=claude credential=- device="),
            std::string::npos);
  EXPECT_NE(
      journal.find(" denied client=claude request=" + second + " road=lan"),
      std::string::npos);
  EXPECT_NE(journal.find(" redeemed client=claude request=" + id),
            std::string::npos);
}

// A proxy that forwards each HTTP exchange and flips one byte of any answer
// that carries a request's canonical text.
class TamperingProxy {
 public:
  explicit TamperingProxy(int upstream) : upstream_(upstream) {
    listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(listener_, reinterpret_cast<sockaddr*>(&a), sizeof(a));
    socklen_t len = sizeof(a);
    ::getsockname(listener_, reinterpret_cast<sockaddr*>(&a), &len);
    port_ = ntohs(a.sin_port);
    ::listen(listener_, 16);
    thread_ = std::thread([this] { run(); });
  }
  ~TamperingProxy() {
    ::shutdown(listener_, SHUT_RDWR);
    thread_.join();
    ::close(listener_);
  }
  int port() const { return port_; }
  int tampered() const { return tampered_; }

 private:
  static std::string readAll(int fd) {
    std::string out;
    char buf[8192];
    for (ssize_t n; (n = ::recv(fd, buf, sizeof(buf), 0)) > 0;)
      out.append(buf, n);
    return out;
  }
  void run() {
    for (int client; (client = ::accept(listener_, nullptr, nullptr)) >= 0;) {
      const int up = ::socket(AF_INET, SOCK_STREAM, 0);
      // The service's answer ends with its connection; one that never does
      // must not hold the test.
      const struct timeval limit = {10, 0};
      ::setsockopt(up, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
      struct sockaddr_in a = {};
      a.sin_family = AF_INET;
      a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      a.sin_port = htons(static_cast<uint16_t>(upstream_));
      if (::connect(up, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0) {
        // One request a connection: read until the client's head and body
        // are through (it waits for the answer), forward, and answer.
        std::string request;
        char buf[8192];
        struct pollfd p = {client, POLLIN, 0};
        while (::poll(&p, 1, 300) > 0) {
          const ssize_t n = ::recv(client, buf, sizeof(buf), 0);
          if (n <= 0) break;
          request.append(buf, n);
        }
        ::send(up, request.data(), request.size(), MSG_NOSIGNAL);
        std::string answer = readAll(up);
        const auto at = answer.find("\\\"operation\\\":\\\"deploy");
        if (at != std::string::npos) {
          answer[at + std::string("\\\"operation\\\":\\\"").size()] = 'D';
          ++tampered_;
        }
        ::send(client, answer.data(), answer.size(), MSG_NOSIGNAL);
      }
      ::close(up);
      ::close(client);
    }
  }
  int upstream_;
  int listener_ = -1;
  int port_ = 0;
  std::atomic<int> tampered_{0};
  std::thread thread_;
};

TEST_F(PhoneRoundTrip, ARewrittenPayloadIsRefusedAndNothingIsSigned) {
  start(/*sealed=*/false);
  TamperingProxy proxy(port_);
  pair(proxy.port());
  SocketClient agent(service_->socketPath());
  agent.call({{"op", "hello"}});
  const std::string id = agent.call(
      {{"op", "request"}, {"operation", "deploy.prod"}})["request_id"];

  const Ran shown = runPhone(phoneHome_, {"--clear", "show", id});
  EXPECT_NE(shown.status, 0);
  EXPECT_NE(shown.err.find("digest is not the one these bytes hash to"),
            std::string::npos)
      << shown.err;
  const Ran approved =
      runPhone(phoneHome_, {"--clear", "approve", id}, "approve\n");
  EXPECT_NE(approved.status, 0);
  EXPECT_GE(proxy.tampered(), 2);
  EXPECT_EQ(agent.call({{"op", "poll"}, {"id", id}})["state"], "pending");
}

}  // namespace
}  // namespace tolvanger::testing
