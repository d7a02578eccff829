// Tests of the software phone's home: the pairing and the list of secrets
// kept across runs, and the sentence a person reads when a file there is
// missing or damaged.
#include "tolvanger/phone/phone_home.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <functional>

#include "testing/temp_home.h"

namespace tolvanger::phone {
namespace {

mode_t modeOf(const std::string& path) {
  struct stat st;
  EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
  return st.st_mode & 07777;
}

void writeText(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::trunc) << text;
}

std::string refusalOf(const std::function<void()>& f) {
  try {
    f();
  } catch (const Refusal& e) {
    return e.what();
  }
  return "no refusal";
}

SavedPairing samplePairing() {
  SavedPairing state;
  state.address = "http://192.168.1.4:8645";
  state.deviceID = "phone-0123abcd";
  state.deviceName = "Software phone";
  state.deviceSecret = "s3cret";
  state.daemonID = "tolvanger-1a2b3c4d";
  state.daemonHost = "mac.local";
  state.daemonFingerprint = "aaaa-bbbb-cccc-dddd";
  state.daemonSPKI = Bytes{1, 2, 3};
  state.daemonPQ = Bytes{4, 5};
  state.cloud = true;
  state.pairedAt = 1760000000;
  return state;
}

TEST(PhoneHomeTest, MakesAPrivateHomeWithItsParents) {
  const TempHome temp;
  const std::string path = temp.path() + "/a/b";
  const PhoneHome home = PhoneHome::open(path);
  EXPECT_EQ(home.path(), path);
  EXPECT_EQ(modeOf(path), 0700u);
  EXPECT_EQ(modeOf(temp.path()), 0700u);
  // Opened again, a home loosened by hand is made private again.
  chmod(path.c_str(), 0755);
  PhoneHome::open(path);
  EXPECT_EQ(modeOf(path), 0700u);

  writeText(path + "/plain", "");
  EXPECT_EQ(refusalOf([&] { PhoneHome::open(path + "/plain"); }),
            "Could not use " + path + "/plain as this phone's home.");
}

TEST(PhoneHomeTest, PairingRoundTrips) {
  const TempHome temp;
  const PhoneHome home = PhoneHome::open(temp.path());
  EXPECT_EQ(home.pairing(), nullptr);
  EXPECT_EQ(refusalOf([&] { home.requirePairing(); }),
            "This phone is not paired; run tolvanger-phone pair <link> "
            "first.");

  home.savePairing(samplePairing());
  EXPECT_EQ(modeOf(home.file(PhoneHome::kPairingFile)), 0600u);
  const std::unique_ptr<SavedPairing> back = home.requirePairing();
  const SavedPairing want = samplePairing();
  EXPECT_EQ(back->address, want.address);
  EXPECT_EQ(back->deviceID, want.deviceID);
  EXPECT_EQ(back->deviceName, want.deviceName);
  EXPECT_EQ(back->deviceSecret, want.deviceSecret);
  EXPECT_EQ(back->daemonID, want.daemonID);
  EXPECT_EQ(back->daemonHost, want.daemonHost);
  EXPECT_EQ(back->daemonFingerprint, want.daemonFingerprint);
  EXPECT_EQ(back->daemonSPKI, want.daemonSPKI);
  EXPECT_EQ(back->daemonPQ, want.daemonPQ);
  EXPECT_TRUE(back->cloud);
  EXPECT_EQ(back->pairedAt, want.pairedAt);

  // A Mac without a post-quantum key pins none.
  SavedPairing classical = samplePairing();
  classical.daemonPQ.reset();
  classical.cloud = false;
  home.savePairing(classical);
  EXPECT_EQ(home.requirePairing()->daemonPQ, std::nullopt);
  EXPECT_FALSE(home.requirePairing()->cloud);
}

TEST(PhoneHomeTest, DamagedPairingIsRefusedWithASentence) {
  const TempHome temp;
  const PhoneHome home = PhoneHome::open(temp.path());
  const std::string path = home.file(PhoneHome::kPairingFile);
  const std::string sentence = path + " is damaged; pair this phone again.";
  home.savePairing(samplePairing());
  std::string good;
  std::getline(std::ifstream(path), good, '\0');

  const auto without = [&](const std::string& key) {
    const nlohmann::json stored = nlohmann::json::parse(good);
    nlohmann::json cut = stored;
    cut.erase(key);
    return cut.dump();
  };
  const auto with = [&](const std::string& key, const std::string& value) {
    nlohmann::json stored = nlohmann::json::parse(good);
    stored[key] = value;
    return stored.dump();
  };
  for (const std::string& text : {
           std::string("not json"),
           std::string("[]"),
           good.substr(0, good.size() / 2),
           without("address"),
           without("device_id"),
           without("device_secret"),
           without("daemon_spki_b64"),
           with("daemon_spki_b64", "not base64"),
           // A post-quantum pin that does not decode is no reason to check
           // requests with the classical key alone.
           with("daemon_pq_b64", "not base64"),
       }) {
    writeText(path, text);
    EXPECT_EQ(refusalOf([&] { home.pairing(); }), sentence) << text;
  }
}

TEST(PhoneHomeTest, SecretsListRoundTripsSortedByName) {
  const TempHome temp;
  const PhoneHome home = PhoneHome::open(temp.path());
  SecretList list = home.secrets();
  EXPECT_EQ(list.seq, 0);
  EXPECT_TRUE(list.entries.empty());

  list.put(SecretEntry{"zulu", "basic", {"z.example"}, {}, {}});
  list.put(SecretEntry{"alpha", "bearer", {"a.example"}, {}, {}});
  list.put(SecretEntry{"mike", "api_key", {"m.example"}, {}, {}});
  // Adding a name again replaces it.
  list.put(SecretEntry{"zulu", "cookie", {"z2.example"}, 1760000000, "ua"});
  EXPECT_TRUE(list.remove("mike"));
  EXPECT_FALSE(list.remove("mike"));
  list.seq = 42;
  home.saveSecrets(list);
  EXPECT_EQ(modeOf(home.file(PhoneHome::kSecretsFile)), 0600u);

  const SecretList back = home.secrets();
  EXPECT_EQ(back.seq, 42);
  ASSERT_EQ(back.entries.size(), 2u);
  EXPECT_EQ(back.entries[0].name, "alpha");
  EXPECT_EQ(back.entries[1].name, "zulu");
  EXPECT_EQ(back.entries[1].kind, "cookie");
  EXPECT_EQ(back.entries[1].hosts, std::vector<std::string>{"z2.example"});
  EXPECT_EQ(back.entries[1].signedInAt, 1760000000);
  EXPECT_EQ(back.entries[1].userAgent, "ua");
  EXPECT_EQ(back.entries[0].signedInAt, std::nullopt);
  EXPECT_EQ(back.kindOf("zulu"), "cookie");
  EXPECT_EQ(back.kindOf("unknown"), "bearer");
  EXPECT_EQ(back.announcement(), list.announcement());
}

TEST(PhoneHomeTest, DamagedSecretsListIsRefusedNotForgotten) {
  const TempHome temp;
  const PhoneHome home = PhoneHome::open(temp.path());
  const std::string path = home.file(PhoneHome::kSecretsFile);
  for (const char* text :
       {"not json", "[]", "{\"seq\": 3}", "{\"secrets\": {\"a\": 1}}"}) {
    writeText(path, text);
    EXPECT_EQ(refusalOf([&] { home.secrets(); }),
              path +
                  " is damaged; move it away and add this phone's secrets "
                  "again.")
        << text;
  }
  // Entries that cannot be read are skipped, the rest kept.
  writeText(path,
            R"({"seq": 7, "secrets": [{"name": "a", "kind": "bearer",
                "hosts": ["h", 3]}, {"name": 5}, "x"]})");
  const SecretList list = home.secrets();
  EXPECT_EQ(list.seq, 7);
  ASSERT_EQ(list.entries.size(), 1u);
  EXPECT_EQ(list.entries[0].hosts, std::vector<std::string>{"h"});
}

TEST(PhoneHomeTest, EntriesAndSessionsAreChecked) {
  EXPECT_EQ(SecretEntry::normalHost("API.Example.COM"), "api.example.com");
  for (const char* bad : {"", "a/b", "a b", "a\x7f"}) {
    EXPECT_EQ(refusalOf([&] { SecretEntry::normalHost(bad); }),
              "That is not a host: \"" + std::string(bad) + "\".");
  }
  EXPECT_EQ(refusalOf([] {
              SecretEntry{"ok", "bearer", {}, {}, {}}.check();
            }),
            "no refusal");
  EXPECT_NE(refusalOf([] {
              SecretEntry{"Bad Name", "bearer", {}, {}, {}}.check();
            }),
            "no refusal");
  EXPECT_EQ(refusalOf([] {
              SecretEntry{"ok", "password", {}, {}, {}}.check();
            }),
            "A secret's kind is bearer, basic, api_key or cookie.");

  SecretList list;
  list.put(SecretEntry{"github", "bearer", {"api.github.com"}, {}, {}});
  const SignInAsk taken{"https://github.com", "github.com", "github"};
  EXPECT_EQ(refusalOf([&] { list.checkSession(taken); }),
            "This phone already holds github as a bearer secret, so nothing "
            "was signed.");
  const SignInAsk ask{"https://shop.example", "shop.example", "shop"};
  list.checkSession(ask);
  list.putSession(ask, 1760000000);
  list.checkSession(ask);  // a session may be signed in again
  const SecretEntry* session = list.find("shop");
  ASSERT_NE(session, nullptr);
  EXPECT_EQ(session->kind, "cookie");
  EXPECT_EQ(session->hosts, std::vector<std::string>{"shop.example"});
  EXPECT_EQ(session->signedInAt, 1760000000);
  EXPECT_EQ(session->userAgent, "tolvanger-phone");
}

TEST(PhoneHomeTest, CloudKeyIsKeptAndABrokenOneRefused) {
  const TempHome temp;
  const PhoneHome home = PhoneHome::open(temp.path());
  const Bytes first = home.cloudKey().publicKey().raw();
  EXPECT_EQ(home.cloudKey().publicKey().raw(), first);
  const std::string path = home.file(PhoneHome::kCloudKeyFile);
  EXPECT_EQ(modeOf(path), 0600u);
  writeText(path, "short");
  EXPECT_EQ(refusalOf([&] { home.cloudKey(); }),
            path + " does not hold a key.");
}

}  // namespace
}  // namespace tolvanger::phone
