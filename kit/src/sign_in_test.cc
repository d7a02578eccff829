// Tests of the sign-in logic the phone and the Mac share: which addresses
// may be opened, when a page may be kept, and how cookies become a header.
#include "tolvanger/kit/sign_in.h"

#include <gtest/gtest.h>

namespace tolvanger::SignIn {
namespace {

TEST(SignInHost, OnlyHttpsOnTheDefaultPortWithAPlainDottedHost) {
  EXPECT_EQ(host("https://Example.COM/login?next=/"), "example.com");
  EXPECT_EQ(host("HTTPS://example.com:443"), "example.com");
  for (const char* refused : {
           "http://example.com/",         // not https
           "https://example.com:8443/",   // another port
           "https://user@example.com/",   // a user
           "https://u:p@example.com/",    // a password
           "https://localhost/",          // no dot
           "https://.example.com/",       // a leading dot
           "https://exa_mple.com/",       // a forbidden character
           "https://[::1]/",              // an address literal
           "https://example.com/a b",     // a blank
           "https://example.com/\nEvil",  // a line break to fake a line
           "example.com",                 // no scheme at all
       }) {
    EXPECT_EQ(host(refused), std::nullopt) << refused;
  }
}

TEST(SignInNames, NamesAndTheirDefault) {
  EXPECT_TRUE(isName("0day_cookies-1.com"));
  EXPECT_FALSE(isName("GitHub"));
  EXPECT_FALSE(isName("-github"));
  EXPECT_FALSE(isName(std::string(65, 'a')));
  EXPECT_EQ(defaultName("mail.example.com"), "mail.example.com");
  EXPECT_EQ(defaultName(std::string(61, 'a') + ".com"), std::nullopt);
}

TEST(SignInReadiness, StepsInOrderAndWhichMayBeKeptAnyway) {
  using Kind = Readiness::Kind;
  const std::string origin = "example.com";
  EXPECT_EQ(readiness(origin, std::nullopt, true, false, true).kind,
            Kind::kUnsavable);
  EXPECT_EQ(readiness(origin, "example.com", false, false, true).kind,
            Kind::kLoading);
  // A login on a subdomain or a sibling of the same site is still home.
  EXPECT_EQ(readiness(origin, "login.example.com", true, false, true).kind,
            Kind::kReady);
  EXPECT_EQ(
      readiness("app.example.com", "id.example.com", true, false, true).kind,
      Kind::kReady);
  const Readiness away =
      readiness(origin, "accounts.other.net", true, true, true);
  EXPECT_EQ(away, (Readiness{Kind::kElsewhere, "accounts.other.net"}));
  EXPECT_EQ(readiness(origin, "example.com", true, true, true).kind,
            Kind::kForm);
  EXPECT_EQ(readiness(origin, "example.com", true, false, false).kind,
            Kind::kUntouched);
  // "ample.com" merely ends with the same letters.
  EXPECT_FALSE(related("example.com", "ample.com"));

  for (Kind kind : {Kind::kElsewhere, Kind::kForm, Kind::kUntouched}) {
    EXPECT_TRUE((Readiness{kind, {}}).anyway());
  }
  for (Kind kind : {Kind::kLoading, Kind::kUnsavable, Kind::kReady}) {
    EXPECT_FALSE((Readiness{kind, {}}).anyway());
  }
}

TEST(SignInSession, KeepsTheHostsUsableCookiesInSendingOrder) {
  constexpr int64_t kNow = 1760000000;
  const std::vector<Cookie> cookies = {
      {"theme", "dark", "example.com", "/", std::nullopt, false},
      {"sid", "s3cr3t", ".example.com", "/", kNow + 3600, true},
      {"scope", "deep", "www.example.com", "/app/v2", kNow + 60, false},
      {"b", "1", "www.example.com", "/app", std::nullopt, true},
      {"a", "2", "www.example.com", "/app", std::nullopt, false},
      {"old", "x", "example.com", "/", kNow, false},          // expired now
      {"other", "x", "ample.com", "/", std::nullopt, false},  // not a parent
      {"child", "x", "a.www.example.com", "/", std::nullopt, false},
      {"", "x", "example.com", "/", std::nullopt, false},  // no name
      {"split", "a;b", "example.com", "/", std::nullopt, false},
      {"nul", std::string("a\0b", 3), "example.com", "/", std::nullopt, false},
      {"line", "a\u2028b", "example.com", "/", std::nullopt, false},
  };
  const std::optional<Session> got = session(cookies, "WWW.example.com", kNow);
  ASSERT_TRUE(got.has_value());
  EXPECT_EQ(got->header, "scope=deep; a=2; b=1; sid=s3cr3t; theme=dark");
  EXPECT_EQ(got->count, 5u);
  EXPECT_EQ(got->expiresBy, kNow + 3600);
  EXPECT_EQ(serverMarks(cookies), (std::set<std::string>{"b", "sid"}));

  EXPECT_EQ(session(cookies, "other.org", kNow), std::nullopt);
  const std::optional<Session> sessionOnly =
      session({cookies[0]}, "example.com", kNow);
  ASSERT_TRUE(sessionOnly.has_value());
  EXPECT_EQ(sessionOnly->expiresBy, std::nullopt);
}

}  // namespace
}  // namespace tolvanger::SignIn
