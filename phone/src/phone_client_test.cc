// Tests of the phone's clients: the plain client's reading of answers, the
// sentences a person reads, the records of what waits, the sealed road
// against a fake computer, and the curl transport against a local socket.
#include "tolvanger/phone/phone_client.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <set>
#include <thread>

#include "testing/fake_transport.h"
#include "tolvanger/kit/crypto/mldsa65.h"
#include "tolvanger/kit/crypto/p256.h"
#include "tolvanger/phone/sealed_road.h"

namespace tolvanger::phone {
namespace {

using nlohmann::json;
using std::chrono::milliseconds;

std::shared_ptr<FakeTransport> answering(long status, std::string body) {
  return std::make_shared<FakeTransport>([=](const HTTPCall&) {
    return HTTPAnswer{status, body};
  });
}

// The description of what `f` throws, or "no error".
std::string errorOf(const std::function<void()>& f) {
  try {
    f();
  } catch (const std::exception& e) {
    return e.what();
  }
  return "no error";
}

std::string sentenceOf(const std::function<void()>& f) {
  try {
    f();
  } catch (const std::exception& e) {
    return Failures::of(e).sentence;
  }
  return "no error";
}

TEST(PhoneClientTest, CallGoesByOkAndNotByStatus) {
  auto ok = answering(500, R"({"ok": true, "x": 1})");
  DaemonClient client("http://mac.local:8645/", milliseconds(100), ok);
  EXPECT_EQ(client.call("/v1/health", std::nullopt)["x"], 1);
  EXPECT_EQ(ok->calls[0].method, "GET");
  EXPECT_EQ(ok->calls[0].url, "http://mac.local:8645/v1/health");
  EXPECT_FALSE(ok->calls[0].body);
  EXPECT_EQ(ok->calls[0].timeout, milliseconds(100));

  client.call("/v1/deny", json{{"request_id", "r1"}});
  EXPECT_EQ(ok->calls[1].method, "POST");
  EXPECT_EQ(json::parse(*ok->calls[1].body)["request_id"], "r1");

  auto call = [](long status, std::string body) {
    return [=] {
      DaemonClient("http://m", milliseconds(100), answering(status, body))
          .call("/v1/health", std::nullopt);
    };
  };
  EXPECT_EQ(errorOf(call(200, R"({"ok": false})")), "the daemon refused (200)");
  EXPECT_EQ(sentenceOf(call(200, R"({"ok": false})")),
            "The daemon refused (200).");
  EXPECT_EQ(errorOf(call(400, R"({"ok": "true", "error": "no such route"})")),
            "no such route");
  for (const std::string& body :
       {std::string("<html>"), std::string("[1]"),
        std::string(100, '[') + std::string(100, ']')}) {
    EXPECT_EQ(errorOf(call(200, body)), "the daemon sent something unreadable");
  }
}

TEST(PhoneClientTest, AddressesBecomeBases) {
  EXPECT_EQ(DaemonClient::baseFor(" 192.168.1.4:8645\n"),
            "http://192.168.1.4:8645");
  EXPECT_EQ(DaemonClient::baseFor("tolvanger://pair"), "tolvanger://pair");
  EXPECT_EQ(DaemonClient::baseFor("http://mac.local"), "http://mac.local");
  EXPECT_FALSE(DaemonClient::baseFor("  \n"));
  EXPECT_FALSE(DaemonClient::baseFor("two words"));
}

TEST(PhoneClientTest, AnswersCarryTheirBodies) {
  auto fake = answering(200, R"({"ok": true, "state": "approved"})");
  DaemonClient client("http://m", milliseconds(100), fake);
  TolvangerRequest request;
  request.requestID = "r1";
  request.digest = "d1";
  const auto drawn = std::chrono::system_clock::time_point(milliseconds(1500));
  client.approve(request, "phone1", Bytes{1, 2}, Bytes{3}, drawn,
                 DrawnFrom::kPoll, json{{"kind", "cred"}});
  const json body = json::parse(*fake->calls[0].body);
  EXPECT_EQ(fake->calls[0].url, "http://m/v1/approve");
  EXPECT_EQ(body["device_id"], "phone1");
  EXPECT_EQ(body["digest"], "d1");
  EXPECT_EQ(body["signature"], "AQI=");
  EXPECT_EQ(body["signature_pq"], "Aw==");
  EXPECT_EQ(body["credential"]["kind"], "cred");
  EXPECT_EQ(body["timing"]["drawn_at"], 1500);
  EXPECT_EQ(body["timing"]["source"], "poll");
  EXPECT_TRUE(body["timing"]["posted_at"].is_number_integer());

  client.deny("r2", std::nullopt, DrawnFrom::kPush);
  const json denial = json::parse(*fake->calls[1].body);
  EXPECT_EQ(denial["request_id"], "r2");
  EXPECT_FALSE(denial["timing"].contains("drawn_at"));

  EXPECT_EQ(errorOf([&] { client.request("../x", {}, std::nullopt); }),
            "malformed request: that is not a request id");
}

TEST(PhoneClientTest, PendingListsSkipWhatTheyCannotRead) {
  const json answer = json::parse(R"({
    "ok": true,
    "pending": [{"request_id": "r1", "expires_at": 100},
                {"request_id": "r2"}, {"expires_at": 5}, 7,
                {"request_id": "r3", "expires_at": 200}],
    "nudge": {"id": "n1", "kind": "secret"},
    "allowances": [{"request_id": "r0", "name": "gh", "client": "claude",
                    "seconds_left": 30, "uses": 2},
                   {"request_id": "r9", "name": "gh", "seconds_left": 30}]})");
  const PendingList list = PendingList::from(answer, 1000);
  ASSERT_EQ(list.rows.size(), 2u);
  EXPECT_EQ(list.rows[1].id, "r3");
  EXPECT_EQ(list.rows[1].expiresAt, 200);
  EXPECT_FALSE(list.nudge);  // no expires_at
  ASSERT_TRUE(list.allowances);
  ASSERT_EQ(list.allowances->size(), 1u);
  EXPECT_EQ((*list.allowances)[0].until, 1030);
  EXPECT_EQ((*list.allowances)[0].uses, 2);
  EXPECT_EQ((*list.allowances)[0].secondsLeft(1040), 0);

  const PendingList clear =
      PendingList::from(json::parse(R"({"ok": true, "pending": [],
                      "nudge": {"id": "n", "kind": "k", "expires_at": 9}})"),
                        0);
  EXPECT_FALSE(clear.allowances);
  ASSERT_TRUE(clear.nudge);
  EXPECT_EQ(clear.nudge->expiresAt, 9);
}

TEST(FailuresTest, RefusalsSignersAndTransportsBecomeSentences) {
  EXPECT_EQ(Failures::finish("  that request has expired\n"),
            "That request has expired.");
  EXPECT_EQ(Failures::finish("done."), "Done.");
  EXPECT_EQ(Failures::finish(" \n\t"), "The daemon refused.");
  EXPECT_EQ(Failures::finish("élan"), "Élan.");
  EXPECT_EQ(Failures::of(RequestError::malformed("x")).detail,
            "malformed request: x");
  EXPECT_EQ(Failures::of(RequestError::unreachable("no road")).sentence,
            "No road.");
  // Each refused check says in its own words that nothing was signed.
  const std::set<std::string> refused = {
      Failures::of(RequestError::notCanonical()).sentence,
      Failures::of(RequestError::digestMismatch()).sentence,
      Failures::of(RequestError::notFromMyDaemon()).sentence};
  EXPECT_EQ(refused.size(), 3u);
  for (const std::string& sentence : refused) {
    EXPECT_TRUE(sentence.ends_with(" Nothing was signed.")) << sentence;
  }
  EXPECT_EQ(Failures::of(std::make_exception_ptr(42)).sentence,
            "Something went wrong.");

  for (const char* text : {"Error Code=-2 x", "USERCANCEL", "was Canceled",
                           "cancelled by user", "LAError -128"}) {
    const Failure failure = Failures::of(SignerError::sign(text));
    EXPECT_TRUE(failure.isCancellation) << text;
    EXPECT_EQ(failure.sentence, "");
  }
  const Failure biometry = Failures::of(SignerError::sign("biometry failed"));
  EXPECT_FALSE(biometry.isCancellation);
  EXPECT_EQ(biometry.sentence, "Face ID did not pass, so nothing was signed.");

  using Code = TransportError::Code;
  const auto said = [](Code code) {
    return Failures::of(TransportError(code, "raw")).sentence;
  };
  EXPECT_EQ(said(Code::kTimedOut),
            "The daemon did not answer. This phone is most likely on the wrong "
            "network.");
  EXPECT_EQ(said(Code::kNetworkConnectionLost),
            said(Code::kNotConnectedToInternet));
  std::set<std::string> distinct;
  for (Code code : {Code::kCannotFindHost, Code::kCannotConnectToHost,
                    Code::kTimedOut, Code::kNetworkConnectionLost,
                    Code::kUnsupportedURL, Code::kCancelled, Code::kOther}) {
    distinct.insert(said(code));
  }
  EXPECT_EQ(distinct.size(), 7u);
}

// A computer that answers the sealed road: it publishes a card signed by its
// keys, opens each sealed call and seals the route's answer back.
struct FakeMac {
  crypto::P256PrivateKey key = crypto::P256PrivateKey::generate();
  crypto::MLDSA65PrivateKey pq = crypto::MLDSA65PrivateKey::generate();
  crypto::XWingPrivateKey cloud = crypto::XWingPrivateKey::generate();
  crypto::XWingPrivateKey phone = crypto::XWingPrivateKey::generate();
  std::string daemonID = "tolvanger-test";
  int cardFetches = 0;
  std::vector<json> inner;
  // The route: the opened call in, {"status", "payload"} out.
  std::function<json(const json&)> route = [](const json&) {
    return json{{"status", 200}, {"payload", {{"ok", true}, {"pending", {}}}}};
  };
  // Rewrites the outer answer before it leaves.
  std::function<void(json&)> tamper = [](json&) {};

  HTTPAnswer operator()(const HTTPCall& call) {
    if (call.url.ends_with("/v1/card")) {
      ++cardFetches;
      json card = json::parse(CloudCard::json(
          daemonID, cloud.publicKey().raw(), 1700000000,
          [&](ByteView m) { return key.sign(m); },
          [&](ByteView m) { return pq.sign(m); }));
      card["ok"] = true;
      return {200, card.dump()};
    }
    const CloudEnvelope call_ = CloudEnvelope::fromJSON(*call.body);
    const SecretBytes opened = CloudSeal::open(call_, cloud);
    inner.push_back(
        json::parse(opened.reveal().begin(), opened.reveal().end()));
    const std::string reply = route(inner.back()).dump();
    json answer = {
        {"ok", true},
        {"sealed", CloudSeal::seal(asBytes(reply), phone.publicKey().raw(),
                                   "reply", call_.id)
                       .asDictionary()}};
    tamper(answer);
    return {200, answer.dump()};
  }
};

struct SealedRoadTest : ::testing::Test {
  FakeMac mac;
  std::shared_ptr<FakeTransport> fake = std::make_shared<FakeTransport>(
      [this](const HTTPCall& call) { return mac(call); });
  SealedRoad road{"http://m:8645",
                  mac.daemonID,
                  "phone1",
                  "s3cr3t\"",
                  mac.phone,
                  mac.key.publicKey().der(),
                  mac.pq.publicKey().raw(),
                  milliseconds(100),
                  fake};
};

TEST_F(SealedRoadTest, CallsTravelSealedWithTheDeviceInside) {
  road.pending();
  road.nudgeSeen("n1");
  EXPECT_EQ(mac.cardFetches, 1);
  ASSERT_EQ(mac.inner.size(), 2u);
  EXPECT_EQ(mac.inner[0], (json{{"body", json::object()},
                                {"device_id", "phone1"},
                                {"device_secret", "s3cr3t\""},
                                {"method", "GET"},
                                {"path", "/v1/pending"}}));
  EXPECT_EQ(mac.inner[1]["body"], (json{{"id", "n1"}}));
  const CloudEnvelope sent = CloudEnvelope::fromJSON(*fake->calls[1].body);
  EXPECT_EQ(sent.kind, "call");
  EXPECT_EQ(sent.id.size(), 32u);
  EXPECT_EQ(sent.id.find_first_not_of("0123456789abcdef"), std::string::npos);
  EXPECT_EQ(fake->calls[1].url, "http://m:8645/v1/sealed");
}

TEST_F(SealedRoadTest, ApprovalsCarryTheCredentialSealedApart) {
  TolvangerRequest request;
  request.requestID = "r1";
  request.digest = "d1";
  const std::string value = "tok\"en\n\\é";
  const CredentialOffer offer = CredentialOffer::forRequest(
      request, "github", "bearer", asBytes(value), 60, 0);
  road.approve(request, Bytes{1}, std::nullopt, &offer, std::nullopt,
               DrawnFrom::kPoll);
  const json body = mac.inner.at(0)["body"];
  EXPECT_EQ(body["request_id"], "r1");
  EXPECT_FALSE(body.contains("signature_pq"));
  const CloudEnvelope cred = CloudEnvelope::from(body["credential"]);
  EXPECT_EQ(cred.kind, "cred");
  EXPECT_EQ(cred.id, "r1");
  const SecretBytes opened = CloudSeal::open(cred, mac.cloud);
  const json plain =
      json::parse(opened.reveal().begin(), opened.reveal().end());
  EXPECT_EQ(plain["value"], value);
  EXPECT_EQ(plain["name"], "github");
  EXPECT_EQ(plain["request_id"], "r1");
  EXPECT_FALSE(plain.contains("hold_seconds"));

  TolvangerRequest other = request;
  other.requestID = "r2";
  EXPECT_THROW(road.approve(other, Bytes{1}, std::nullopt, &offer, std::nullopt,
                            DrawnFrom::kPoll),
               std::invalid_argument);
  const CredentialOffer empty =
      CredentialOffer::forRequest(request, "github", "bearer", {});
  EXPECT_THROW(empty.text(), std::invalid_argument);
}

TEST_F(SealedRoadTest, EveryFailureHasItsWords) {
  const std::pair<json, const char*> routes[] = {
      {{{"status", 400},
        {"payload", {{"ok", false}, {"error", "no such request"}}}},
       "no such request"},
      {{{"status", 200}, {"payload", {{"ok", false}}}}, "the Mac refused"},
      {{{"status", 200}}, "the reply did not decode"},
  };
  for (const auto& [reply, error] : routes) {
    mac.route = [&reply = reply](const json&) { return reply; };
    EXPECT_EQ(errorOf([&] { road.pending(); }), error);
  }
  mac.route = FakeMac().route;

  const std::pair<std::function<void(json&)>, const char*> tampers[] = {
      {[](json& a) {
         a = {{"ok", false}, {"error", "that device is not paired here"}};
       },
       "that device is not paired here"},
      {[](json& a) {
         a = {{"ok", true}};
       },
       "that was not a sealed reply"},
      {[](json& a) { a["sealed"]["id"] = "another"; },
       "that reply is not this call's"},
      {[](json& a) { a["sealed"]["kind"] = "notify"; },
       "that reply is not this call's"},
      // Sealed to a key that is not this phone's.
      {[&](json& a) {
         a["sealed"] =
             CloudSeal::seal(asBytes("{}"), mac.cloud.publicKey().raw(),
                             "reply", a["sealed"]["id"].get<std::string>())
                 .asDictionary();
       },
       "the reply did not decode"},
  };
  for (const auto& [tamper, error] : tampers) {
    mac.tamper = tamper;
    EXPECT_EQ(errorOf([&] { road.pending(); }), error);
  }
  mac.tamper = [](json&) {};

  auto unreadable = std::make_shared<FakeTransport>([](const HTTPCall&) {
    return HTTPAnswer{200, "not json"};
  });
  SealedRoad lost("http://m", "d", "p", "s", mac.phone, {}, std::nullopt,
                  milliseconds(100), unreadable);
  EXPECT_EQ(errorOf([&] { lost.pending(); }),
            "malformed request: that Mac sent something unreadable");
}

TEST_F(SealedRoadTest, CardsAreBelievedOnlyFromThePinnedMac) {
  EXPECT_EQ(road.refreshCard().key, mac.cloud.publicKey().raw());

  FakeMac impostor;  // signs with keys that are not pinned
  impostor.daemonID = mac.daemonID;
  auto fake2 = std::make_shared<FakeTransport>(
      [&](const HTTPCall& call) { return impostor(call); });
  SealedRoad fooled("http://m", mac.daemonID, "p", "s", mac.phone,
                    mac.key.publicKey().der(), mac.pq.publicKey().raw(),
                    milliseconds(100), fake2);
  EXPECT_EQ(errorOf([&] { fooled.pending(); }),
            "that Mac's card came back wrong");

  SealedRoad elsewhere("http://m", "another-mac", "p", "s", mac.phone,
                       mac.key.publicKey().der(), std::nullopt,
                       milliseconds(100), fake);
  EXPECT_EQ(errorOf([&] { elsewhere.refreshCard(); }),
            "that Mac's card came back wrong");
}

// A one-shot HTTP server on the loopback: answers the first connection with
// `reply` and records what it received.
class OneShotServer {
 public:
  explicit OneShotServer(std::string reply) {
    fd_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address);
    listen(fd_, 1);
    getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this, reply = std::move(reply)] {
      const int peer = accept(fd_, nullptr, nullptr);
      if (peer < 0) return;
      char buffer[4096];
      while (received_.find("\r\n\r\n") == std::string::npos) {
        const ssize_t n = read(peer, buffer, sizeof buffer);
        if (n <= 0) break;
        received_.append(buffer, static_cast<size_t>(n));
      }
      (void)!write(peer, reply.data(), reply.size());
      close(peer);
    });
  }
  ~OneShotServer() {
    shutdown(fd_, SHUT_RDWR);
    if (thread_.joinable()) thread_.join();
    close(fd_);
  }
  // What the server read, once it has answered.
  const std::string& received() {
    if (thread_.joinable()) thread_.join();
    return received_;
  }
  std::string url(std::string_view path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + std::string(path);
  }

 private:
  std::string received_;
  int fd_ = -1;
  int port_ = 0;
  std::thread thread_;
};

std::string httpReply(const std::string& body) {
  return "HTTP/1.1 400 Error\r\ncontent-type: application/json\r\n"
         "content-length: " +
         std::to_string(body.size()) + "\r\nconnection: close\r\n\r\n" + body;
}

TEST(CurlTransportTest, SpeaksPlainHTTPDirectly) {
  setenv("http_proxy", "http://127.0.0.1:1", 1);
  setenv("HTTP_PROXY", "http://127.0.0.1:1", 1);
  OneShotServer server(httpReply(R"({"ok":false})"));
  CurlTransport curl;
  const HTTPAnswer answer = curl.send(
      {"POST", server.url("/v1/deny"), R"({"a":1})", milliseconds(5000)});
  unsetenv("http_proxy");
  unsetenv("HTTP_PROXY");
  EXPECT_EQ(answer.status, 400);
  EXPECT_EQ(answer.body, R"({"ok":false})");
  const std::string& received = server.received();
  EXPECT_TRUE(received.starts_with("POST /v1/deny HTTP/1.1\r\n"));
  EXPECT_NE(received.find("content-type: application/json"), std::string::npos);
  EXPECT_EQ(received.find("Expect:"), std::string::npos);
}

TEST(CurlTransportTest, RefusesWhatItMustNotTake) {
  {
    OneShotServer server(httpReply(std::string(200, ' ') + "{}"));
    CurlTransport small(100);
    EXPECT_EQ(errorOf([&] {
                small.send(
                    {"GET", server.url("/"), std::nullopt, milliseconds(5000)});
              }),
              "the answer was larger than 100 bytes");
  }
  auto codeOf = [](const std::string& url) {
    try {
      CurlTransport().send({"GET", url, std::nullopt, milliseconds(2000)});
    } catch (const TransportError& e) {
      return e.code();
    }
    return TransportError::Code::kOther;
  };
  EXPECT_EQ(codeOf("https://127.0.0.1:1/"),
            TransportError::Code::kUnsupportedURL);
  EXPECT_EQ(codeOf("http://127.0.0.1:1/"),
            TransportError::Code::kCannotConnectToHost);
}

}  // namespace
}  // namespace tolvanger::phone
