// The phone's OAuth flows against a real authorisation server (oidc-provider
// on loopback, trusted through the test CA), with the test playing the person
// at the server's pages over HTTP.
#include <curl/curl.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <thread>

#include "harness.h"
#include "https_upstream.h"
#include "paired_service.h"
#include "tolvanger/kit/clock.h"
#include "tolvanger/phone/oauth_flow.h"
#include "tolvanger/phone/token_vault.h"

namespace tolvanger::testing {
namespace {

namespace fs = std::filesystem;
using phone::OAuthDeployment;
using phone::OAuthError;
using phone::OAuthFlow;
using phone::OAuthTokens;

// The authorisation server, running until the value dies.
class OIDCServer {
 public:
  explicit OIDCServer(const TempDir& dir) {
    const std::string tools = TOLVANGER_NODE_TOOLS_DIR;
    if (tools.empty() || !fs::exists(tools + "/node_modules/oidc-provider")) {
      throw std::runtime_error(
          "oidc-provider is missing; scripts/bootstrap.sh installs it and "
          "CMake must be given TOLVANGER_NODE_TOOLS_DIR");
    }
    identity_.writeCA(dir.file("ca.pem"));
    identity_.writeServerIdentity(dir.file("cert.pem"), dir.file("key.pem"));
    caFile_ = dir.file("ca.pem");
    child_ = std::make_unique<Child>(
        std::vector<std::string>{"/usr/bin/env", "node",
                                 std::string(TOLVANGER_FUNCTIONAL_DIR) +
                                     "/../support/oidc_server.mjs",
                                 dir.file("cert.pem"), dir.file("key.pem")},
        std::vector<std::pair<std::string, std::string>>{{"NODE_PATH", tools}});
    const std::optional<std::string> line = child_->readLine();
    if (!line || !line->starts_with("listening ")) {
      const Ran ran = child_->wait(std::chrono::seconds(2));
      throw std::runtime_error("the authorisation server did not start: " +
                               ran.err);
    }
    host_ = "localhost:" + line->substr(10);
  }

  const std::string& host() const { return host_; }
  const std::string& caFile() const { return caFile_; }

  // The deployment that points `provider` at this server as `client`.
  OAuthDeployment deployment(const std::string& provider,
                             const std::string& client) const {
    return OAuthDeployment::parse(nlohmann::json{
        {"providers",
         {{provider,
           {{"client_id", client},
            {"hosts",
             {{"auth", host_}, {"api", "api.test"}, {"upload", "up.test"}}}}}}},
        {"ca_file", caFile_}}.dump());
  }

  OAuthFlow flow(const std::string& provider, const std::string& client,
                 OAuthFlow::Sleep sleep = nullptr) const {
    const OAuthDeployment d = deployment(provider, client);
    return OAuthFlow(d.provider(provider), d.clientID(provider),
                     std::make_shared<phone::CurlTokenTransport>(caFile_),
                     nullptr, std::move(sleep));
  }

 private:
  HTTPSUpstream identity_;
  std::string caFile_;
  std::string host_;
  std::unique_ptr<Child> child_;
};

// A person's browser: keeps cookies, trusts the test CA, and follows no
// redirect by itself so that the test sees where it is sent.
class Browser {
 public:
  struct Page {
    long status = 0;
    std::string location;
    std::string body;
  };

  explicit Browser(const std::string& caFile)
      : handle_(curl_easy_init(), curl_easy_cleanup) {
    CURL* h = handle_.get();
    curl_easy_setopt(h, CURLOPT_CAINFO, caFile.c_str());
    curl_easy_setopt(h, CURLOPT_COOKIEFILE, "");
    curl_easy_setopt(h, CURLOPT_NOPROXY, "*");
    curl_easy_setopt(h, CURLOPT_TIMEOUT, 20L);
    curl_easy_setopt(
        h, CURLOPT_WRITEFUNCTION, +[](char* d, size_t s, size_t n, void* u) {
          static_cast<std::string*>(u)->append(d, s * n);
          return s * n;
        });
  }

  Page get(const std::string& url) { return go(url, nullptr); }
  Page post(const std::string& url, const std::string& form) {
    return go(url, &form);
  }

  // Follows redirects from `url` until one leaves for `scheme`, and
  // returns that address; "" when the pages end elsewhere.
  std::string followTo(std::string url, const std::string& scheme) {
    for (int i = 0; i < 20; ++i) {
      if (url.starts_with(scheme)) return url;
      const Page page = get(url);
      if (page.location.empty()) return "";
      url = page.location;
    }
    return "";
  }

  // Enters `userCode` at the device page `url` and confirms it, as the
  // person does; returns the last page.
  Page enterDeviceCode(const std::string& url, const std::string& userCode) {
    Page page = get(url);
    const std::string code = "user_code=" + userCode;
    page = post(url, "xsrf=" + xsrf(page.body) + "&" + code);
    page = post(url, "xsrf=" + xsrf(page.body) + "&" + code + "&confirm=yes");
    for (int i = 0; i < 20 && !page.location.empty(); ++i) {
      page = get(page.location);
    }
    return page;
  }

 private:
  static std::string xsrf(const std::string& html) {
    std::smatch match;
    static const std::regex kXsrf(R"re(name="xsrf" value="([^"]+)")re");
    return std::regex_search(html, match, kXsrf) ? match[1].str() : "";
  }

  Page go(const std::string& url, const std::string* form) {
    CURL* h = handle_.get();
    Page page;
    curl_easy_setopt(h, CURLOPT_URL, url.c_str());
    curl_easy_setopt(h, CURLOPT_WRITEDATA, &page.body);
    if (form) {
      curl_easy_setopt(h, CURLOPT_POSTFIELDS, form->c_str());
    } else {
      curl_easy_setopt(h, CURLOPT_HTTPGET, 1L);
    }
    if (curl_easy_perform(h) != CURLE_OK) return page;
    curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &page.status);
    char* location = nullptr;
    curl_easy_getinfo(h, CURLINFO_REDIRECT_URL, &location);
    if (location) page.location = location;
    return page;
  }

  std::unique_ptr<CURL, void (*)(CURL*)> handle_;
};

template <typename F>
std::optional<OAuthError> oauthError(F&& f) {
  try {
    f();
  } catch (const OAuthError& e) {
    return e;
  }
  return std::nullopt;
}

class OAuthAgainstAServer : public ::testing::Test {
 protected:
  // Signs in through the code flow and returns the callback the provider
  // sent the browser to.
  std::string authorize(const OAuthFlow& flow, const std::string& state,
                        const std::string& verifier) {
    Browser browser(server_.caFile());
    const std::string url = flow.authorizationURL(
        state, verifier, flow.provider().scopes(flow.provider().abilities));
    return browser.followTo(url, "tolvanger://");
  }

  TempDir dir_;
  OIDCServer server_{dir_};
};

TEST_F(OAuthAgainstAServer, CodeFlowWithPKCEAndRefreshThatKeepsTheToken) {
  const OAuthFlow gitlab = server_.flow("gitlab", "tolvanger-keeping");

  // A wrong verifier is refused by the server, not by us.
  const std::string verifier = phone::PKCE::verifier();
  std::string callback = authorize(gitlab, "state-1", verifier);
  ASSERT_TRUE(callback.starts_with("tolvanger://oauth/gitlab?")) << callback;
  std::string code = OAuthFlow::code(callback, "state-1");
  const auto refused =
      oauthError([&] { gitlab.exchange(code, phone::PKCE::verifier()); });
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->kind(), OAuthError::Kind::kNeedsReconnect);

  callback = authorize(gitlab, "state-2", verifier);
  EXPECT_EQ(oauthError([&] { OAuthFlow::code(callback, "state-1"); })->kind(),
            OAuthError::Kind::kMalformed);
  code = OAuthFlow::code(callback, "state-2");
  const OAuthTokens first = gitlab.exchange(code, verifier);
  EXPECT_FALSE(first.accessToken.empty());
  ASSERT_TRUE(first.refreshToken);
  EXPECT_GT(first.expiresAt, SystemClock::seconds() + 3000);
  const OAuthTokens second = gitlab.refresh(first);
  EXPECT_NE(second.accessToken, first.accessToken);
  EXPECT_EQ(second.refreshToken, first.refreshToken);
  const OAuthTokens third = gitlab.refresh(second);
  EXPECT_NE(third.accessToken, second.accessToken);

  // A code is good once; the server takes its reuse as theft and revokes
  // what it gave, so the kept refresh token now asks for a new sign-in.
  EXPECT_TRUE(oauthError([&] { gitlab.exchange(code, verifier); }));
  const auto revoked = oauthError([&] { gitlab.refresh(third); });
  ASSERT_TRUE(revoked);
  EXPECT_EQ(revoked->kind(), OAuthError::Kind::kNeedsReconnect);
}

TEST_F(OAuthAgainstAServer, RotatedRefreshTokenAndReconnect) {
  const OAuthFlow gitlab = server_.flow("gitlab", "tolvanger-rotating");
  const std::string verifier = phone::PKCE::verifier();
  const std::string callback = authorize(gitlab, "s", verifier);
  const OAuthTokens first =
      gitlab.exchange(OAuthFlow::code(callback, "s"), verifier);
  const OAuthTokens second = gitlab.refresh(first);
  ASSERT_TRUE(second.refreshToken);
  EXPECT_NE(second.refreshToken, first.refreshToken);

  // The old refresh token is spent: the person must sign in again.
  const auto error = oauthError([&] { gitlab.refresh(first); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->kind(), OAuthError::Kind::kNeedsReconnect);
  EXPECT_EQ(phone::Failures::of(*error).sentence,
            "Your GitLab connection needs reconnecting.");
}

TEST_F(OAuthAgainstAServer, DeviceGrantEndToEnd) {
  std::vector<int64_t> intervals;
  // The polls wait a moment, not the interval, so the server sees them
  // early and answers slow_down as well as authorization_pending.
  const OAuthFlow github =
      server_.flow("github", "tolvanger-keeping", [&](int64_t seconds) {
        intervals.push_back(seconds);
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
      });
  const phone::DeviceCode code = github.deviceCode({"repo", "read:org"});
  EXPECT_TRUE(code.verificationURL.starts_with("https://" + server_.host()));
  EXPECT_FALSE(code.userCode.empty());

  Browser::Page last;
  std::thread person([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(900));
    Browser browser(server_.caFile());
    last = browser.enterDeviceCode(code.verificationURL, code.userCode);
  });
  const OAuthTokens tokens = github.waitForDevice(code);
  person.join();
  EXPECT_NE(last.body.find("Sign-in Success"), std::string::npos) << last.body;
  EXPECT_FALSE(tokens.accessToken.empty());
  ASSERT_GE(intervals.size(), 2u);
  EXPECT_EQ(intervals.front(), code.interval);
  // The token is good for a refresh like any other.
  EXPECT_FALSE(github.refresh(tokens).accessToken.empty());
}

// The software phone signs in through the device flow, and the credential
// it announces is pinned to what the ability names.
class OAuthSignInPaired : public PairedServiceTest {};

TEST_F(OAuthSignInPaired,
       DeviceSignInReleasesTheTokenOnlyWhereTheAbilityReaches) {
  OIDCServer server(dir_);
  HTTPSUpstream api;
  api.writeCA(dir_.file("api-ca.pem"));
  ASSERT_NO_FATAL_FAILURE(
      startPaired({"serve", "--quiet", "--test-ca", dir_.file("api-ca.pem")}));
  const std::string& phoneHome = phoneHome_;

  // The deployment file in its default place, the phone's home; the sign-in
  // is also pointed at it through TOLVANGER_OAUTH_CONFIG.
  const std::string config = phoneHome + "/oauth.json";
  std::ofstream(config) << nlohmann::json{
      {"providers",
       {{"github",
         {{"client_id", "tolvanger-keeping"},
          {"hosts",
           {{"auth", server.host()},
            {"api", api.netloc()},
            {"upload", "uploads.test"}}}}}}},
      {"ca_file", server.caFile()}};
  const std::string phrase = "a long passphrase for the test";
  Child signin(
      {TOLVANGER_PHONE_BIN, "signin", "github", "gh", "--ability", "profile"},
      {{"TOLVANGER_PHONE_HOME", phoneHome},
       {"TOLVANGER_OAUTH_CONFIG", config}});
  signin.write(phrase + "\n");
  std::string page, code;
  while (const std::optional<std::string> line = signin.readLine()) {
    static const std::regex kPrompt(R"(open (\S+) and enter the code (\S+)\.)");
    std::smatch match;
    if (std::regex_search(*line, match, kPrompt)) {
      page = match[1];
      code = match[2];
      break;
    }
  }
  ASSERT_FALSE(page.empty());
  Browser person(server.caFile());
  person.enterDeviceCode(page, code);
  const Ran signedIn = signin.wait(std::chrono::seconds(60));
  ASSERT_EQ(signedIn.status, 0) << signedIn.err;
  EXPECT_NE(signedIn.out.find("GET on " + api.netloc() + " under /user"),
            std::string::npos)
      << signedIn.out;
  EXPECT_NE(signedIn.out.find("The Mac now knows 1 secret."),
            std::string::npos);

  SocketClient agent(service_->socketPath());
  agent.call({{"op", "hello"}, {"client", "claude"}});
  const auto ask = [&](const std::string& method, const std::string& url) {
    return agent.call(
        {{"op", "proxy.request"},
         {"request", {{"secret", "gh"}, {"method", method}, {"url", url}}}});
  };
  // Elsewhere, or another method than the ability allows: refused by the
  // pins before anything is filed.
  for (const auto& [method, url] :
       std::vector<std::pair<std::string, std::string>>{
           {"GET", "https://elsewhere.example/user"},
           {"DELETE", "https://" + api.netloc() + "/user"},
           {"GET", "https://" + api.netloc() + "/repos/a/b"}}) {
    const nlohmann::json refused = ask(method, url);
    EXPECT_EQ(refused["ok"], false) << method << " " << url << refused;
  }

  const nlohmann::json opened = ask("GET", "https://" + api.netloc() + "/user");
  ASSERT_EQ(opened["ok"], true) << opened;
  const std::string id = opened["request_id"];
  const Ran approved =
      runPhone(phoneHome, {"approve", id}, "approve\n" + phrase + "\n");
  ASSERT_EQ(approved.status, 0) << approved.err;
  const nlohmann::json performed =
      agent.call({{"op", "proxy.perform"}, {"id", id}});
  EXPECT_EQ(performed["ok"], true) << performed;

  const auto received = api.received();
  ASSERT_EQ(received.size(), 1u);
  EXPECT_EQ(received[0].target, "/user");
  const std::string header = received[0].headers.at("authorization");
  ASSERT_TRUE(header.starts_with("Bearer ")) << header;
  const std::string token = header.substr(7);
  EXPECT_GE(token.size(), 20u);

  // Once the token has run out, the next approval refreshes it first and
  // releases the new one.
  const phone::TokenVault vault(phone::PhoneHome::open(phoneHome),
                                SecretBytes(asBytes(phrase)));
  phone::OAuthCredential held = *vault.find("gh");
  held.tokens.expiresAt = 0;
  vault.put(held);
  const nlohmann::json next = ask("GET", "https://" + api.netloc() + "/user");
  ASSERT_EQ(next["ok"], true) << next;
  const Ran refreshed = runPhone(phoneHome, {"approve", next["request_id"]},
                                 "approve\n" + phrase + "\n");
  ASSERT_EQ(refreshed.status, 0) << refreshed.err;
  EXPECT_EQ(
      agent.call({{"op", "proxy.perform"}, {"id", next["request_id"]}})["ok"],
      true);
  ASSERT_EQ(api.received().size(), 2u);
  const std::string fresh =
      api.received()[1].headers.at("authorization").substr(7);
  EXPECT_NE(fresh, token);
  EXPECT_EQ(vault.find("gh")->tokens.accessToken, fresh);
  EXPECT_GT(vault.find("gh")->tokens.expiresAt, SystemClock::seconds());

  ASSERT_EQ(service_->stop(), 0);
  // Neither token is in any file of either side.
  for (const std::string& root : {home_, phoneHome}) {
    for (const std::string& file : filesBelow(root)) {
      EXPECT_EQ(readFile(file).find(token), std::string::npos) << file;
      EXPECT_EQ(readFile(file).find(fresh), std::string::npos) << file;
    }
  }
}

// The code flow in the software phone, with the callback handed over as the
// desktop's tolvanger:// handler does it.
TEST(OAuthSignIn, CodeFlowTakesTheCallbackFromTheSchemeHandler) {
  TempDir dir;
  OIDCServer server(dir);
  const std::string phoneHome = dir.file("phone");
  fs::create_directory(phoneHome);
  std::ofstream(phoneHome + "/oauth.json") << nlohmann::json{
      {"providers",
       {{"gitlab",
         {{"client_id", "tolvanger-keeping"},
          {"hosts", {{"auth", server.host()}, {"api", "gitlab.test"}}}}}}},
      {"ca_file", server.caFile()}};
  // No sign-in waits yet.
  EXPECT_EQ(
      runPhone(phoneHome, {"callback", "tolvanger://oauth/gitlab"}).status, 1);

  Child signin(
      {TOLVANGER_PHONE_BIN, "signin", "gitlab", "gl", "--ability", "read"},
      {{"TOLVANGER_PHONE_HOME", phoneHome}});
  signin.write("passphrase\n");
  std::string page;
  while (const std::optional<std::string> line = signin.readLine()) {
    if (line->starts_with("https://")) {
      page = *line;
      break;
    }
  }
  ASSERT_FALSE(page.empty());
  Browser person(server.caFile());
  const std::string callback = person.followTo(page, "tolvanger://");
  ASSERT_FALSE(callback.empty());
  // The pipe appears once the sign-in waits for the address.
  while (inBudget() && !fs::exists(phoneHome + "/oauth-callback.pipe")) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  const Ran handed = runPhone(phoneHome, {"callback", callback});
  ASSERT_EQ(handed.status, 0) << handed.err;
  const Ran signedIn = signin.wait(std::chrono::seconds(30));
  ASSERT_EQ(signedIn.status, 0) << signedIn.err;
  EXPECT_NE(signedIn.out.find("GET on gitlab.test under /api/"),
            std::string::npos)
      << signedIn.out;
  EXPECT_FALSE(fs::exists(phoneHome + "/oauth-callback.pipe"));
  const Ran listed = runPhone(phoneHome, {"secrets", "list"});
  EXPECT_EQ(listed.out, "gl\tbearer\tgitlab.test\n");
}

}  // namespace
}  // namespace tolvanger::testing
