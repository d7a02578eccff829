#include "tolvanger/phone/oauth_flow.h"

#include <gtest/gtest.h>

#include <map>

#include "https_upstream.h"
#include "testing/temp_home.h"
#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/mutex.h"

namespace tolvanger::phone {
namespace {

using testing::HTTPSUpstream;
using Kind = OAuthError::Kind;

// The error a call throws, or a default one when it throws none.
template <typename F>
OAuthError oauthError(F&& f) {
  try {
    f();
  } catch (const OAuthError& e) {
    return e;
  }
  return OAuthError(Kind::kProvider, "<nothing thrown>");
}

std::map<std::string, std::string> formOf(std::string_view body) {
  std::map<std::string, std::string> out;
  size_t at = 0;
  while (at < body.size()) {
    size_t end = body.find('&', at);
    if (end == std::string_view::npos) end = body.size();
    const std::string_view item = body.substr(at, end - at);
    const size_t eq = item.find('=');
    out[std::string(item.substr(0, eq))] = std::string(item.substr(eq + 1));
    at = end + 1;
  }
  return out;
}

TEST(PKCE, VerifierAndChallenge) {
  const std::string a = PKCE::verifier();
  EXPECT_EQ(a.size(), 64u);
  EXPECT_EQ(a.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrs"
                                "tuvwxyz0123456789-_"),
            std::string::npos);
  EXPECT_NE(a, PKCE::verifier());
  // The worked example of RFC 7636, appendix B.
  EXPECT_EQ(PKCE::challenge("dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk"),
            "E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM");
}

TEST(FormEncoding, UnreservedKeptEverythingElseEscaped) {
  EXPECT_EQ(FormEncoding::encode("aZ09-._~"), "aZ09-._~");
  EXPECT_EQ(FormEncoding::encode("a b+c/d:e=f&g%\xC3\xA9*"),
            "a%20b%2Bc%2Fd%3Ae%3Df%26g%25%C3%A9%2A");
  EXPECT_EQ(FormEncoding::body(
                {{"grant_type", "refresh_token"}, {"refresh_token", "a/b=="}}),
            "grant_type=refresh_token&refresh_token=a%2Fb%3D%3D");
}

TEST(OAuthFlowURL, SevenItemsInOrderThenExtras) {
  OAuthProvider google = *OAuthProvider::named("google");
  google.authorizationURL = "https://accounts.example/o/oauth2/v2/auth";
  const OAuthFlow flow(google, "123-abc.apps.googleusercontent.com", nullptr);
  const std::string verifier = "dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk";
  EXPECT_EQ(
      flow.authorizationURL(
          "st ate", verifier,
          {"https://www.googleapis.com/auth/gmail.modify", "openid"}),
      "https://accounts.example/o/oauth2/v2/auth?response_type=code"
      "&client_id=123-abc.apps.googleusercontent.com"
      "&redirect_uri=com.googleusercontent.apps.123-abc%3A%2Foauth2redirect"
      "&scope=https%3A%2F%2Fwww.googleapis.com%2Fauth%2Fgmail.modify%20openid"
      "&state=st%20ate"
      "&code_challenge=E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM"
      "&code_challenge_method=S256&access_type=offline&prompt=consent");
}

TEST(OAuthFlowCallback, ReadsCodeOrSaysWhyNot) {
  const std::string base = "tolvanger://oauth/gitlab";
  EXPECT_EQ(OAuthFlow::code(base + "?code=a%2Fb+c&state=s1", "s1"), "a/b c");
  EXPECT_EQ(OAuthFlow::code(base + "?state=s1&code=x&code=y#frag", "s1"), "x");

  OAuthError e = oauthError([&] { OAuthFlow::code(base + "?error=x", "s1"); });
  EXPECT_EQ(e.kind(), Kind::kDenied);
  EXPECT_STREQ(e.what(), "You declined the sign-in.");
  // An error wins over a wrong state: the person declined either way.
  e = oauthError([&] {
    OAuthFlow::code(base + "?error=access_denied&error_description=No+thanks",
                    "s1");
  });
  EXPECT_STREQ(e.what(), "No thanks");
  for (const std::string& url :
       {base + "?code=x&state=s2", base + "?code=x", base + "?code=x&state=s",
        base + "?code=x&state=s1x"}) {
    e = oauthError([&] { OAuthFlow::code(url, "s1"); });
    EXPECT_EQ(e.kind(), Kind::kMalformed) << url;
    EXPECT_STREQ(e.what(), "the callback is not this attempt's") << url;
  }
  e = oauthError([&] { OAuthFlow::code(base + "?state=s1&code=", "s1"); });
  EXPECT_STREQ(e.what(), "the callback carried no code");
  e = oauthError([&] { OAuthFlow::code(base + "?state=s1&code=%4", "s1"); });
  EXPECT_EQ(e.kind(), Kind::kMalformed);
  e = oauthError([&] {
    OAuthFlow::code(
        base + "?state=s1&code=" + std::string(OAuthFlow::kMaxCallback, 'a'),
        "s1");
  });
  EXPECT_EQ(e.kind(), Kind::kMalformed);
}

TEST(OAuthTokensParse, AnswersAndTheirSentences) {
  const OAuthTokens kept = OAuthTokens::parse(
      R"({"access_token":"at","expires_in":3600,"scope":"a b"})", "old-rt",
      1000);
  EXPECT_EQ(kept.accessToken, "at");
  EXPECT_EQ(kept.refreshToken, "old-rt");
  EXPECT_EQ(kept.expiresAt, 4600);
  EXPECT_EQ(kept.scope, "a b");
  const OAuthTokens fresh = OAuthTokens::parse(
      R"({"access_token":"at","refresh_token":"new","expires_in":"60"})", "old",
      0);
  EXPECT_EQ(fresh.refreshToken, "new");
  EXPECT_EQ(fresh.expiresAt, 60);
  EXPECT_EQ(OAuthTokens::fromJSON(kept.toJSON())->toJSON(), kept.toJSON());

  struct Case {
    std::string answer;
    Kind kind;
    std::string sentence;  // what the person reads
  };
  const std::vector<Case> cases = {
      {"<html>", Kind::kMalformed, "The token answer was not JSON."},
      {"[1]", Kind::kMalformed, "The token answer was not JSON."},
      {R"({"error":"invalid_grant","error_description":"gone"})",
       Kind::kNeedsReconnect, "Your GitLab connection needs reconnecting."},
      {R"({"error":"invalid_client","error_description":"Unknown client."})",
       Kind::kProvider, "Unknown client."},
      {R"({"error":"temporarily_unavailable"})", Kind::kProvider,
       "Temporarily_unavailable."},
      {R"({"expires_in":60})", Kind::kMalformed,
       "The token answer carried no access token."},
      {R"({"access_token":"at"})", Kind::kMalformed,
       "The token answer carried no lifetime."},
      {R"({"access_token":"at","expires_in":-5})", Kind::kMalformed,
       "The token answer carried no lifetime."},
  };
  for (const Case& c : cases) {
    const OAuthError e = oauthError(
        [&] { OAuthTokens::parse(c.answer, std::nullopt, 0, "GitLab"); });
    EXPECT_EQ(e.kind(), c.kind) << c.answer;
    EXPECT_EQ(Failures::of(e).sentence, c.sentence) << c.answer;
  }
}

TEST(DeviceCodeParse, NeedsCodesAnHttpsPageAndALifetime) {
  const DeviceCode code = DeviceCode::parse(
      R"({"device_code":"d","user_code":"ABCD-EFGH","expires_in":900,
          "verification_uri":"https://login.example/device"})",
      100);
  EXPECT_EQ(code.expiresAt, 1000);
  EXPECT_EQ(code.interval, 5);
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"nope", "the device-code answer was not JSON"},
      {R"({"user_code":"u","verification_uri":"https://x","expires_in":1})",
       "the device-code answer carried no code"},
      {R"({"device_code":"d","user_code":"u","verification_uri":"http://x","expires_in":1})",
       "the device-code answer named no https page"},
      {R"({"device_code":"d","user_code":"u","verification_uri":"https://x"})",
       "the device-code answer carried no lifetime"},
  };
  for (const auto& c : cases) {
    EXPECT_STREQ(oauthError([&] { DeviceCode::parse(c.first, 0); }).what(),
                 c.second.c_str());
  }
}

// A provider played by a local HTTPS server: the test sets its answers and
// reads what it received.
class ProviderServer {
 public:
  using Answer =
      std::function<HTTPSUpstream::Reply(const HTTPSUpstream::Received&)>;

  explicit ProviderServer(Answer answer)
      : upstream_(std::move(answer)), ca_(home_.path() + ".ca.pem") {
    upstream_.writeCA(ca_);
  }

  OAuthFlow flow(const std::string& id, std::vector<int64_t>* slept = nullptr,
                 int64_t* now = nullptr) {
    const std::string host = upstream_.netloc();
    OAuthDeployment deployment = OAuthDeployment::parse(
        R"({"providers": {")" + id + R"(": {"client_id": "the client",
            "hosts": {"auth": ")" +
        host + R"(", "api": ")" + host + R"(", "upload": ")" + host +
        R"("}}}, "ca_file": ")" + ca_ + R"("})");
    OAuthFlow::Clock clock = [now] { return now ? *now : 1000; };
    OAuthFlow::Sleep sleep = [slept, now](int64_t seconds) {
      if (slept) slept->push_back(seconds);
      if (now) *now += seconds;
    };
    return OAuthFlow(deployment.provider(id), deployment.clientID(id),
                     std::make_shared<CurlTokenTransport>(ca_), clock, sleep);
  }

  std::vector<HTTPSUpstream::Received> received() const {
    return upstream_.received();
  }

 private:
  TempHome home_;
  HTTPSUpstream upstream_;
  std::string ca_;
};

HTTPSUpstream::Reply json(int status, std::string body) {
  return {status, {{"content-type", "application/json"}}, std::move(body)};
}

TEST(OAuthFlowOnTheWire, BasicClientAuthHasAnEmptyPassword) {
  ProviderServer server([](const HTTPSUpstream::Received&) {
    return json(200, R"({"access_token":"at","expires_in":60})");
  });
  const OAuthFlow reddit = server.flow("reddit");
  const OAuthTokens tokens = reddit.exchange("the code", "v");
  EXPECT_EQ(tokens.accessToken, "at");
  EXPECT_EQ(tokens.expiresAt, 1060);
  const auto received = server.received();
  ASSERT_EQ(received.size(), 1u);
  EXPECT_EQ(received[0].method, "POST");
  EXPECT_EQ(received[0].target, "/api/v1/access_token");
  EXPECT_EQ(received[0].headers.at("authorization"),
            "Basic " + toBase64(asBytes("the client:")));
  EXPECT_EQ(received[0].headers.at("content-type"),
            "application/x-www-form-urlencoded");
  EXPECT_EQ(received[0].headers.at("accept"), "application/json");
  EXPECT_EQ(received[0].body,
            "grant_type=authorization_code&code=the%20code"
            "&redirect_uri=tolvanger%3A%2F%2Foauth%2Freddit&code_verifier=v");

  // The form carries the client id for every other provider.
  ProviderServer formServer([](const HTTPSUpstream::Received&) {
    return json(200, R"({"access_token":"at","expires_in":60})");
  });
  formServer.flow("gitlab").exchange("c", "v");
  const auto form = formOf(formServer.received().at(0).body);
  EXPECT_EQ(form.at("client_id"), "the%20client");
  EXPECT_EQ(formServer.received().at(0).headers.count("authorization"), 0u);
}

TEST(OAuthFlowOnTheWire, TwoSlowDownsAddTenSeconds) {
  Mutex mu;
  int polls = 0;  // guarded by mu
  ProviderServer server([&](const HTTPSUpstream::Received& r) {
    if (r.target == "/login/device/code") {
      return json(200, R"({"device_code":"dc","user_code":"WXYZ-1234",
          "verification_uri":"https://login.example/device","expires_in":900,
          "interval":5})");
    }
    MutexLock lock(mu);
    ++polls;
    if (polls == 1) return json(400, R"({"error":"authorization_pending"})");
    if (polls <= 3) return json(400, R"({"error":"slow_down"})");
    return json(200, R"({"access_token":"gho","expires_in":28800,
                         "refresh_token":"ghr","scope":"repo"})");
  });
  std::vector<int64_t> slept;
  int64_t now = 1000;
  const OAuthFlow github = server.flow("github", &slept, &now);
  const DeviceCode code = github.deviceCode({"repo", "read:org"});
  EXPECT_EQ(code.userCode, "WXYZ-1234");
  EXPECT_EQ(code.expiresAt, 1900);
  const OAuthTokens tokens = github.waitForDevice(code);
  EXPECT_EQ(tokens.accessToken, "gho");
  EXPECT_EQ(slept, (std::vector<int64_t>{5, 5, 10, 15}));

  const auto received = server.received();
  ASSERT_EQ(received.size(), 5u);
  EXPECT_EQ(received[0].body, "client_id=the%20client&scope=repo%20read%3Aorg");
  const auto poll = formOf(received[1].body);
  EXPECT_EQ(poll.at("grant_type"),
            "urn%3Aietf%3Aparams%3Aoauth%3Agrant-type%3Adevice_code");
  EXPECT_EQ(poll.at("device_code"), "dc");
  EXPECT_EQ(poll.at("client_id"), "the%20client");
}

TEST(OAuthFlowOnTheWire, DeviceEndsAndRefusals) {
  std::string pollAnswer;
  ProviderServer server(
      [&](const HTTPSUpstream::Received&) { return json(400, pollAnswer); });
  int64_t now = 1000;
  const OAuthFlow github = server.flow("github", nullptr, &now);
  DeviceCode code;
  code.deviceCode = "dc";
  code.expiresAt = 1020;
  code.interval = 5;

  pollAnswer = R"({"error":"expired_token"})";
  OAuthError e = oauthError([&] { github.waitForDevice(code); });
  EXPECT_EQ(e.kind(), Kind::kDenied);
  EXPECT_EQ(Failures::of(e).sentence,
            "The code expired before it was entered. Start again.");

  pollAnswer = R"({"error":"access_denied"})";
  e = oauthError([&] { github.waitForDevice(code); });
  EXPECT_STREQ(e.what(), "You declined the sign-in.");

  // Waiting past the code's end stops polling on our side.
  pollAnswer = R"({"error":"authorization_pending"})";
  now = 1000;
  const size_t before = server.received().size();
  e = oauthError([&] { github.waitForDevice(code); });
  EXPECT_EQ(e.kind(), Kind::kDenied);
  EXPECT_EQ(server.received().size() - before, 5u);  // at 1005..1025

  // A provider that leaves out the lifetime.
  pollAnswer = R"({"access_token":"gho","token_type":"bearer"})";
  now = 1000;
  e = oauthError([&] { github.waitForDevice(code); });
  EXPECT_STREQ(e.what(), "the token answer carried no lifetime");

  e = oauthError([&] { server.flow("gitlab").deviceCode({}); });
  EXPECT_STREQ(e.what(), "GitLab does not use the device flow");
}

TEST(OAuthFlowOnTheWire, RefreshKeepsTheOldTokenAndTlsIsVerified) {
  ProviderServer server([](const HTTPSUpstream::Received&) {
    return json(200, R"({"access_token":"at2","expires_in":60})");
  });
  const OAuthFlow gitlab = server.flow("gitlab");
  OAuthTokens tokens;
  tokens.accessToken = "at1";
  tokens.refreshToken = "rt1";
  const OAuthTokens next = gitlab.refresh(tokens);
  EXPECT_EQ(next.accessToken, "at2");
  EXPECT_EQ(next.refreshToken, "rt1");
  const auto form = formOf(server.received().at(0).body);
  EXPECT_EQ(form.at("grant_type"), "refresh_token");
  EXPECT_EQ(form.at("refresh_token"), "rt1");

  tokens.refreshToken.reset();
  EXPECT_STREQ(oauthError([&] { gitlab.refresh(tokens); }).what(),
               "no refresh token was issued");

  // Without the test CA the server's certificate is not trusted.
  OAuthProvider bare = gitlab.provider();
  const OAuthFlow untrusting(
      bare, "c",
      std::make_shared<CurlTokenTransport>(std::string("/nonexistent-ca.pem")));
  EXPECT_THROW(untrusting.exchange("c", "v"), TransportError);
}

}  // namespace
}  // namespace tolvanger::phone
