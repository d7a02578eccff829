#include "tolvanger/phone/oauth_catalogue.h"

#include <gtest/gtest.h>

#include <set>

#include "tolvanger/phone/phone_home.h"

namespace tolvanger::phone {
namespace {

TEST(OAuthCatalogue, ProvidersInOrderWithTheirOneOffs) {
  std::vector<std::string> ids;
  for (const OAuthProvider& p : OAuthProvider::all()) {
    ids.push_back(p.id);
    EXPECT_EQ(p.clientAuth == ClientAuth::kBasic, p.id == "reddit") << p.id;
    EXPECT_EQ(p.grant.kind == Grant::Kind::kDevice, p.id == "github") << p.id;
    EXPECT_EQ(p.redirect.kind == Redirect::Kind::kReversedClientID,
              p.id == "google")
        << p.id;
    EXPECT_FALSE(p.abilities.empty());
    std::set<std::string> abilityIDs;
    for (const Ability& a : p.abilities) {
      EXPECT_TRUE(abilityIDs.insert(a.id).second) << p.id << " " << a.id;
      EXPECT_FALSE(a.scopes.empty()) << a.id;
      // Every rule must survive the parse the computer applies, unchanged:
      // a rule that narrowed there would pin less than the person granted.
      for (const AccessRule& r : a.rules) {
        EXPECT_EQ(AccessRule::parse(r.asDictionary()), r) << p.id << a.id;
      }
    }
  }
  EXPECT_EQ(ids, (std::vector<std::string>{"google", "github", "microsoft",
                                           "dropbox", "gitlab", "reddit",
                                           "spotify", "discord"}));
  EXPECT_EQ(OAuthProvider::named("github")->grant.deviceURL,
            "https://{auth}/login/device/code");
  EXPECT_EQ(OAuthProvider::named("nope"), nullptr);
}

TEST(OAuthCatalogue, ScopesAreBaseThenAbilitiesEachOnce) {
  const OAuthProvider& google = *OAuthProvider::named("google");
  const std::vector<std::string> mail = google.scopes(
      {*google.ability("mail.read"), *google.ability("mail.send"),
       *google.ability("calendar"), *google.ability("mail.organize")});
  EXPECT_EQ(mail, (std::vector<std::string>{
                      "https://www.googleapis.com/auth/gmail.modify",
                      "https://www.googleapis.com/auth/calendar"}));
  const OAuthProvider& microsoft = *OAuthProvider::named("microsoft");
  EXPECT_EQ(
      microsoft.scopes(
          {*microsoft.ability("profile"), *microsoft.ability("mail.send")}),
      (std::vector<std::string>{"offline_access", "User.Read", "Mail.Send"}));
  const OAuthProvider& github = *OAuthProvider::named("github");
  EXPECT_EQ(github.scopes({*github.ability("repos.read"),
                           *github.ability("repos.write")}),
            (std::vector<std::string>{"repo", "read:org", "workflow"}));
  EXPECT_TRUE(github.scopes({}).empty());
}

TEST(OAuthCatalogue, RulesPinWhatTheAbilityNames) {
  const OAuthDeployment deployment = OAuthDeployment::parse(R"({
    "providers": {
      "google": {"client_id": "123-abc.apps.googleusercontent.com",
                 "hosts": {"auth": "accounts.example", "token": "token.example",
                           "api": "api.example", "sheets": "sheets.example",
                           "docs": "docs.example"}},
      "github": {"client_id": "gh", "hosts": {"auth": "login.example:8443",
                 "api": "api.example", "upload": "up.example"}}}})");
  const OAuthProvider google = deployment.provider("google");
  EXPECT_EQ(google.authorizationURL,
            "https://accounts.example/o/oauth2/v2/auth");
  EXPECT_EQ(google.tokenURL, "https://token.example/token");
  const auto covers = [](const Ability& a, std::string_view host,
                         std::string_view method, std::string_view path) {
    for (const AccessRule& r : a.rules) {
      if (r.covers(host, method, path)) return true;
    }
    return false;
  };
  const Ability& organize = *google.ability("mail.organize");
  EXPECT_TRUE(covers(organize, "api.example", "POST",
                     "/gmail/v1/users/me/messages/abc/trash"));
  EXPECT_FALSE(covers(organize, "api.example", "POST",
                      "/gmail/v1/users/me/messages//trash"));
  EXPECT_FALSE(covers(organize, "api.example", "DELETE",
                      "/gmail/v1/users/me/messages/abc"));
  EXPECT_FALSE(covers(organize, "other.example", "POST",
                      "/gmail/v1/users/me/messages/abc/trash"));
  const Ability& drive = *google.ability("drive");
  EXPECT_TRUE(covers(drive, "sheets.example", "PUT", "/v4/spreadsheets/x"));
  EXPECT_FALSE(covers(drive, "api.example", "GET", "/gmail/v1/users/me"));

  const OAuthProvider github = deployment.provider("github");
  // The token role falls back to the authorisation host.
  EXPECT_EQ(github.tokenURL,
            "https://login.example:8443/login/oauth/access_token");
  EXPECT_EQ(github.grant.deviceURL,
            "https://login.example:8443/login/device/code");
  EXPECT_TRUE(covers(*github.ability("repos.write"), "up.example", "POST",
                     "/repos/a/b/releases/1/assets"));
  EXPECT_FALSE(covers(*github.ability("repos.write"), "api.example", "DELETE",
                      "/repos/a/b"));
  EXPECT_TRUE(covers(*github.ability("repos.delete"), "api.example", "DELETE",
                     "/repos/a/b"));

  EXPECT_EQ(google.redirect.uri("123-abc.apps.googleusercontent.com", "google"),
            "com.googleusercontent.apps.123-abc:/oauth2redirect");
  EXPECT_EQ(github.redirect.uri("gh", "github"), "tolvanger://oauth/github");
}

TEST(OAuthCatalogue, DeploymentFileRefusesWhatItCannotUse) {
  const auto refusal = [](std::string_view text) -> std::string {
    try {
      OAuthDeployment::parse(text);
    } catch (const Refusal& r) {
      return r.what();
    }
    return "";
  };
  EXPECT_NE(refusal("[]"), "");
  EXPECT_NE(refusal(R"({"providers": {"github": {"client_id": 5}}})"), "");
  EXPECT_NE(
      refusal(R"({"providers": {"github": {"hosts": {"api": "A.example"}}}})"),
      "");
  EXPECT_NE(refusal(R"({"providers": {"github": {"hosts": {"api": "a/b"}}}})"),
            "");
  EXPECT_NE(refusal(R"({"providers": {"github": {"hosts": {"api": "a:0"}}}})"),
            "");

  const OAuthDeployment partial = OAuthDeployment::parse(
      R"({"providers": {"github": {"hosts": {"auth": "login.example"}}}})");
  try {
    partial.provider("github");
    FAIL();
  } catch (const Refusal& r) {
    EXPECT_STREQ(r.what(),
                 "The OAuth configuration names no api host for GitHub.");
  }
  EXPECT_THROW(partial.clientID("github"), Refusal);
  EXPECT_THROW(partial.provider("spotify"), Refusal);
  EXPECT_THROW(partial.provider("nope"), Refusal);
}

TEST(TokenPresets, TableAndSiteHosts) {
  std::vector<std::string> ids;
  for (const TokenPreset& p : TokenPreset::all()) {
    ids.push_back(p.id);
    EXPECT_TRUE(p.kind == "bearer" || p.kind == "basic" || p.kind == "api_key");
    EXPECT_EQ(p.host.kind == TokenPreset::Host::Kind::kSite, p.id == "jira");
    EXPECT_EQ(p.emailLabel.has_value(), p.kind == "basic");
  }
  EXPECT_EQ(ids, (std::vector<std::string>{"jira", "slack", "notion", "linear",
                                           "stripe", "cloudflare", "vercel"}));
  const OAuthDeployment deployment = OAuthDeployment::parse(R"({
    "presets": {"jira": {"hosts": {"page": "id.example", "suffix": "jira.example"}},
                "linear": {"hosts": {"page": "app.example", "api": "api.example"}}}})");
  const TokenPreset jira = deployment.preset("jira");
  const std::vector<Ability> mine = jira.abilitiesFor("acme");
  EXPECT_TRUE(mine[0].rules[0].covers("acme.jira.example", "GET",
                                      "/rest/agile/1.0/board"));
  EXPECT_FALSE(mine[0].rules[0].covers("acme.jira.example", "POST",
                                       "/rest/api/3/issue"));
  EXPECT_TRUE(mine[1].rules[0].covers("acme.jira.example", "POST",
                                      "/rest/api/3/issue"));
  EXPECT_THROW(jira.abilitiesFor("evil.example/x"), Refusal);
  EXPECT_THROW(jira.abilitiesFor(""), Refusal);
  const TokenPreset linear = deployment.preset("linear");
  EXPECT_EQ(linear.tokenPage, "https://app.example/settings/api");
  EXPECT_TRUE(
      linear.abilities[0].rules[0].covers("api.example", "POST", "/graphql"));
  EXPECT_THROW(deployment.preset("stripe"), Refusal);
}

}  // namespace
}  // namespace tolvanger::phone
