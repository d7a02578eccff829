// The phone's cloud transport on a MemoryCloud, with the test playing the
// Mac: it publishes a card, reads calls and leaves replies.
#include "tolvanger/phone/cloud_transport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "tolvanger/kit/cloud_seal.h"
#include "tolvanger/kit/crypto/p256.h"
#include "tolvanger/kit/fingerprint.h"

namespace tolvanger::phone {
namespace {

using nlohmann::json;
using std::chrono::milliseconds;

struct Mac {
  crypto::P256PrivateKey key = crypto::P256PrivateKey::generate();
  crypto::XWingPrivateKey cloudKey = crypto::XWingPrivateKey::generate();
  Bytes spki = key.publicKey().der();
  std::string pair = Fingerprint::of(spki);

  void publish(CloudStore& store, const crypto::P256PrivateKey& signer) {
    const std::string card =
        CloudCard::json("daemon-1", cloudKey.publicKey().raw(), 1700000000,
                        [&](ByteView m) { return signer.sign(m); });
    store.put(CloudRecord("card-" + pair, pair, Cloud::Side::kPhone,
                          Cloud::Kind::kCard, card, 1));
  }

  // Answers every call waiting with `payload` under `status`; gives the
  // opened calls.
  std::vector<json> answer(CloudStore& store, int status, const json& payload) {
    std::vector<json> calls;
    for (const CloudRecord& r : store.changes().changed) {
      if (r.kind != "call") continue;
      const CloudEnvelope e = CloudEnvelope::fromJSON(r.body);
      calls.push_back(
          json::parse(toString(CloudSeal::open(e, cloudKey).reveal())));
      const Bytes replyTo =
          *fromBase64(calls.back()["reply_to"].get<std::string>());
      const std::string text =
          json{{"status", status}, {"payload", payload}}.dump();
      store.put(CloudRecord(
          "reply-" + e.id, pair, Cloud::Side::kPhone, Cloud::Kind::kReply,
          CloudSeal::seal(asBytes(text), replyTo, "reply", e.id).json(), 2));
      store.remove({r.name});
    }
    return calls;
  }
};

class Transport : public ::testing::Test {
 protected:
  std::unique_ptr<CloudTransport> connect() {
    return CloudTransport::connect(cloud->store(), mac.spki, std::nullopt,
                                   "phone-1", "s3cret",
                                   crypto::XWingPrivateKey::generate());
  }
  std::shared_ptr<MemoryCloud> cloud = MemoryCloud::make();
  std::shared_ptr<MemoryCloudStore> macStore = cloud->store();
  Mac mac;
};

TEST_F(Transport, OnlyACardSignedByThePinnedKeyIsBelieved) {
  const auto expectNoCard = [&] {
    try {
      connect();
      FAIL() << "connected without a believable card";
    } catch (const RequestError& e) {
      EXPECT_STREQ(e.what(), "no believable card in iCloud for that Mac");
    }
  };
  expectNoCard();
  mac.publish(*macStore, crypto::P256PrivateKey::generate());
  expectNoCard();
  mac.publish(*macStore, mac.key);
  EXPECT_EQ(connect()->card().daemonID, "daemon-1");
}

TEST_F(Transport, ACallTimesOutWithoutAMacAndLeavesItsRecord) {
  mac.publish(*macStore, mac.key);
  auto transport = connect();
  transport->configure(milliseconds(150), milliseconds(20));
  try {
    transport->call("GET", "/v1/pending", std::nullopt);
    FAIL() << "a call came back from nobody";
  } catch (const RequestError& e) {
    EXPECT_EQ(e.kind(), RequestError::Kind::kUnreachable);
    EXPECT_STREQ(e.what(), "the Mac did not answer through iCloud in time");
  }
  const auto calls = macStore->changes().changed;
  ASSERT_EQ(calls.size(), 2u);  // the card and the call
  EXPECT_EQ(calls[1].expires - calls[1].at, 150.0 * 6);
}

TEST_F(Transport, RepliesAreOpenedTakenAndTheirRefusalsWorded) {
  mac.publish(*macStore, mac.key);
  auto transport = connect();
  transport->configure(milliseconds(5000), milliseconds(2000));
  macStore->changes();
  std::thread macSide([&] {
    for (int answered = 0; answered < 2;) {
      // The first answer is good, the second a refusal.
      const auto calls =
          answered == 0 ? mac.answer(*macStore, 200, {{"ok", true}, {"n", 1}})
                        : mac.answer(*macStore, 403, {{"error", "no"}});
      if (!calls.empty()) {
        EXPECT_EQ(calls[0]["device_secret"], "s3cret");
        ++answered;
        // The poke, as a push from the store would, ends the phone's
        // two-second sleep at once.
        transport->poke();
      }
      std::this_thread::sleep_for(milliseconds(5));
    }
  });
  const auto started = std::chrono::steady_clock::now();
  EXPECT_EQ(transport->call("GET", "/v1/health", std::nullopt)["n"], 1);
  try {
    transport->call("GET", "/v1/health", std::nullopt);
    ADD_FAILURE() << "a refusal passed";
  } catch (const RequestError& e) {
    EXPECT_STREQ(e.what(), "no");
  }
  macSide.join();
  EXPECT_LT(std::chrono::steady_clock::now() - started, milliseconds(1500));
  // Both replies were taken from the store.
  for (const CloudRecord& r : cloud->all()) EXPECT_NE(r.kind, "reply");
}

}  // namespace
}  // namespace tolvanger::phone
