// Tests of announced secret names: building them from a phone's list, the
// registry's replacement and its file.
#include "tolvanger/service/secret_names.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "testing/service_internals.h"
#include "testing/temp_home.h"
#include "tolvanger/kit/service_error.h"
#include "tolvanger/service/service.h"

namespace tolvanger::service {
namespace {

using nlohmann::json;

std::string refusal(const json& list) {
  try {
    buildSecretNames(list, 0);
  } catch (const ServiceError& e) {
    EXPECT_TRUE(e.isRefused());
    return e.what();
  }
  return "";
}

TEST(BuildSecretNames, LimitsAndNames) {
  json list = json::array();
  for (int i = 0; i < 128; ++i)
    list.push_back({{"name", "s" + std::to_string(i)}});
  EXPECT_EQ(buildSecretNames(list, 0).size(), 128u);
  list.push_back({{"name", "one-more"}});
  EXPECT_EQ(refusal(list), "that is more secrets than this Mac will list");

  for (const json& bad : {json{{"kind", "bearer"}}, json{{"name", 7}},
                          json{{"name", "Gmail"}}, json("gmail")}) {
    EXPECT_EQ(refusal(json::array({{{"name", "fine"}}, bad})),
              "a secret has no usable name")
        << bad.dump();
  }
  EXPECT_TRUE(buildSecretNames(json::array(), 0).empty());
}

TEST(BuildSecretNames, FieldsRulesAndHosts) {
  json rules = json::array();
  rules.push_back({{"hosts", {"API.Host ", "a.host"}}, {"methods", {"GET"}}});
  rules.push_back({{"hosts", {"dropped"}}, {"methods", json::array()}});
  rules.push_back("not an object");
  for (int i = 3; i < 17; ++i)
    rules.push_back({{"hosts", {"r" + std::to_string(i)}}});
  rules.push_back({{"hosts", {"seventeenth"}}});
  json hosts = json::array({"", "x\ny", "Top.Host"});
  for (int i = 0; i < 40; ++i) hosts.push_back("h" + std::to_string(i));

  const auto built =
      buildSecretNames(json::array({{{"name", "api"},
                                     {"hosts", hosts},
                                     {"rules", rules},
                                     {"signed_in_at", 10},
                                     {"expires_by", 0},
                                     {"user_agent", "Mozilla/5.0 (X)"}},
                                    {{"name", "site"},
                                     {"kind", "cookie"},
                                     {"hosts", "not a list"},
                                     {"signed_in_at", 1.5},
                                     {"expires_by", 20},
                                     {"user_agent", "Caf\u00e9"}}}),
                       77);
  ASSERT_EQ(built.size(), 2u);
  const SecretName& api = built[0];
  EXPECT_EQ(api.kind, "bearer");
  EXPECT_EQ(api.updatedAt, 77);
  // Top-level hosts as sent (not normalised), cut to 32 before the rules'
  // hosts join, so the list may pass 32.
  EXPECT_EQ(api.hosts[0], "Top.Host");
  EXPECT_EQ(api.hosts[31], "h30");
  EXPECT_EQ(
      std::vector<std::string>(api.hosts.begin() + 32, api.hosts.begin() + 34),
      (std::vector<std::string>{"api.host", "a.host"}));
  EXPECT_EQ(api.hosts.back(), "r15");
  ASSERT_EQ(api.rules.size(), 14u);  // 16 read, 2 unusable
  EXPECT_EQ(api.rules[0].hosts[0], "api.host");
  EXPECT_EQ(api.signedInAt, 10);
  EXPECT_FALSE(api.expiresBy);
  EXPECT_EQ(api.userAgent, "Mozilla/5.0 (X)");

  const SecretName& site = built[1];
  EXPECT_EQ(site.kind, "cookie");
  EXPECT_TRUE(site.hosts.empty());
  EXPECT_FALSE(site.signedInAt);
  EXPECT_EQ(site.expiresBy, 20);
  EXPECT_FALSE(site.userAgent);  // non-ASCII is dropped, the entry stays

  // The socket's view never shows the user agent.
  const json shown = api.asDictionary();
  EXPECT_FALSE(shown.contains("user_agent"));
  EXPECT_EQ(shown["updated_at"], 77);
  EXPECT_EQ(shown["signed_in_at"], 10);
  EXPECT_FALSE(shown.contains("expires_by"));
  EXPECT_FALSE(site.asDictionary().contains("rules"));
}

TEST(BuildSecretNames, UserAgentLength) {
  const auto agent = [](const std::string& ua) {
    return buildSecretNames(json::array({{{"name", "s"}, {"user_agent", ua}}}),
                            0)[0]
        .userAgent;
  };
  EXPECT_EQ(agent(std::string(512, 'a')), std::string(512, 'a'));
  EXPECT_FALSE(agent(std::string(513, 'a')));
  EXPECT_FALSE(agent(""));
  EXPECT_FALSE(agent("tab\there"));
}

class SecretNamesTest : public ::testing::Test {
 protected:
  Home home() const { return dir_.home(); }
  TempHome dir_;
};

TEST_F(SecretNamesTest, ReplaceReturnsNewNamesAndPersists) {
  SecretNames names(home());
  SecretName b{
      .name = "b", .kind = "bearer", .hosts = {"b.host"}, .updatedAt = 1};
  SecretName a = b;
  a.name = "a";
  a.rules = {AccessRule{{"a.host"}, {"GET"}, {}}};
  a.signedInAt = 4;
  a.userAgent = "UA";
  EXPECT_EQ(names.replace({b, a}), (std::vector<std::string>{"a", "b"}));

  SecretName c = b;
  c.name = "c";
  SecretName newerB = b;
  newerB.updatedAt = 2;
  EXPECT_EQ(names.replace({c, b, a, newerB}), (std::vector<std::string>{"c"}));
  EXPECT_EQ(names.get("b")->updatedAt, 2);  // the later duplicate wins
  EXPECT_TRUE(names.has("c"));

  const json file = json::parse(*home().read(SecretNames::kFile));
  ASSERT_EQ(file.size(), 3u);
  EXPECT_EQ(file[0]["userAgent"], "UA");
  EXPECT_EQ(file[0]["signedInAt"], 4);
  EXPECT_FALSE(file[1].contains("signedInAt"));
  EXPECT_TRUE(file[1]["rules"].is_array());

  SecretNames loaded(home());
  EXPECT_EQ(loaded.all(), names.all());
  EXPECT_EQ(loaded.all()[0], a);

  EXPECT_TRUE(names.replace({}).empty());
  EXPECT_TRUE(names.all().empty());
  EXPECT_TRUE(SecretNames(home()).all().empty());
}

TEST_F(SecretNamesTest, UnreadableFileGivesAnEmptyRegistry) {
  json entry =
      SecretName{.name = "a", .kind = "bearer", .updatedAt = 1}.coded();
  entry.erase("updatedAt");
  for (const std::string& text : {std::string("nonsense"), std::string("{}"),
                                  json::array({entry}).dump()}) {
    home().writeAtomically(text, SecretNames::kFile);
    EXPECT_TRUE(SecretNames(home()).all().empty()) << text;
  }
}

// Two announcements from one phone at once, many times over: whatever the
// order in which they run, the list of the higher sequence stands, with its
// sequence, in memory and in both files, and the sequence never goes back.
TEST_F(SecretNamesTest, OfTwoRacingAnnouncementsTheNewerAlwaysWins) {
  Service service{home()};
  Device phone;
  phone.deviceID = "phone-1";
  ServiceInternals::devices(service).put(phone);
  const auto list = [](const std::string& name) {
    return json::array({{{"name", name}, {"hosts", {"api.example"}}}});
  };
  int64_t highest = 0;
  for (int64_t round = 1; round <= 150; ++round) {
    const int64_t older = 2 * round, newer = 2 * round + 1;
    std::atomic<int> ready{0};
    std::vector<std::thread> both;
    for (const int64_t seq : {older, newer}) {
      both.emplace_back([&, seq] {
        // Both start as close together as two threads can.
        ++ready;
        while (ready.load() < 2) {
        }
        service.announce(list("s" + std::to_string(seq)), seq, "phone-1");
      });
    }
    for (auto& t : both) t.join();
    const auto stood = service.secretNames();
    ASSERT_EQ(stood.size(), 1u);
    ASSERT_EQ(stood[0].name, "s" + std::to_string(newer)) << "round " << round;
    const int64_t seq = service.device("phone-1")->announceSeq.value();
    ASSERT_EQ(seq, newer) << "round " << round;
    ASSERT_GT(seq, highest);
    highest = seq;
  }
  EXPECT_EQ(SecretNames(home()).all()[0].name, "s301");
  EXPECT_EQ(Devices(home()).device("phone-1")->announceSeq, 301);
}

}  // namespace
}  // namespace tolvanger::service
