// Tests of access rules: how a phone's rule is read, what it covers, and the
// digest of an announced list.
#include "tolvanger/kit/access_rule.h"

#include <gtest/gtest.h>

#include <unordered_set>

namespace tolvanger {
namespace {

using nlohmann::json;

AccessRule mustParse(const json& value) {
  auto rule = AccessRule::parse(value);
  EXPECT_TRUE(rule.has_value()) << value.dump();
  return rule.value_or(AccessRule{});
}

TEST(AccessRule, ParseNormalisesAndNarrows) {
  const AccessRule rule =
      mustParse({{"hosts", {"API.Host ", "", "a/b", "x\ny", "\tok.host"}},
                 {"methods", {"get", "Trace", "DELETE"}},
                 {"paths", {"/v1", "v2", "/a\nb", "/"}}});
  EXPECT_EQ(rule.hosts, (std::vector<std::string>{"api.host", "ok.host"}));
  EXPECT_EQ(rule.methods, (std::vector<std::string>{"GET", "DELETE"}));
  EXPECT_EQ(rule.paths, (std::vector<std::string>{"/v1", "/"}));

  // Absent methods (or a value that is no list) mean all five; paths that
  // filter to nothing mean every path.
  const AccessRule open =
      mustParse({{"hosts", {"h"}}, {"paths", {"nope"}}, {"methods", "GET"}});
  EXPECT_EQ(open.methods.size(), 5u);
  EXPECT_TRUE(open.paths.empty());
  EXPECT_TRUE(open.covers("h", "PATCH", "/anything"));

  // A rule is dropped rather than widened.
  EXPECT_FALSE(
      AccessRule::parse({{"hosts", {"h"}}, {"methods", json::array()}}));
  EXPECT_FALSE(AccessRule::parse({{"hosts", {"h"}}, {"methods", {"trace"}}}));
  EXPECT_FALSE(AccessRule::parse({{"hosts", {" ", "/"}}}));
  EXPECT_FALSE(AccessRule::parse({{"hosts", {"h", 3}}}));  // not all text
  EXPECT_FALSE(AccessRule::parse(json::array()));

  // Caps apply to what survived the filter.
  json hosts = json::array({"bad/"}), paths = json::array();
  for (int i = 0; i < 40; ++i) {
    hosts.push_back("h" + std::to_string(i));
    paths.push_back("/p" + std::to_string(i));
  }
  const AccessRule capped = mustParse({{"hosts", hosts}, {"paths", paths}});
  EXPECT_EQ(capped.hosts.size(), 32u);
  EXPECT_EQ(capped.hosts.front(), "h0");
  EXPECT_EQ(capped.paths.size(), 32u);
}

TEST(AccessRule, PrefixMatchesWholePieces) {
  EXPECT_TRUE(AccessRule::prefix("/", "/anything/at/all"));
  EXPECT_TRUE(AccessRule::prefix("/", "/"));
  EXPECT_TRUE(AccessRule::prefix("/a/", "/a"));
  EXPECT_TRUE(AccessRule::prefix("/a/", "/a/b"));
  EXPECT_FALSE(AccessRule::prefix("/a/", "/ab"));
  EXPECT_FALSE(AccessRule::prefix("/a", "/ab"));
  EXPECT_TRUE(AccessRule::prefix("/v1/me/messages", "/v1/me/messages/17"));
  EXPECT_FALSE(AccessRule::prefix("/v1/me/messages", "/v1/me"));
  const char* modify = "/gmail/v1/users/me/messages/*/modify";
  EXPECT_TRUE(
      AccessRule::prefix(modify, "/gmail/v1/users/me/messages/abc/modify"));
  EXPECT_FALSE(
      AccessRule::prefix(modify, "/gmail/v1/users/me/messages//modify"));
  EXPECT_FALSE(
      AccessRule::prefix(modify, "/gmail/v1/users/me/messages/abc/send"));
  EXPECT_FALSE(AccessRule::prefix("/a/*", "/a/"));
  EXPECT_FALSE(AccessRule::prefix("/A", "/a"));
}

TEST(AccessRule, CoversHostMethodAndPathWithoutQuery) {
  const AccessRule rule = mustParse({{"hosts", {"api.host", "api.host:8443"}},
                                     {"methods", {"GET"}},
                                     {"paths", {"/v1/", "/files/*/raw"}}});
  EXPECT_TRUE(rule.covers("api.host", "GET", "/v1/x?y=/z"));
  EXPECT_TRUE(rule.covers("api.host", "GET", "/v1?y"));
  EXPECT_TRUE(rule.covers("api.host:8443", "GET", "/files/9/raw/more"));
  EXPECT_FALSE(rule.covers("api.host", "GET", "/v2?q=/v1/"));
  EXPECT_FALSE(rule.covers("API.host", "GET", "/v1"));  // exact host
  EXPECT_FALSE(rule.covers("api.host", "get", "/v1"));  // exact method
  EXPECT_FALSE(rule.covers("api.host", "POST", "/v1"));
  EXPECT_FALSE(rule.covers("other.host", "GET", "/v1"));
}

TEST(AccessRule, SentenceDictionaryAndEquality) {
  const AccessRule all = mustParse({{"hosts", {"a.com", "b.com"}}});
  EXPECT_EQ(all.sentence(), "anything on a.com, b.com");
  const AccessRule some = mustParse({{"hosts", {"a.com"}},
                                     {"methods", {"POST", "GET"}},
                                     {"paths", {"/x", "/y"}}});
  EXPECT_EQ(some.sentence(), "POST/GET on a.com under /x, /y");
  // All five in another order are not "anything".
  const AccessRule shuffled =
      mustParse({{"hosts", {"a.com"}},
                 {"methods", {"DELETE", "GET", "POST", "PUT", "PATCH"}}});
  EXPECT_EQ(shuffled.sentence(), "DELETE/GET/POST/PUT/PATCH on a.com");

  const json dict = some.asDictionary();
  EXPECT_EQ(dict, json::parse(R"({"hosts":["a.com"],"methods":["POST","GET"],
                                  "paths":["/x","/y"]})"));
  EXPECT_EQ(AccessRule::parse(dict), some);
  EXPECT_NE(some, all);
  std::unordered_set<AccessRule> set{some, some, all};
  EXPECT_EQ(set.size(), 2u);
}

TEST(SecretAnnouncement, DictionaryAndDigest) {
  SecretAnnouncement gmail{
      .name = "gmail",
      .kind = "bearer",
      .hosts = {"gmail.googleapis.com"},
      .rules = {AccessRule{
          {"gmail.googleapis.com"}, {"GET", "POST"}, {"/gmail/v1"}}},
      .signedInAt = 5};
  SecretAnnouncement site{
      .name = "site", .kind = "cookie", .expiresBy = 9, .userAgent = "UA/1"};

  EXPECT_EQ(site.asDictionary(),
            json::parse(R"({"name":"site","kind":"cookie","hosts":[],
                            "expires_by":9,"user_agent":"UA/1"})"));
  EXPECT_TRUE(gmail.asDictionary().contains("rules"));
  EXPECT_EQ(gmail.asDictionary()["signed_in_at"], 5);

  // Fixed value: separators, field order and the sort of lines all count.
  const std::string digest = SecretAnnouncement::digest({gmail, site});
  EXPECT_EQ(digest, "883a-5067-0342-601e");
  EXPECT_EQ(SecretAnnouncement::digest({site, gmail}), digest);

  SecretAnnouncement changed = gmail;
  changed.rules[0].paths.clear();
  EXPECT_NE(SecretAnnouncement::digest({changed, site}), digest);
  changed = gmail;
  changed.signedInAt.reset();
  changed.expiresBy = 5;  // "e5" is not "s5"
  EXPECT_NE(SecretAnnouncement::digest({changed, site}), digest);
  EXPECT_EQ(SecretAnnouncement::digest({}), "e3b0-c442-98fc-1c14");
}

}  // namespace
}  // namespace tolvanger
