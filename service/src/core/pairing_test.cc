// Tests of the pairing window, recovery and the QR drawing, played against a
// software phone with real keys.
#include "tolvanger/service/pairing.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <set>

#include "testing/temp_home.h"
#include "tolvanger/kit/crypto/mldsa65.h"
#include "tolvanger/kit/crypto/p256.h"
#include "tolvanger/kit/crypto/xwing.h"
#include "tolvanger/kit/fingerprint.h"
#include "tolvanger/kit/pair_link.h"
#include "tolvanger/kit/service_error.h"
#include "tolvanger/service/qr.h"

namespace tolvanger::service {
namespace {

using nlohmann::json;

constexpr const char* kNoRecovery = "that code will not open this Mac";

// A phone with its own keys, which checks answers the way the app does.
struct Phone {
  std::string id = "phone-1";
  crypto::P256PrivateKey key = crypto::P256PrivateKey::generate();
  crypto::MLDSA65PrivateKey pq = crypto::MLDSA65PrivateKey::generate();
  crypto::XWingPrivateKey cloud = crypto::XWingPrivateKey::generate();

  json body(json extra) const {
    extra["device_id"] = id;
    extra["public_key"] = toBase64(key.publicKey().der());
    extra["public_key_pq"] = toBase64(pq.publicKey().raw());
    extra["cloud_public_key"] = toBase64(cloud.publicKey().raw());
    return extra;
  }

  // Both of the Mac's signatures over the proof built from this phone's own
  // keys, with the Mac's keys as the answer gives them.
  bool verifies(const json& answer) const {
    const std::string text = "tolvanger-paired-v1|" +
                             answer["daemon"]["daemon_id"].get<std::string>() +
                             "|" + id + "|" +
                             Fingerprint::of(key.publicKey().der()) + "|" +
                             Fingerprint::of(pq.publicKey().raw()) + "|-|" +
                             Fingerprint::of(cloud.publicKey().raw());
    auto mac = crypto::P256PublicKey::fromDER(
        *fromBase64(answer["daemon"]["spki_b64"].get<std::string>()));
    auto macPQ = crypto::MLDSA65PublicKey::fromRaw(
        *fromBase64(answer["daemon"]["pq_b64"].get<std::string>()));
    return mac && macPQ &&
           mac->verify(asBytes(text),
                       *fromBase64(answer["proof"].get<std::string>())) &&
           macPQ->verify(asBytes(text),
                         *fromBase64(answer["proof_pq"].get<std::string>()));
  }
};

Config testConfig(int64_t maxPhones = 1) {
  Config config = Config::defaults();
  config.daemonID = "tolvanger-0a1b2c3d";
  config.host = "Studio";
  config.listenPort = 8646;
  config.maxPhones = maxPhones;
  return config;
}

std::string refusal(const std::function<void()>& call) {
  try {
    call();
  } catch (const ServiceError& e) {
    return e.isRefused() ? e.what() : "(internal) " + std::string(e.what());
  }
  return "(no refusal)";
}

class PairingTest : public ::testing::Test {
 protected:
  PairingTest() : devices_(Home(home_.path)), identity_(Home(home_.path)) {
    identity_.daemonID = testConfig().daemonID;
  }

  // Opens a window, offers and picks the right number; gives the answer.
  PairResult pair(const Phone& phone) {
    const auto link = PairURL::parse(pairing_.open("10.0.0.5").url);
    pairing_.offer(phone.body({{"token", link->token}, {"name", "Ana"}}));
    const std::string code = pairing_.status()["code"];
    return pairing_.confirm({{"token", link->token}, {"code", code}});
  }
  json recover(const Phone& phone, const std::string& code,
               std::optional<std::string> id) {
    json body = phone.body({{"code", code}});
    if (id)
      body["device_id"] = *id;
    else
      body.erase("device_id");
    return pairing_.recover(body).payload;
  }

  TempHome home_;  // first: what follows lives in it
  Devices devices_;
  Identity identity_;
  int64_t now_ = 1'700'000'000;
  Pairing pairing_{devices_, identity_, testConfig(), [this] { return now_; }};
};

TEST_F(PairingTest, FullPairingGivesAProofOverThePhonesOwnKeys) {
  const Phone phone;
  const PairOpened opened = pairing_.open("10.0.0.5");
  const auto link = PairURL::parse(opened.url);
  ASSERT_TRUE(link);
  EXPECT_EQ(link->address(), "10.0.0.5:8646");
  EXPECT_EQ(link->fingerprint, identity_.fingerprint());
  EXPECT_EQ(pairing_.status()["state"], "open");

  const json offer = pairing_.offer(
      phone.body({{"token", link->token}, {"name", std::string(70, 'n')}}));
  EXPECT_EQ(offer["fingerprint"], Fingerprint::of(phone.key.publicKey().der()));
  const auto choices = offer["choices"].get<std::vector<std::string>>();
  ASSERT_EQ(std::set<std::string>(choices.begin(), choices.end()).size(), 3u);
  // Asking again changes nothing; another phone is turned away.
  EXPECT_EQ(pairing_.offer(phone.body({{"token", link->token}})), offer);
  Phone other;
  other.id = "phone-2";
  EXPECT_EQ(refusal([&] {
              pairing_.offer(other.body({{"token", link->token}}));
            }),
            "a pairing is already waiting to be confirmed");
  // So is one that gives the waiting phone's id with keys of its own.
  const Phone impostor;
  EXPECT_EQ(refusal([&] {
              pairing_.offer(impostor.body({{"token", link->token}}));
            }),
            "a pairing is already waiting to be confirmed");

  const json status = pairing_.status();
  EXPECT_EQ(status["state"], "offered");
  EXPECT_EQ(status["name"], std::string(64, 'n'));
  const std::string code = status["code"];
  EXPECT_NE(std::find(choices.begin(), choices.end(), code), choices.end());

  const PairResult result =
      pairing_.confirm({{"token", link->token}, {"code", code}});
  const json& answer = result.payload;
  EXPECT_TRUE(phone.verifies(answer));
  EXPECT_EQ(answer["daemon"]["fingerprint"], identity_.fingerprint());
  EXPECT_EQ(answer["device_secret"].get<std::string>().size(), 48u);
  ASSERT_EQ(answer["recovery_codes"].size(), 10u);
  const auto stored = devices_.device("phone-1");
  ASSERT_TRUE(stored);
  EXPECT_EQ(*stored, result.device);
  EXPECT_EQ(stored->secret, answer["device_secret"]);
  EXPECT_EQ(stored->pairedAt, now_);
  // The answer is not a proof for any other cloud key.
  Phone swapped = phone;
  swapped.cloud = crypto::XWingPrivateKey::generate();
  EXPECT_FALSE(swapped.verifies(answer));

  // The window is spent, and with one phone allowed no new one opens.
  EXPECT_EQ(pairing_.status(), json({{"ok", true}, {"state", "none"}}));
  EXPECT_EQ(refusal([&] { pairing_.open("10.0.0.5"); }),
            "This Mac already has its phone. Forget it to pair another, or "
            "replace it with a recovery code.");
}

TEST_F(PairingTest, WrongTokensPicksAndTimeCloseOrKeepTheWindow) {
  const Phone phone;
  std::string token = PairURL::parse(pairing_.open("h").url)->token;
  json noCloud = phone.body({{"token", token}});
  noCloud.erase("cloud_public_key");
  Phone bad;
  bad.id = "Bad";
  const std::pair<json, const char*> offers[] = {
      {phone.body({{"token", std::string(32, '0')}}),
       "that token is not the one on the screen"},
      {noCloud, "that offer carries no key to seal the answer to"},
      {bad.body({{"token", token}}), "that is not a device id"},
      {json{{"token", token}}, "that offer is missing something"},
  };
  for (const auto& [body, sentence] : offers) {
    EXPECT_EQ(refusal([&, &body = body] { pairing_.offer(body); }), sentence);
  }
  // Confirming before any offer leaves the window open.
  EXPECT_EQ(refusal([&] {
              pairing_.confirm({{"token", token}, {"code", "00"}});
            }),
            "no pairing is waiting to be confirmed");

  // A wrong pick ends the window; the right one then comes too late.
  const auto choices =
      pairing_.offer(phone.body({{"token", token}}))["choices"];
  const std::string code = pairing_.status()["code"];
  // The right pick under another token confirms nothing.
  EXPECT_EQ(
      refusal([&] {
        pairing_.confirm({{"token", std::string(32, '0')}, {"code", code}});
      }),
      "no pairing is waiting to be confirmed");
  const std::string wrong = choices[0] == code ? choices[1] : choices[0];
  EXPECT_EQ(refusal([&] {
              pairing_.confirm({{"token", token}, {"code", wrong}});
            }),
            "that is not the code on the terminal");
  EXPECT_EQ(refusal([&] {
              pairing_.confirm({{"token", token}, {"code", code}});
            }),
            "no pairing is waiting to be confirmed");
  EXPECT_FALSE(devices_.device("phone-1"));

  // A window past its time is treated as absent.
  token = PairURL::parse(pairing_.open("h", 60).url)->token;
  now_ += 60;
  EXPECT_FALSE(pairing_.session());
  EXPECT_EQ(refusal([&] {
              pairing_.offer(phone.body({{"token", token}}));
            }),
            "no pairing window is open");
  pairing_.open("h");
  pairing_.cancel();
  EXPECT_EQ(pairing_.status()["state"], "none");
}

TEST_F(PairingTest, NamedRecoveryLocksAfterTenButTheBlindRoadStillOpens) {
  const Phone phone;
  const auto codes = pair(phone).payload["recovery_codes"];
  const Phone replacement;  // the same phone id with new keys
  EXPECT_EQ(refusal([&] { recover(replacement, codes[0], "nobody"); }),
            kNoRecovery);
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(refusal([&] { recover(replacement, "22222-22222", "phone-1"); }),
              kNoRecovery);
  }
  EXPECT_EQ(devices_.device("phone-1")->recoveryFailures, 10);
  EXPECT_EQ(refusal([&] { recover(replacement, codes[0], "phone-1"); }),
            kNoRecovery);

  const std::string oldSecret = devices_.device("phone-1")->secret;
  const json answer = recover(replacement, codes[0], std::nullopt);
  EXPECT_TRUE(replacement.verifies(answer));
  EXPECT_EQ(answer["recovery_left"], 9);
  EXPECT_FALSE(answer.contains("recovery_codes"));
  const Device device = *devices_.device("phone-1");
  EXPECT_EQ(device.recoveryFailures, 0);
  EXPECT_EQ(device.name, "Ana");
  EXPECT_NE(device.secret, oldSecret);
  EXPECT_EQ(device.spki, replacement.key.publicKey().der());
  // A spent code is gone; the next one works by name, with its dash dropped.
  EXPECT_EQ(refusal([&] { recover(replacement, codes[0], "phone-1"); }),
            kNoRecovery);
  std::string spaced = codes[1];
  spaced.erase(5, 1);
  EXPECT_EQ(recover(replacement, spaced, "phone-1")["recovery_left"], 8);
}

TEST_F(PairingTest, TenWrongBlindCodesPauseTheBlindRoad) {
  const Phone phone;
  const auto codes = pair(phone).payload["recovery_codes"];
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(refusal([&] { recover(phone, "22222-22222", std::nullopt); }),
              kNoRecovery);
  }
  now_ += 899;
  EXPECT_EQ(refusal([&] { recover(phone, codes[0], std::nullopt); }),
            kNoRecovery);
  now_ += 1;
  EXPECT_EQ(recover(phone, codes[0], std::nullopt)["recovery_left"], 9);
  // A device's own count is not touched by the blind road.
  EXPECT_EQ(devices_.device("phone-1")->recoveryFailures, 0);
}

TEST_F(PairingTest, KeysPhoneLimitsAndProofText) {
  const auto key = crypto::P256PrivateKey::generate().publicKey();
  const Bytes der = key.der();
  const Bytes point(der.end() - 65, der.end());
  EXPECT_EQ(OfferedKeys::make(point, std::nullopt, std::nullopt).spki, der);
  EXPECT_EQ(refusal([&] { OfferedKeys::make(Bytes(64, 4), {}, {}); }),
            "that is not a P-256 public key");
  EXPECT_EQ(refusal([&] { OfferedKeys::make(point, Bytes(10), {}); }),
            "that is not an ML-DSA-65 public key");
  EXPECT_EQ(refusal([&] { OfferedKeys::make(point, {}, Bytes(10)); }),
            "that is not an X-Wing public key");
  EXPECT_EQ(refusal([&] {
              OfferedKeys::fromBody({{"public_key", "!"}});
            }),
            "that offer has no public key");

  for (int i = 0; i < 3; ++i) {
    devices_.put(Device{.deviceID = "d" + std::to_string(i), .spki = {1}});
  }
  Pairing three(devices_, identity_, testConfig(3));
  EXPECT_EQ(refusal([&] { three.open("h"); }),
            "This Mac already has 3 phones, which is its limit. Forget one to "
            "pair another.");
  Pairing zero(devices_, identity_, testConfig(0));
  EXPECT_EQ(
      refusal([&] { zero.open("h"); }).rfind("This Mac already has its", 0),
      0u);

  const Device bare{.deviceID = "p", .spki = {1}, .cloudKey = Bytes{2}};
  EXPECT_EQ(toString(Pairing::proof("d", bare)),
            "tolvanger-paired-v1|d|p|" + Fingerprint::of(Bytes{1}) + "|-|-|" +
                Fingerprint::of(Bytes{2}));
}

TEST(QRTest, DrawsASquareWithHalfBlocks) {
  const std::string link = PairURL{"tolvanger-0a1b2c3d", "10.0.0.5", 8646,
                                   std::string(32, 'a'), "a1b2-c3d4-e5f6-0718"}
                               .link();
  const auto m = QR::matrix(link);
  ASSERT_TRUE(m);
  EXPECT_EQ(m->dark.size(), m->size * m->size);
  EXPECT_TRUE(m->at(0, 0));  // a finder pattern's corner

  const size_t quiet = 2;
  const size_t side = m->size + 2 * quiet;
  const std::string text = QR::render(link, quiet);
  std::vector<std::string> lines;
  for (size_t start = 0; start <= text.size();) {
    const size_t end = std::min(text.find('\n', start), text.size());
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  EXPECT_EQ(lines.size(), (side + 1) / 2);
  for (const std::string& line : lines) {
    ASSERT_TRUE(line.starts_with("\x1b[30;107m") && line.ends_with("\x1b[0m"));
    const std::string body = line.substr(9, line.size() - 13);
    size_t cells = 0;
    for (unsigned char c : body) cells += (c & 0xC0) != 0x80;
    EXPECT_EQ(cells, side);
  }
  // The quiet zone: the first line is light in its upper half throughout.
  EXPECT_EQ(lines[0].find("\u2580"), std::string::npos);
  EXPECT_EQ(QR::render(std::string(8000, 'x')), QR::kCouldNotDraw);
}

}  // namespace
}  // namespace tolvanger::service
