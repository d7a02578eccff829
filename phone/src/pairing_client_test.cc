// Tests of the phone's side of pairing against a fake computer: the offer,
// the sealed answer and every way it can be wrong, and the proof that ties
// the computer's keys to this phone's.
#include "tolvanger/phone/pairing_client.h"

#include <gtest/gtest.h>

#include <functional>

#include "testing/fake_transport.h"
#include "tolvanger/kit/cloud_seal.h"
#include "tolvanger/kit/crypto/mldsa65.h"
#include "tolvanger/kit/crypto/p256.h"
#include "tolvanger/kit/fingerprint.h"
#include "tolvanger/phone/signer.h"

namespace tolvanger::phone {
namespace {

using nlohmann::json;
using std::chrono::milliseconds;

std::string errorOf(const std::function<void()>& f) {
  try {
    f();
  } catch (const std::exception& e) {
    return e.what();
  }
  return "no error";
}

constexpr const char* kToken = "7be04a91c2d35f68a1e7c90b4d26f3e1";
constexpr const char* kDevice = "phone1";

// The phone's three keys.
struct Phone {
  SoftwareSigner signer;
  crypto::XWingPrivateKey cloud = crypto::XWingPrivateKey::generate();
  Bytes cloudPublic() const { return cloud.publicKey().raw(); }
};

// A computer with an open window: answers the offer, and the confirmation
// with the paired answer sealed to the offered cloud key. `answer` and
// `outer` let a test spoil the answer before and after sealing.
struct FakeMac {
  crypto::P256PrivateKey key = crypto::P256PrivateKey::generate();
  crypto::MLDSA65PrivateKey pq = crypto::MLDSA65PrivateKey::generate();
  std::string daemonID = "tolvanger-a1b2";
  json offered;
  std::function<void(json&)> answer = [](json&) {};
  std::function<void(json&)> outer = [](json&) {};

  json paired() const {
    const Bytes spki = *fromBase64(offered["public_key"].get<std::string>());
    const Bytes pqKey =
        *fromBase64(offered["public_key_pq"].get<std::string>());
    const Bytes cloud =
        *fromBase64(offered["cloud_public_key"].get<std::string>());
    const Bytes proof = PairingProof::text(
        daemonID, offered["device_id"].get<std::string>(), spki, pqKey, cloud);
    return json{{"ok", true},
                {"paired", true},
                {"device_id", offered["device_id"]},
                {"fingerprint", Fingerprint::of(spki)},
                {"fingerprint_pq", Fingerprint::of(pqKey)},
                {"device_secret", "a1b2c3"},
                {"proof", toBase64(key.sign(proof))},
                {"proof_pq", toBase64(pq.sign(proof))},
                {"recovery_codes", {"code-one", "code-two"}},
                {"daemon",
                 {{"daemon_id", daemonID},
                  {"host", "mac.local"},
                  {"spki_b64", toBase64(key.publicKey().der())},
                  {"fingerprint", Fingerprint::of(key.publicKey().der())},
                  {"pq_b64", toBase64(pq.publicKey().raw())},
                  {"fingerprint_pq", Fingerprint::of(pq.publicKey().raw())},
                  {"cloud", true}}}};
  }

  HTTPAnswer operator()(const HTTPCall& call) {
    const json body = json::parse(*call.body);
    if (call.url.ends_with("/v1/pair")) {
      offered = body;
      return {200, json{{"ok", true},
                        {"fingerprint", "f"},
                        {"choices", {"42", "07", "93"}}}
                       .dump()};
    }
    if (body.contains("device_id")) offered["device_id"] = body["device_id"];
    json inner = paired();
    answer(inner);
    const Bytes cloud =
        *fromBase64(offered["cloud_public_key"].get<std::string>());
    json reply = {
        {"ok", true},
        {"sealed", CloudSeal::seal(asBytes(inner.dump()), cloud, "pairing",
                                   offered["device_id"].get<std::string>())
                       .asDictionary()}};
    outer(reply);
    return {200, reply.dump()};
  }
};

struct PairingClientTest : ::testing::Test {
  Phone phone;
  FakeMac mac;
  std::shared_ptr<FakeTransport> fake = std::make_shared<FakeTransport>(
      [this](const HTTPCall& call) { return mac(call); });
  PairingClient client{
      DaemonClient("http://mac:8646", milliseconds(100), fake)};

  PairOffer offer() {
    return client.pair(kToken, kDevice, "test phone",
                       phone.signer.publicKeyDER(), phone.signer.pqPublicKey(),
                       phone.cloudPublic());
  }
  Pairing confirm() {
    offer();
    return client.confirm(kToken, "42", kDevice, phone.cloud);
  }
};

TEST_F(PairingClientTest, PairsAndChecksTheProof) {
  const PairOffer numbers = offer();
  EXPECT_EQ(numbers.choices, (std::vector<std::string>{"42", "07", "93"}));
  EXPECT_EQ(mac.offered["token"], kToken);
  EXPECT_EQ(mac.offered["name"], "test phone");

  const Pairing pairing = client.confirm(kToken, "42", kDevice, phone.cloud);
  EXPECT_EQ(json::parse(*fake->calls[1].body),
            (json{{"token", kToken}, {"code", "42"}}));
  EXPECT_EQ(pairing.deviceID, kDevice);
  EXPECT_EQ(pairing.deviceSecret, "a1b2c3");
  EXPECT_EQ(pairing.recoveryCodes,
            (std::vector<std::string>{"code-one", "code-two"}));
  EXPECT_TRUE(pairing.verifiesProof(phone.signer.publicKeyDER(),
                                    phone.signer.pqPublicKey(),
                                    phone.cloudPublic()));

  // A proof over other keys than this phone's does not hold.
  const Bytes otherCloud =
      crypto::XWingPrivateKey::generate().publicKey().raw();
  EXPECT_FALSE(pairing.verifiesProof(phone.signer.publicKeyDER(),
                                     phone.signer.pqPublicKey(), otherCloud));
  EXPECT_FALSE(pairing.verifiesProof(phone.signer.publicKeyDER(), std::nullopt,
                                     phone.cloudPublic()));
  Pairing noPQProof = pairing;
  noPQProof.proofPQ.reset();
  EXPECT_FALSE(noPQProof.verifiesProof(phone.signer.publicKeyDER(),
                                       phone.signer.pqPublicKey(),
                                       phone.cloudPublic()));
  Pairing forged = pairing;
  forged.daemonSPKI = crypto::P256PrivateKey::generate().publicKey().der();
  EXPECT_FALSE(forged.verifiesProof(phone.signer.publicKeyDER(),
                                    phone.signer.pqPublicKey(),
                                    phone.cloudPublic()));
}

TEST_F(PairingClientTest, RecoversUnderTheDeviceItNames) {
  mac.answer = [](json& inner) {
    inner.erase("recovery_codes");
    inner["recovery_left"] = 9;
  };
  mac.offered["device_id"] = "phone2";
  mac.offered["public_key"] = toBase64(phone.signer.publicKeyDER());
  mac.offered["public_key_pq"] = toBase64(phone.signer.pqPublicKey());
  mac.offered["cloud_public_key"] = toBase64(phone.cloudPublic());
  const Pairing blind = client.recover(
      std::nullopt, "code-one", "n", phone.signer.publicKeyDER(),
      phone.signer.pqPublicKey(), phone.cloudPublic(), phone.cloud);
  EXPECT_EQ(blind.deviceID, "phone2");
  EXPECT_EQ(blind.recoveryLeft, 9);
  EXPECT_FALSE(json::parse(*fake->calls[0].body).contains("device_id"));

  client.recover(kDevice, "code-one", "n", phone.signer.publicKeyDER(),
                 phone.signer.pqPublicKey(), phone.cloudPublic(), phone.cloud);
  EXPECT_EQ(json::parse(*fake->calls[1].body)["device_id"], kDevice);
}

TEST_F(PairingClientTest, EveryWrongAnswerHasItsWords) {
  const std::string prefix = "malformed request: ";
  mac.outer = [](json& reply) { reply = {{"ok", true}, {"paired", true}}; };
  EXPECT_EQ(errorOf([&] { confirm(); }),
            prefix + "that Mac answered the pairing in the clear");

  // The sealed answer must be bound to this phone's offer as a pairing.
  for (const auto& [key, value] : std::vector<std::pair<std::string, json>>{
           {"id", "phone9"}, {"kind", "reply"}, {"v", 1}}) {
    mac.outer = [&key = key, &value = value](json& reply) {
      reply["sealed"][key] = value;
    };
    EXPECT_EQ(errorOf([&] { confirm(); }),
              prefix + "that pairing answer is not for this phone's offer")
        << key;
  }

  mac.outer = [&](json& reply) {
    reply["sealed"] = CloudSeal::seal(asBytes("not json"), phone.cloudPublic(),
                                      "pairing", kDevice)
                          .asDictionary();
  };
  EXPECT_EQ(errorOf([&] { confirm(); }),
            prefix + "the sealed answer did not decode");
  mac.outer = [&](json& reply) {
    // Sealed for this phone's offer, but to a key that is not its own.
    reply["sealed"] =
        CloudSeal::seal(asBytes("{}"),
                        crypto::XWingPrivateKey::generate().publicKey().raw(),
                        "pairing", kDevice)
            .asDictionary();
  };
  EXPECT_EQ(errorOf([&] { confirm(); }), "the box did not open");
  mac.outer = [](json&) {};

  mac.answer = [](json& inner) { inner["device_id"] = "phone9"; };
  EXPECT_EQ(errorOf([&] { confirm(); }),
            prefix + "that pairing answer names another device");
  for (const char* missing : {"device_secret", "fingerprint", "daemon"}) {
    mac.answer = [&](json& inner) { inner.erase(missing); };
    EXPECT_EQ(errorOf([&] { confirm(); }),
              prefix + "the pairing reply came back wrong")
        << missing;
  }
  mac.answer = [](json& inner) { inner["daemon"]["spki_b64"] = "not base64"; };
  EXPECT_EQ(errorOf([&] { confirm(); }),
            prefix + "the pairing reply came back wrong");
}

TEST(PairingOfferTest, TheOfferMustHoldThreeNumbers) {
  auto offerWith = [](long status, json answer) {
    auto fake = std::make_shared<FakeTransport>([=](const HTTPCall&) {
      return HTTPAnswer{status, answer.dump()};
    });
    PairingClient client(DaemonClient("http://m", milliseconds(100), fake));
    return errorOf([&] { client.pair(kToken, kDevice, "n", {}, {}, {}); });
  };
  for (const json& choices :
       {json{{"choices", {"42", "07"}}, {"fingerprint", "f"}},
        json{{"choices", {"42", "07", 93}}, {"fingerprint", "f"}},
        json{{"choices", {"42", "07", "93"}}}}) {
    json answer = choices;
    answer["ok"] = true;
    EXPECT_EQ(offerWith(200, answer),
              "malformed request: the pairing offer came back wrong")
        << answer;
  }
  EXPECT_EQ(
      offerWith(400, {{"ok", false}, {"error", "no pairing window is open"}}),
      "no pairing window is open");
}

TEST(PairingProofTest, SpellsTheSevenFields) {
  EXPECT_EQ(toString(PairingProof::text("d", "p", "fp", std::nullopt, "fc")),
            "tolvanger-paired-v1|d|p|fp|-|-|fc");
  const Bytes spki = {1, 2, 3};
  EXPECT_EQ(
      toString(PairingProof::text("d", "p", spki, std::nullopt, std::nullopt)),
      "tolvanger-paired-v1|d|p|" + Fingerprint::of(spki) + "|-|-|-");
}

TEST(PairingLinkTest, ReachesTheAddressInTheLink) {
  PairURL link{"tolvanger-a1b2", "192.168.1.4", 8646, kToken, "f"};
  EXPECT_EQ(PairingClient::forLink(link, milliseconds(1))->client().base(),
            "http://192.168.1.4:8646");
  link.host = "fe80::1";
  EXPECT_EQ(PairingClient::forLink(link, milliseconds(1))->client().base(),
            "http://[fe80::1]:8646");
  link.host = "";
  EXPECT_FALSE(PairingClient::forLink(link, milliseconds(1)));
}

}  // namespace
}  // namespace tolvanger::phone
