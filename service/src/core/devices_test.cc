// Tests of the registry of paired phones and of recovery codes.
#include "tolvanger/service/devices.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <set>

#include "testing/temp_home.h"

namespace tolvanger::service {
namespace {

using nlohmann::json;

class DevicesTest : public ::testing::Test {
 protected:
  Home home() const { return dir_.home(); }
  void writeFile(const std::string& text) const {
    home().writeAtomically(text, Devices::kFile);
  }

  static Device phone(std::string id, int64_t pairedAt) {
    return Device{.deviceID = std::move(id),
                  .name = "Phone",
                  .spki = {1, 2, 3},
                  .secret = std::string(48, 'a'),
                  .pairedAt = pairedAt,
                  .recovery = {"s:h"}};
  }

  TempHome dir_;
};

TEST_F(DevicesTest, FileRoundTripWithAndWithoutOptionals) {
  Device full = phone("b-phone", 200);
  full.pq = Bytes{9, 9};
  full.cloudKey = Bytes{7};
  full.announceSeq = 5;
  full.recoveryFailures = 3;
  const Device bare = phone("a-phone", 300);
  const Device tied = phone("c-phone", 200);
  {
    Devices devices(home());
    devices.put(bare);
    devices.put(full);
    devices.put(tied);
  }
  // Sorted keys; absent optionals are left out rather than written as null.
  const json file = json::parse(*home().read(Devices::kFile));
  ASSERT_EQ(file.size(), 3u);
  EXPECT_EQ(file[0]["pq"], "CQk=");
  EXPECT_FALSE(file[2].contains("pq"));
  EXPECT_FALSE(file[2].contains("announceSeq"));
  EXPECT_EQ(file[0].begin().key(), "announceSeq");

  Devices loaded(home());
  const auto all = loaded.all();
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all[0], full);  // oldest pairing first, ties allowed
  EXPECT_EQ(all[1], tied);
  EXPECT_EQ(all[2], bare);
  EXPECT_EQ(loaded.count(), 3u);
  EXPECT_FALSE(loaded.empty());
}

TEST_F(DevicesTest, AnyBadEntrySpoilsTheWholeFile) {
  json good = phone("a", 1).coded();
  json noFailures = phone("b", 2).coded();
  noFailures.erase("recoveryFailures");
  json badBase64 = phone("c", 3).coded();
  badBase64["spki"] = "not base64!";
  json wrongType = phone("d", 4).coded();
  wrongType["announceSeq"] = "5";
  for (const json& bad : {noFailures, badBase64, wrongType}) {
    writeFile(json::array({good, bad}).dump());
    EXPECT_TRUE(Devices(home()).empty()) << bad.dump();
  }
  for (const char* text : {"", "{", "{}", "[1]"}) {
    writeFile(text);
    EXPECT_TRUE(Devices(home()).empty()) << text;
  }
  // A null optional reads as absent.
  json nullPQ = good;
  nullPQ["pq"] = nullptr;
  writeFile(json::array({nullPQ}).dump());
  EXPECT_EQ(Devices(home()).device("a"), phone("a", 1));
}

TEST_F(DevicesTest, DuplicateIdIsFatalAndNamesTheFile) {
  writeFile(json::array({phone("a", 1).coded(), phone("a", 2).coded()}).dump());
  try {
    Devices devices(home());
    FAIL() << "a duplicate id loaded";
  } catch (const std::runtime_error& e) {
    EXPECT_NE(std::string(e.what()).find(home().file(Devices::kFile)),
              std::string::npos);
  }
}

TEST_F(DevicesTest, EditForgetAndAuthenticate) {
  Devices devices(home());
  devices.put(phone("a", 1));
  EXPECT_FALSE(devices.edit("nobody", [](Device&) { FAIL(); }));
  EXPECT_TRUE(devices.edit("a", [](Device& d) {
    d.announceSeq = 9;
    d.deviceID = "renamed";  // ignored
  }));
  EXPECT_EQ(devices.device("a")->announceSeq, 9);
  EXPECT_EQ(Devices(home()).device("a")->announceSeq, 9);

  const std::string secret(48, 'a');
  EXPECT_TRUE(devices.authenticate("a", secret));
  EXPECT_FALSE(devices.authenticate("a", std::string(47, 'a') + "b"));
  EXPECT_FALSE(devices.authenticate("a", secret + "a"));
  EXPECT_FALSE(devices.authenticate("a", ""));
  EXPECT_FALSE(devices.authenticate("b", secret));

  const auto before = home().read(Devices::kFile);
  EXPECT_FALSE(devices.forget("b"));
  EXPECT_EQ(home().read(Devices::kFile), before);
  EXPECT_TRUE(devices.forget("a"));
  EXPECT_TRUE(Devices(home()).empty());
}

TEST(Device, DerivedKeysAndFingerprints) {
  const auto key = crypto::P256PrivateKey::generate();
  const auto pqKey = crypto::MLDSA65PrivateKey::generate();
  Device d{.spki = key.publicKey().der()};
  EXPECT_FALSE(d.pqFingerprint());
  EXPECT_FALSE(d.pqPublicKey());
  ASSERT_TRUE(d.publicKey());
  EXPECT_EQ(d.publicKey()->der(), d.spki);

  d.pq = pqKey.publicKey().raw();
  EXPECT_EQ(d.pqFingerprint()->size(), 19u);
  ASSERT_TRUE(d.pqPublicKey());
  d.pq->pop_back();
  d.spki.pop_back();
  EXPECT_FALSE(d.pqPublicKey());
  EXPECT_FALSE(d.publicKey());
}

TEST(Recovery, NormaliseAndHash) {
  EXPECT_EQ(Recovery::normalise("ABCDE-FGHJK "), "abcdefghjk");
  EXPECT_EQ(Recovery::normalise("\tab-c\u00a0d\n"), "abcd");
  EXPECT_EQ(Recovery::hash("ABCDE-fghjk", "0011223344556677"),
            "0011223344556677:"
            "07e77ebc888a05b011f257394b07d06697e15c11753a388746938d3221d7bd46");
}

TEST(Recovery, MintGivesTenCodesOfTheAlphabet) {
  const auto codes = Recovery::mint();
  ASSERT_EQ(codes.size(), 10u);
  EXPECT_EQ(std::set<std::string>(codes.begin(), codes.end()).size(), 10u);
  for (const std::string& code : codes) {
    ASSERT_EQ(code.size(), 11u) << code;
    EXPECT_EQ(code[5], '-');
    for (size_t i = 0; i < code.size(); ++i) {
      if (i != 5) {
        EXPECT_NE(Recovery::kAlphabet.find(code[i]), std::string_view::npos)
            << code;
      }
    }
  }
}

TEST(Recovery, MatchFindsTheFirstFittingHash) {
  const auto codes = Recovery::mint();
  auto stored = Recovery::hashes(codes);
  ASSERT_EQ(stored.size(), 10u);
  EXPECT_NE(stored[0].substr(0, 17), stored[1].substr(0, 17));  // own salts
  EXPECT_EQ(stored[0].size(), 16u + 1 + 64);

  std::string shouted = codes[3];
  for (char& c : shouted) c = static_cast<char>(toupper(c));
  EXPECT_EQ(Recovery::match(" " + shouted + " ", stored), 3u);
  EXPECT_FALSE(Recovery::match("zzzzz-zzzzz", stored));

  // Malformed entries are skipped, not fatal.
  std::vector<std::string> odd = {"nocolon", ":abc", "abc:", stored[7]};
  EXPECT_EQ(Recovery::match(codes[7], odd), 3u);
  EXPECT_FALSE(Recovery::match(codes[7], {}));
}

}  // namespace
}  // namespace tolvanger::service
