// The brokered call end to end: a request raised through the broker, approved
// by a software phone with a credential, and performed against a local HTTPS
// server that trusts nothing but its own CA.
#include <gtest/gtest.h>

#include <functional>

#include "https_upstream.h"
#include "testing/paired_phone.h"
#include "testing/service_internals.h"
#include "tolvanger/kit/service_error.h"
#include "tolvanger/service/broker.h"
#include "tolvanger/service/service.h"

namespace tolvanger::service {
namespace {

using nlohmann::json;
using tolvanger::testing::HTTPSUpstream;

constexpr const char* kToken = "tok-5f1c9e2a7b";

class BrokerPerformTest : public ::testing::Test {
 protected:
  void SetUp() override {
    caFile = scratch.path + "/ca.pem";
    upstream.writeCA(caFile);
    service = std::make_unique<Service>(Home(home.path));
    broker = std::make_unique<Broker>(*service, UpstreamSettings{caFile});
    phone.pair(*service);
    pinTo({upstream.netloc()});
  }

  void pinTo(std::vector<std::string> hosts) {
    ServiceInternals::secrets(*service).replace(
        {SecretName{"api", "bearer", std::move(hosts)}});
  }

  std::string url(const std::string& path) const {
    return "https://" + upstream.netloc() + path;
  }

  // Raises a brokered request and gives its id.
  std::string raise(json request) {
    request["secret"] = "api";
    Broker::Ask ask;
    ask.request = std::move(request);
    ask.agent = "test";
    ask.client = "claude";
    return broker->request(ask)["request_id"];
  }

  // Raises, approves with the credential, and gives the id.
  std::string approved(json request) {
    const std::string id = raise(std::move(request));
    json envelope;
    service->approve(
        phone.approveWith(*service, *ServiceInternals::store(*service).get(id),
                          "bearer", kToken, envelope));
    return id;
  }

  json get(const std::string& path) {
    return broker->perform(approved({{"method", "GET"}, {"url", url(path)}}));
  }

  std::string refusal(const std::string& id) {
    try {
      broker->perform(id);
    } catch (const ServiceError& e) {
      return e.what();
    }
    return "(performed)";
  }

  bool stillApproved(const std::string& id) {
    return ServiceInternals::store(*service).get(id)->state ==
               RequestState::kApproved &&
           service->credentialWaiting(id);
  }

  TempHome home;
  TempHome scratch;
  std::string caFile;
  HTTPSUpstream upstream;
  std::unique_ptr<Service> service;
  std::unique_ptr<Broker> broker;
  Phone phone;
};

TEST_F(BrokerPerformTest, SendsTheApprovedCallAsFiledWithTheCredential) {
  const std::string id =
      approved({{"method", "POST"},
                {"url", url("/v1/caf%C3%A9?q=a%20b")},
                {"headers", {{"X-Trace", "7"}, {"Authorization", ""}}},
                {"body", "hello"}});
  const json reply = broker->perform(id);
  EXPECT_EQ(reply["request_id"], id);
  EXPECT_EQ(reply["status"], 200);
  EXPECT_EQ(reply["body"], R"({"ok":true})");
  EXPECT_EQ(reply["truncated"], false);
  EXPECT_FALSE(reply.contains("redirected"));
  EXPECT_EQ(reply["headers"]["content-type"], "application/json");

  ASSERT_EQ(upstream.received().size(), 1u);
  const HTTPSUpstream::Received got = upstream.received()[0];
  EXPECT_EQ(got.method, "POST");
  EXPECT_EQ(got.target, "/v1/caf%C3%A9?q=a%20b");
  EXPECT_EQ(got.body, "hello");
  EXPECT_EQ(got.headers.at("authorization"), std::string("Bearer ") + kToken);
  EXPECT_EQ(got.headers.at("x-trace"), "7");
  // Nothing the person did not see: no defaults of the client library.
  for (const char* added : {"accept", "content-type", "expect", "cookie"}) {
    EXPECT_FALSE(got.headers.contains(added)) << added;
  }
}

TEST_F(BrokerPerformTest, RefusesWhatIsNotAnApprovedBrokeredRequest) {
  EXPECT_EQ(refusal("r0000000000000000"), "no request under that id");

  const std::string pending = raise({{"method", "GET"}, {"url", url("/")}});
  EXPECT_EQ(refusal(pending), "that request is pending");

  const StoredRequest gate = service->raise("deploy", Fields{});
  EXPECT_EQ(refusal(gate.id),
            "that approval was not for a brokered request \u2014 gate-mode "
            "approvals are redeemed, not performed");

  // A call filed under an operation this build does not perform.
  const StoredRequest filed = *ServiceInternals::store(*service).get(
      raise({{"method", "GET"}, {"url", url("/")}}));
  RaiseOptions options;
  options.credentialName = "api";
  options.wire = filed.http;
  const StoredRequest other = service->raise("deploy", filed.fields, options);
  json envelope;
  service->approve(
      phone.approveWith(*service, other, "bearer", kToken, envelope));
  EXPECT_EQ(refusal(other.id), "no such operation");
  EXPECT_TRUE(upstream.received().empty());
}

TEST_F(BrokerPerformTest, TheBodyIsCappedAndTheCapIsReported) {
  const json whole = get("/bytes/262144");
  EXPECT_EQ(whole["truncated"], false);
  EXPECT_EQ(whole["body"].get<std::string>().size(), 262144u);

  const json cut = get("/bytes/262145");
  EXPECT_EQ(cut["truncated"], true);
  EXPECT_EQ(cut["body"].get<std::string>(), std::string(262144, 'a'));
}

TEST_F(BrokerPerformTest, AnswersComeBackAsTheyAreWithoutCookies) {
  const json cookies = get("/cookie");
  EXPECT_EQ(cookies["status"], 200);
  for (const auto& [name, value] : cookies["headers"].items()) {
    EXPECT_NE(name.rfind("set-cookie", 0), 0u) << name;
  }
  EXPECT_TRUE(cookies["headers"].contains("content-type"));

  const json failed = get("/status/500");
  EXPECT_EQ(failed["status"], 500);
  EXPECT_FALSE(failed.contains("redirected"));
  EXPECT_EQ(upstream.received().size(), 2u);
}

TEST_F(BrokerPerformTest, AStoredWireChangedAfterSigningNeverGoesOut) {
  const std::string id = approved(
      {{"method", "GET"}, {"url", url("/a")}, {"headers", {{"X-Trace", "7"}}}});
  const StoredRequest original = *ServiceInternals::store(*service).get(id);
  const std::vector<std::function<void(Wire&)>> changes = {
      [](Wire& w) { w.path = "/b"; },
      [](Wire& w) { w.headers["x-extra"] = "1"; },
      [](Wire& w) { w.headers.erase("x-trace"); },
      [](Wire& w) {
        w.headers.erase("x-trace");
        w.headers["x-trade"] = "7";
      },
  };
  for (size_t i = 0; i < changes.size(); ++i) {
    StoredRequest changed = original;
    changes[i](*changed.http);
    ServiceInternals::store(*service).put(changed);
    EXPECT_EQ(refusal(id), "the stored request is not the one that was signed")
        << i;
  }
  EXPECT_TRUE(upstream.received().empty());
  ASSERT_TRUE(stillApproved(id));

  // Nothing was spent: the untouched request still performs.
  ServiceInternals::store(*service).put(original);
  EXPECT_EQ(broker->perform(id)["status"], 200);
}

// A signed text that never held one of the call's structural fields signed
// nothing about it: the call is refused as surely as one that differs.
TEST_F(BrokerPerformTest, ASignedTextLackingAStructuralFieldNeverGoesOut) {
  const StoredRequest filed = *ServiceInternals::store(*service).get(
      raise({{"method", "POST"},
             {"url", url("/a")},
             {"headers", {{"X-Trace", "7"}}},
             {"body", "hello"}}));
  for (const char* key : {"method", "host", "path", "headers", "body_sha256",
                          "body_bytes", "body_text"}) {
    ASSERT_TRUE(filed.fields.get(key)) << key;
    Fields fields = filed.fields;
    fields.remove(key);
    RaiseOptions options;
    options.credentialName = "api";
    options.wire = filed.http;
    const StoredRequest r = service->raise(std::string(Broker::kOperation),
                                           std::move(fields), options);
    json envelope;
    service->approve(
        phone.approveWith(*service, r, "bearer", kToken, envelope));
    EXPECT_EQ(refusal(r.id),
              "the stored request is not the one that was signed")
        << key;
  }
  EXPECT_TRUE(upstream.received().empty());
}

TEST_F(BrokerPerformTest, PinsRemovedAfterApprovalWin) {
  const std::string id = approved({{"method", "GET"}, {"url", url("/")}});
  pinTo({"elsewhere.example"});
  EXPECT_EQ(refusal(id).rfind("the api credential may only reach", 0), 0u);
  pinTo({});
  EXPECT_EQ(refusal(id).rfind("nothing says where api may be sent", 0), 0u);
  EXPECT_TRUE(upstream.received().empty());
  EXPECT_TRUE(stillApproved(id));
}

TEST_F(BrokerPerformTest, ACredentialGoneLeavesTheApprovalSpent) {
  const std::string id = approved({{"method", "GET"}, {"url", url("/")}});
  ServiceInternals::credentials(*service).discard(id);
  EXPECT_EQ(refusal(id), kCredentialGone);
  EXPECT_EQ(refusal(id), "that approval was already spent");
  EXPECT_TRUE(upstream.received().empty());
}

TEST_F(BrokerPerformTest, AnUntrustedServerFailsAndSpendsTheApproval) {
  broker = std::make_unique<Broker>(*service, UpstreamSettings{});
  const std::string id = approved({{"method", "GET"}, {"url", url("/")}});
  const std::string sentence = refusal(id);
  EXPECT_EQ(
      sentence.rfind("the upstream call did not complete (curl error ", 0), 0u)
      << sentence;
  EXPECT_TRUE(sentence.ends_with(
      ") \u2014 the approval is spent, so a retry needs a new one"))
      << sentence;
  EXPECT_TRUE(upstream.received().empty());
  EXPECT_FALSE(service->credentialWaiting(id));
  EXPECT_EQ(refusal(id), "that approval was already spent");
}

}  // namespace
}  // namespace tolvanger::service
