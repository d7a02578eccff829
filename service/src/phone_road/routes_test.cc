// Tests of the phone routes against a real service in a temporary home and a
// software phone with real keys, in the clear and sealed.
#include "tolvanger/service/routes.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>

#include "testing/service_internals.h"
#include "testing/temp_home.h"
#include "tolvanger/kit/cloud_seal.h"
#include "tolvanger/kit/crypto/mldsa65.h"
#include "tolvanger/kit/crypto/p256.h"
#include "tolvanger/kit/crypto/xwing.h"

namespace tolvanger::service {
namespace {

using nlohmann::json;

constexpr const char* kGate = "this Mac only answers that on the sealed road";

struct Phone {
  std::string id = "phone-1";
  crypto::P256PrivateKey key = crypto::P256PrivateKey::generate();
  crypto::MLDSA65PrivateKey pq = crypto::MLDSA65PrivateKey::generate();
  crypto::XWingPrivateKey cloud = crypto::XWingPrivateKey::generate();

  json keys(json body) const {
    body["device_id"] = id;
    body["public_key"] = toBase64(key.publicKey().der());
    body["public_key_pq"] = toBase64(pq.publicKey().raw());
    body["cloud_public_key"] = toBase64(cloud.publicKey().raw());
    return body;
  }

  // Opens an answer sealed to this phone, as `{"ok": true, "sealed": ...}`.
  json open(const json& answer, std::string_view kind,
            std::string_view envelopeID) const {
    const CloudEnvelope envelope = CloudEnvelope::from(answer.at("sealed"));
    EXPECT_EQ(envelope.kind, kind);
    EXPECT_EQ(envelope.id, envelopeID);
    const SecretBytes plain = CloudSeal::open(envelope, cloud);
    return json::parse(toString(plain.reveal()));
  }
};

struct Rig {
  explicit Rig(bool requireSealed)
      : service(Home(home.path),
                [&] {
                  Config config = Config::defaults();
                  config.requireSealed = requireSealed;
                  return config;
                }()),
        routes(service) {}

  RouteResult clear(std::string_view method, std::string_view path,
                    const json& body = json::object()) {
    return routes.handle(method, path, body.dump());
  }

  // Seals `inner` as a phone does and posts it to the sealed route.
  RouteResult send(const json& inner, std::string_view kind = "call",
                   std::optional<Bytes> to = std::nullopt) {
    const Bytes key =
        to ? *to
           : ServiceInternals::identity(service).cloudKey().publicKey().raw();
    const CloudEnvelope envelope =
        CloudSeal::seal(asBytes(inner.dump()), key, kind, "c1");
    return clear("POST", "/v1/sealed", envelope.asDictionary());
  }

  // One sealed call from the paired phone: the inner status and payload.
  json call(std::string_view method, std::string_view path,
            const json& body = json::object()) {
    const RouteResult outer = send(json{{"device_id", phone.id},
                                        {"device_secret", secret},
                                        {"method", method},
                                        {"path", path},
                                        {"body", body}});
    EXPECT_EQ(outer.status, 200) << outer.payload.dump();
    return phone.open(outer.payload, "reply", "c1");
  }

  // Pairs `phone` through the clear routes; gives the opened answer.
  json pair() {
    const std::string url =
        ServiceInternals::pairing(service).open("192.168.1.20").url;
    const std::string token = url.substr(url.find("&t=") + 3, 32);
    const RouteResult offer =
        clear("POST", "/v1/pair", phone.keys({{"token", token}}));
    EXPECT_EQ(offer.status, 200) << offer.payload.dump();
    EXPECT_EQ(offer.payload["choices"].size(), 3u);
    const RouteResult confirmed =
        clear("POST", "/v1/pair/confirm",
              {{"token", token},
               {"code", ServiceInternals::pairing(service).session()->code}});
    EXPECT_EQ(confirmed.status, 200) << confirmed.payload.dump();
    json answer = phone.open(confirmed.payload, "pairing", phone.id);
    secret = answer.value("device_secret", "");
    return answer;
  }

  std::string journal() {
    std::string all;
    for (const auto& line : ServiceInternals::journal(service).tail(100))
      all += line + "\n";
    return all;
  }

  json approval(const StoredRequest& request) const {
    const std::string bound = service.binding(request);
    return {{"request_id", request.id},
            {"device_id", phone.id},
            {"digest", request.digest},
            {"signature", toBase64(phone.key.sign(asBytes(bound)))},
            {"signature_pq", toBase64(phone.pq.sign(asBytes(bound)))}};
  }

  TempHome home;
  Service service;
  Routes routes;
  Phone phone;
  std::string secret;
};

TEST(Routes, GateLetsOnlyPairingAndSealedCallsThroughInTheClear) {
  Rig rig(/*requireSealed=*/true);
  for (const char* path : {"/v1/pending", "/v1/nothing"}) {
    const RouteResult refused = rig.clear("GET", path);
    EXPECT_EQ(refused.status, 400) << path;
    EXPECT_EQ(refused.payload, json({{"ok", false}, {"error", kGate}}));
  }
  EXPECT_EQ(rig.clear("POST", "/v1/sealedx").status, 404);
  EXPECT_EQ(rig.routes.handle("POST", "/v1/pair", "[1]").payload["error"],
            "that is not json");
  const std::string deep =
      "{\"a\":" + std::string(100, '[') + std::string(100, ']') + "}";
  EXPECT_EQ(rig.routes.handle("POST", "/v1/pair", deep).payload["error"],
            "that is not json");

  const json paired = rig.pair();
  EXPECT_EQ(paired["paired"], true);
  EXPECT_EQ(paired["recovery_codes"].size(), 10u);
  EXPECT_NE(rig.journal().find(" paired device=phone-1 "), std::string::npos);

  // A recovery takes the slot with new keys and answers sealed to them.
  Phone lost;
  const RouteResult recovered = rig.clear(
      "POST", "/v1/recover",
      lost.keys({{"code", paired["recovery_codes"][0]}, {"name", "New"}}));
  ASSERT_EQ(recovered.status, 200) << recovered.payload.dump();
  EXPECT_EQ(lost.open(recovered.payload, "pairing", "phone-1")["recovery_left"],
            9);
  EXPECT_NE(rig.journal().find(" recovered device=phone-1 left=9"),
            std::string::npos);
  // Recovered without a key to seal to, the phone is let in but told nothing.
  json keyless =
      lost.keys({{"code", paired["recovery_codes"][1]}, {"name", "New"}});
  keyless.erase("cloud_public_key");
  EXPECT_EQ(rig.clear("POST", "/v1/recover", keyless).payload["error"],
            "that phone offered no key to seal the answer to");
  EXPECT_NE(rig.journal().find(" recovered device=phone-1 left=8"),
            std::string::npos);
}

TEST(Routes, SealedCallsListFetchApproveAndDeny) {
  Rig rig(/*requireSealed=*/true);
  rig.pair();
  const StoredRequest first = rig.service.raise("deploy", Fields{}, {});

  const json listed = rig.call("GET", "/v1/pending");
  EXPECT_EQ(listed["status"], 200);
  EXPECT_EQ(listed["payload"]["pending"][0]["request_id"], first.id);
  EXPECT_EQ(listed["payload"]["allowances"], json::array());

  const json fetched = rig.call("GET", "/v1/request/" + first.id);
  EXPECT_EQ(fetched["status"], 200);
  EXPECT_EQ(fetched["payload"]["digest"], first.digest);

  json stranger = rig.approval(first);
  stranger["device_id"] = "phone-2";
  EXPECT_EQ(rig.call("POST", "/v1/approve", stranger)["payload"]["error"],
            "that approval is not from the device that sent it");

  const json approved = rig.call("POST", "/v1/approve", rig.approval(first));
  EXPECT_EQ(approved["payload"], json({{"ok", true}, {"state", "approved"}}));
  EXPECT_EQ(ServiceInternals::store(rig.service).get(first.id)->state,
            RequestState::kApproved);
  EXPECT_EQ(rig.call("GET", "/v1/request/" + first.id)["status"], 404);

  const StoredRequest second = rig.service.raise("deploy", Fields{}, {});
  EXPECT_EQ(rig.call("POST", "/v1/deny",
                     {{"request_id", second.id}})["payload"]["state"],
            "denied");
  // A failing inner call still comes back sealed, under outer status 200.
  const json late = rig.call("POST", "/v1/approve", rig.approval(second));
  EXPECT_EQ(late["status"], 400);
  EXPECT_EQ(late["payload"]["error"], "that request was already denied");
}

// A hold opens an allowance: the approval tells its end, the list shows it
// to the phone that granted it, and the phone can end it once.
TEST(Routes, AllowancesAreToldListedAndEndedByThePhone) {
  Rig rig(/*requireSealed=*/true);
  rig.pair();
  ServiceInternals::secrets(rig.service)
      .replace({SecretName{"sheets", "bearer", {"api.example"}, {}, 1}});
  RaiseOptions options;
  options.credentialName = "sheets";
  options.agent = AgentProcess::of(getpid());
  const StoredRequest request = rig.service.raise("deploy", Fields{}, options);
  json approval = rig.approval(request);
  approval["credential"] =
      CloudSeal::seal(
          asBytes(json{
              {"request_id", request.id},
              {"name", "sheets"},
              {"kind", "bearer"},
              {"value", "v-1"},
              {"hold_seconds",
               90}}.dump()),
          ServiceInternals::identity(rig.service).cloudKey().publicKey(),
          "cred", request.id)
          .asDictionary();
  const json approved = rig.call("POST", "/v1/approve", approval)["payload"];
  EXPECT_EQ(approved["seconds_left"], 90) << approved;
  EXPECT_EQ(approved["allowed_until"].get<int64_t>() -
                static_cast<int64_t>(time(nullptr)),
            90);

  const json listed = rig.call("GET", "/v1/pending")["payload"]["allowances"];
  ASSERT_EQ(listed.size(), 1u) << listed;
  EXPECT_EQ(listed[0]["request_id"], request.id);
  EXPECT_EQ(listed[0]["name"], "sheets");
  EXPECT_EQ(listed[0]["uses"], 0);

  const auto end = [&](const json& id) {
    return rig.call("POST", "/v1/allowance/end", {{"request_id", id}});
  };
  EXPECT_EQ(end(7)["payload"]["error"], "no allowance named");
  EXPECT_EQ(end("r0000000000000000")["payload"],
            json({{"ok", true}, {"ended", false}}));
  EXPECT_EQ(end(request.id)["payload"], json({{"ok", true}, {"ended", true}}));
  EXPECT_EQ(end(request.id)["payload"]["ended"], false);
  EXPECT_EQ(rig.call("GET", "/v1/pending")["payload"]["allowances"],
            json::array());
  EXPECT_NE(rig.journal().find("allowance-ended client=- credential=sheets "
                               "request=" +
                               request.id + " uses=0 why=phone"),
            std::string::npos);
}

TEST(Routes, SealedEnvelopesThatMustNotBeAnswered) {
  Rig rig(/*requireSealed=*/true);
  rig.pair();
  const json good = {{"device_id", rig.phone.id},
                     {"device_secret", rig.secret},
                     {"method", "GET"},
                     {"path", "/v1/pending"}};
  const auto error = [](const RouteResult& result) {
    EXPECT_EQ(result.status, 400);
    return result.payload["error"].get<std::string>();
  };
  json wrongSecret = good;
  wrongSecret["device_secret"] = std::string(48, '0');
  EXPECT_EQ(error(rig.send(wrongSecret)), "that device is not paired here");
  EXPECT_EQ(error(rig.send(good, "reply")), "that is not a sealed call");
  EXPECT_EQ(
      error(rig.send(good, "call",
                     crypto::XWingPrivateKey::generate().publicKey().raw())),
      "the box did not open");
  json noRoute = good;
  noRoute.erase("path");
  EXPECT_EQ(error(rig.send(noRoute)), "that call has no route in it");

  // Without a key to answer to, the call still takes effect first.
  const StoredRequest request = rig.service.raise("deploy", Fields{}, {});
  ServiceInternals::devices(rig.service).edit(rig.phone.id, [](Device& d) {
    d.cloudKey.reset();
  });
  json deny = good;
  deny["method"] = "POST";
  deny["path"] = "/v1/deny";
  deny["body"] = {{"request_id", request.id}};
  EXPECT_EQ(error(rig.send(deny)), "this device has registered no cloud key");
  EXPECT_EQ(ServiceInternals::store(rig.service).get(request.id)->state,
            RequestState::kDenied);
}

TEST(Routes, ClearRoutesWorkWithoutRequireSealed) {
  Rig rig(/*requireSealed=*/false);
  rig.pair();
  const StoredRequest request = rig.service.raise("deploy", Fields{}, {});
  const json mine = {{"device_id", rig.phone.id},
                     {"device_secret", rig.secret}};

  const RouteResult listed = rig.clear("GET", "/v1/pending");
  EXPECT_EQ(listed.payload["pending"][0]["request_id"], request.id);
  EXPECT_FALSE(listed.payload.contains("allowances"));

  json announce = mine;
  announce["secrets"] = {{{"name", "sheets"}, {"hosts", {"api.example"}}}};
  announce["seq"] = 1;
  EXPECT_EQ(rig.clear("POST", "/v1/secrets", announce).payload,
            json({{"ok", true},
                  {"added", {"sheets"}},
                  {"count", 1},
                  {"stale", false}}));
  EXPECT_EQ(rig.clear("POST", "/v1/secrets", announce).payload["stale"], true);
  announce["device_secret"] = "nope";
  EXPECT_EQ(rig.clear("POST", "/v1/secrets", announce).payload["error"],
            "that device is not paired here");

  json key = mine;
  const Bytes fresh = crypto::XWingPrivateKey::generate().publicKey().raw();
  key["cloud_public_key"] = toBase64(fresh);
  EXPECT_EQ(rig.clear("POST", "/v1/cloud-key", key).status, 200);
  EXPECT_EQ(
      ServiceInternals::devices(rig.service).device(rig.phone.id)->cloudKey,
      fresh);

  const Nudge nudge = rig.service.nudge("secret");
  EXPECT_EQ(rig.clear("GET", "/v1/pending").payload["nudge"]["id"], nudge.id);
  json seen = mine;
  seen["id"] = "0000000000000000";
  rig.clear("POST", "/v1/nudge/seen", seen);
  EXPECT_TRUE(ServiceInternals::nudges(rig.service).current());
  seen["id"] = nudge.id;
  EXPECT_EQ(rig.clear("POST", "/v1/nudge/seen", seen).status, 200);
  EXPECT_FALSE(ServiceInternals::nudges(rig.service).current());

  EXPECT_EQ(rig.clear("POST", "/v1/deny", {{"request_id", request.id}})
                .payload["state"],
            "denied");
  EXPECT_EQ(rig.clear("GET", "/v1/nothing").status, 404);
}

}  // namespace
}  // namespace tolvanger::service
