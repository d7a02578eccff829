#include "tolvanger/service/config.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <regex>
#include <string>

#include "testing/temp_home.h"

namespace tolvanger::service {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

class ConfigTest : public ::testing::Test {
 protected:
  Config loadText(const std::string& text) {
    home_.writeAtomically(text, "config.json");
    return Config::load(home_);
  }

  // A file that decodes strictly, with values unlike the defaults.
  static json full() {
    return json::parse(R"({
      "daemon_id": "tolvanger-0badc0de", "host": "desk",
      "listen": ["10.0.0.2", "auto"], "listen_port": 9000,
      "expiry_s": 60, "min_expiry_s": 30, "max_expiry_s": 90,
      "pair_window_s": 10, "redeem_grace_s": 20, "credential_ttl_s": 5,
      "require_sealed": false, "max_phones": 3,
      "cloud": {"enabled": false, "container": "iCloud.other"},
      "tripwire": {"enabled": false, "stale_days": 7, "window_s": 60}
    })");
  }

  TempHome dir_;
  Home home_ = dir_.home();
};

TEST_F(ConfigTest, DefaultsAndMissingFiles) {
  Config a = Config::defaults();
  EXPECT_TRUE(
      std::regex_match(a.daemonID, std::regex("tolvanger-[0-9a-f]{8}")));
  EXPECT_NE(a.daemonID, Config::defaults().daemonID);
  EXPECT_FALSE(a.host.empty());

  for (const char* bad : {"", "{not json", "[1, 2]", "\"text\""}) {
    Config c = loadText(bad);
    EXPECT_EQ(c.listenPort, 8645) << bad;
    EXPECT_EQ(c.maxPhones, 1) << bad;
  }
}

TEST_F(ConfigTest, SaveWritesEverythingSortedAndLoadsBackStrictly) {
  Config c = loadText(full().dump());
  c.save(home_);
  struct stat st;
  ASSERT_EQ(stat(home_.file("config.json").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  std::string text = *home_.read("config.json");
  json saved = json::parse(text);
  EXPECT_EQ(saved.size(), 14u);
  EXPECT_EQ(saved, full());
  EXPECT_LT(text.find("\"cloud\""), text.find("\"credential_ttl_s\""));
  EXPECT_NE(text.find("\n  \"daemon_id\": "), std::string::npos);
  EXPECT_EQ(Config::load(home_), c);
}

TEST_F(ConfigTest, StrictDecodeTakesValuesAsTheyStand) {
  json j = full();
  j["max_phones"] = 0;        // no check on the strict path
  j["min_expiry_s"] = 9999;   // nor any clamp
  j["something_new"] = true;  // unknown keys are ignored
  j["cloud"] = json::object();
  j["tripwire"] = {{"stale_days", 2}, {"window_s", nullptr}};
  Config c = loadText(j.dump());
  EXPECT_EQ(c.maxPhones, 0);
  EXPECT_EQ(c.minExpirySeconds, 9999);
  EXPECT_EQ(c.daemonID, "tolvanger-0badc0de");
  EXPECT_EQ(c.cloud, CloudRoadConfig{});
  EXPECT_EQ(c.tripwire.staleDays, 2);
  EXPECT_EQ(c.tripwire.windowSeconds, 1800);
  EXPECT_TRUE(c.tripwire.enabled);
}

TEST_F(ConfigTest, RescueKeepsWhatReadsKeyByKey) {
  // One wrong value: a single text for the list.
  json j = full();
  j["listen"] = "192.168.1.4";
  Config c = loadText(j.dump());
  EXPECT_EQ(c.listen, std::vector<std::string>{"192.168.1.4"});
  EXPECT_EQ(c.daemonID, "tolvanger-0badc0de");
  EXPECT_EQ(c.listenPort, 9000);
  EXPECT_EQ(c.maxPhones, 3);
  EXPECT_FALSE(c.cloud.enabled);
  EXPECT_EQ(c.tripwire.windowSeconds, 60);

  // Zero phones survives only the strict path.
  j = full();
  j["max_phones"] = 0;
  j.erase("host");
  c = loadText(j.dump());
  EXPECT_EQ(c.maxPhones, 1);
  EXPECT_EQ(c.host, Config::machineName());

  // Mistyped values each fall back alone; a fresh id when none is given.
  j = full();
  j.erase("daemon_id");
  j["listen_port"] = 9000.0;
  j["expiry_s"] = 18446744073709551615u;
  j["require_sealed"] = "no";
  j["listen"] = json::array();
  j["host"] = "";
  j["cloud"] = {{"enabled", "yes"}, {"container", ""}};
  j["tripwire"] = {{"stale_days", "3"}, {"window_s", 5}};
  c = loadText(j.dump());
  EXPECT_TRUE(
      std::regex_match(c.daemonID, std::regex("tolvanger-[0-9a-f]{8}")));
  EXPECT_NE(c.daemonID, Config::load(home_).daemonID);
  EXPECT_EQ(c.listenPort, 8645);
  EXPECT_EQ(c.expirySeconds, 300);
  EXPECT_TRUE(c.requireSealed);
  EXPECT_EQ(c.listen, std::vector<std::string>{"auto"});
  EXPECT_EQ(c.host, Config::machineName());
  EXPECT_EQ(c.cloud, CloudRoadConfig{});
  EXPECT_EQ(c.tripwire.staleDays, 21);
  EXPECT_EQ(c.tripwire.windowSeconds, 5);
  EXPECT_EQ(c.minExpirySeconds, 30);

  // An empty single text is still taken as the list.
  c = loadText(R"({"listen": ""})");
  EXPECT_EQ(c.listen, std::vector<std::string>{""});
}

TEST_F(ConfigTest, WindowClampsMinimumFirst) {
  Config c = Config::defaults();
  EXPECT_EQ(c.window(std::nullopt), 300);
  EXPECT_EQ(c.window(1), 120);
  EXPECT_EQ(c.window(999999), 7200);
  EXPECT_EQ(c.window(600), 600);
  c.minExpirySeconds = 500;
  c.maxExpirySeconds = 400;
  EXPECT_EQ(c.window(450), 400);
  c.expirySeconds = 10;
  c.maxExpirySeconds = 7200;
  EXPECT_EQ(c.window(std::nullopt), 500);
}

}  // namespace
}  // namespace tolvanger::service
