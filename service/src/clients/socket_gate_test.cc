// The socket gate against a real service in this process: its agent socket
// in a temporary home, a software phone that answers, and a local HTTPS
// server as the upstream of brokered calls.
#include "tolvanger/service/socket_gate.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <memory>
#include <stdexcept>
#include <thread>

#include "https_upstream.h"
#include "testing/paired_phone.h"
#include "testing/service_internals.h"
#include "tolvanger/service/http_server.h"
#include "tolvanger/service/runtime.h"

namespace tolvanger::service {
namespace {

using nlohmann::json;
using tolvanger::testing::HTTPSUpstream;

class SocketGateTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Config config = Config::defaults();
    config.listen = {"127.0.0.1"};
    config.listenPort = FreePort::pick(20000 + ::getpid() % 12000, 200);
    config.cloud.enabled = false;
    upstream.writeCA(scratch.path + "/ca.pem");
    runtime = std::make_unique<Runtime>(
        Home(home.path), config, UpstreamSettings{scratch.path + "/ca.pem"});
    phone.pair(service());
    runtime->start();
  }

  Service& service() { return runtime->service(); }

  // The one request the gate has filed, once it is there.
  StoredRequest filed() {
    for (int i = 0; i < 1000; ++i) {
      const auto pending = ServiceInternals::store(service()).pending();
      if (!pending.empty()) return pending.front();
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    throw std::runtime_error("the gate filed no request");
  }

  void approve(const StoredRequest& r) {
    service().approve(phone.approve(service(), r));
  }

  TempHome home;
  TempHome scratch;
  HTTPSUpstream upstream;
  Phone phone;
  std::unique_ptr<Runtime> runtime;
  SocketGate gate{Home(home.path), "claude"};
};

TEST_F(SocketGateTest, AskEndsWithTheHumansAnswer) {
  auto asked = std::async(std::launch::async, [&] {
    return gate.ask("deploy", {{"env", "prod"}}, "ship it");
  });
  StoredRequest r = filed();
  EXPECT_EQ(r.fields.text("env"), "prod");
  EXPECT_EQ(r.fields.text("reason"), "ship it");
  EXPECT_EQ(r.fields.text("client"), "claude");
  approve(r);
  GateAnswer answer = asked.get();
  EXPECT_EQ(answer.state, Verdict::kApproved);
  EXPECT_EQ(answer.requestID, r.id);
  // The approval was redeemed, so it cannot be spent again.
  EXPECT_EQ(ServiceInternals::store(service()).get(r.id)->state,
            RequestState::kTaken);

  asked = std::async(std::launch::async, [&] {
    return gate.ask("deploy", json::object(), std::nullopt);
  });
  r = filed();
  service().deny(r.id, "lan");
  answer = asked.get();
  EXPECT_EQ(answer.state, Verdict::kDenied);
  EXPECT_EQ(answer.requestID, r.id);

  // A request the service will not file never waits.
  answer = gate.ask("", json::object(), std::nullopt);
  EXPECT_EQ(answer.state, Verdict::kFailed);
  EXPECT_EQ(answer.why, "that is not an operation name");
}

TEST_F(SocketGateTest, SendGivesTheUpstreamAnswerOnlyWhenApproved) {
  ServiceInternals::secrets(service()).replace(
      {SecretName{"api", "bearer", {upstream.netloc()}}});
  const auto sendOnce = [&] {
    return std::async(std::launch::async, [&] {
      return gate.send("api", "GET",
                       "https://" + upstream.netloc() + "/status/404",
                       std::map<std::string, std::string>{{"accept", "*/*"}},
                       std::nullopt, "read it");
    });
  };

  auto sending = sendOnce();
  StoredRequest r = filed();
  service().deny(r.id, "lan");
  Sent sent = sending.get();
  EXPECT_EQ(sent.state, Verdict::kDenied);
  EXPECT_EQ(sent.requestID, r.id);
  EXPECT_TRUE(upstream.received().empty());

  sending = sendOnce();
  r = filed();
  json envelope;
  service().approve(
      phone.approveWith(service(), r, "bearer", "tok-1", envelope));
  sent = sending.get();
  EXPECT_EQ(sent.state, Verdict::kApproved) << sent.why;
  EXPECT_EQ(sent.status, 404);
  EXPECT_EQ(sent.line(), "sent " + r.id + " — upstream 404");
  ASSERT_EQ(upstream.received().size(), 1u);
  EXPECT_EQ(upstream.received()[0].target, "/status/404");
}

// The session comes with the phone's next announcement, after the approval;
// the gate watches the listing for a new `signed_in_at`.
TEST_F(SocketGateTest, SignInWatchesForTheSession) {
  double slept = 0;
  std::function<void()> onSleep;
  SocketGate::Timing timing = SocketGate::Timing::system();
  const auto realNow = timing.now;
  timing.now = [&] { return realNow() + slept; };
  timing.sleep = [&](double seconds) {
    slept += seconds;
    if (onSleep) std::exchange(onSleep, nullptr)();
  };
  timing.sessionGrace = 5;
  SocketGate watching(Home(home.path), "claude", timing);
  const auto signIn = [&](std::optional<std::string> secret) {
    return std::async(std::launch::async, [&, secret] {
      return watching.signIn("https://mail.example/login", secret, "read mail");
    });
  };

  onSleep = [&] {
    ServiceInternals::secrets(service()).replace(
        {SecretName{.name = "mail.example",
                    .kind = "cookie",
                    .hosts = {"mail.example"},
                    .updatedAt = 100,
                    .signedInAt = 100,
                    .expiresBy = 1795416908}});
  };
  auto signing = signIn(std::nullopt);
  StoredRequest r = filed();
  approve(r);
  SignedIn in = signing.get();
  EXPECT_EQ(in.state, Verdict::kApproved) << in.why;
  EXPECT_EQ(in.requestID, r.id);
  EXPECT_EQ(in.secret, "mail.example");
  EXPECT_TRUE(in.arrived);
  EXPECT_EQ(in.expiresBy, 1795416908);

  // Renewing: the old session's row is there all along and is not taken
  // for the new one.
  slept = 0;
  signing = signIn("mail.example");
  r = filed();
  approve(r);
  in = signing.get();
  EXPECT_EQ(in.state, Verdict::kApproved) << in.why;
  EXPECT_FALSE(in.arrived);
  EXPECT_GE(slept, 4);

  signing = signIn(std::nullopt);
  r = filed();
  service().deny(r.id, "lan");
  in = signing.get();
  EXPECT_EQ(in.state, Verdict::kDenied);
  EXPECT_FALSE(in.arrived);
}

// A service that goes on saying "pending" is given up on at the request's
// end plus the grace, not waited on for ever.
TEST_F(SocketGateTest, APendingRequestPastItsEndIsGivenUpOn) {
  SocketGate::Timing late = SocketGate::Timing::system();
  const auto realNow = late.now;
  late.now = [&] { return realNow() + 86400; };
  SocketGate gateLater(Home(home.path), "claude", late);
  const GateAnswer answer =
      gateLater.ask("deploy", json::object(), std::nullopt);
  EXPECT_EQ(answer.state, Verdict::kExpired);
  EXPECT_EQ(ServiceInternals::store(service()).get(answer.requestID)->state,
            RequestState::kPending);
}

TEST_F(SocketGateTest, CredentialsComeFromTheListing) {
  EXPECT_TRUE(gate.credentials().empty());
  ServiceInternals::secrets(service()).replace(
      {SecretName{"api", "bearer", {"api.example"}},
       SecretName{"mail", "cookie", {"mail.example"}}});
  EXPECT_EQ(gate.credentials().size(), 2u);
  EXPECT_EQ(gate.row("mail").value()["hosts"], json({"mail.example"}));
  EXPECT_FALSE(gate.row("nope").has_value());
}

TEST_F(SocketGateTest, AServiceThatGoesAwayEndsTheWait) {
  auto asked = std::async(std::launch::async, [&] {
    return gate.ask("deploy", json::object(), std::nullopt);
  });
  filed();
  runtime->stop();
  const std::string unreachable =
      "tolvanger is not reachable at " + home.home().socketPath() + ": ";
  GateAnswer answer = asked.get();
  EXPECT_EQ(answer.state, Verdict::kFailed);
  EXPECT_EQ(answer.why.rfind(unreachable, 0), 0u) << answer.why;

  answer = gate.ask("deploy", json::object(), std::nullopt);
  EXPECT_EQ(answer.state, Verdict::kFailed);
  EXPECT_EQ(answer.why.rfind(unreachable, 0), 0u) << answer.why;
  const SignedIn in =
      gate.signIn("https://mail.example/", std::nullopt, std::nullopt);
  EXPECT_EQ(in.state, Verdict::kFailed);
  EXPECT_EQ(in.why.rfind(unreachable, 0), 0u) << in.why;
  EXPECT_THROW(gate.credentials(), GateError);
}

}  // namespace
}  // namespace tolvanger::service
