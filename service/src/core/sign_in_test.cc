// Asking the person to sign in to a site on the phone: what is refused, and
// what the filed request carries.
#include <gtest/gtest.h>

#include "testing/paired_phone.h"
#include "testing/service_internals.h"
#include "tolvanger/kit/service_error.h"
#include "tolvanger/service/service.h"

namespace tolvanger::service {
namespace {

using nlohmann::json;

class SignInAskTest : public ::testing::Test {
 protected:
  void SetUp() override {
    service = std::make_unique<Service>(Home(home.path));
    phone.pair(*service);
    ServiceInternals::secrets(*service).replace(
        {SecretName{"github", "bearer", {"api.github.com"}, {}, 1},
         SecretName{"shop", "cookie", {"shop.example"}, {}, 1}});
  }
  // The sentence askSignIn refuses with; empty when it files a request.
  std::string refusal(const json& site, const json& secret = nullptr,
                      const json& reason = nullptr) {
    try {
      service->askSignIn(site, secret, reason, "-", std::nullopt);
    } catch (const ServiceError& e) {
      EXPECT_TRUE(e.isRefused());
      return e.what();
    }
    return "";
  }

  TempHome home;
  std::unique_ptr<Service> service;
  Phone phone;
};

TEST_F(SignInAskTest, FilesATenMinuteRequestWithItsFields) {
  const StoredRequest r = service->askSignIn("https://shop.example/login",
                                             nullptr, nullptr, "cli", "claude");
  EXPECT_EQ(r.operation, "site.signin");
  EXPECT_EQ(r.expiresAt - r.issuedAt, 600);
  EXPECT_EQ(r.credentialName, std::nullopt);
  EXPECT_EQ(r.fields.any(), (json{{"site", "https://shop.example/login"},
                                  {"secret", "shop.example"},
                                  {"reason",
                                   "sign in so calls to shop.example can carry "
                                   "your session"},
                                  {"agent", "cli"},
                                  {"client", "claude"}}));

  // Asking again under a cookie secret's name replaces that session.
  const StoredRequest again = service->askSignIn(
      "https://shop.example/", "shop", "keep me in", "cli", std::nullopt);
  EXPECT_EQ(again.fields.text("secret"), "shop");
  EXPECT_EQ(again.fields.text("reason"), "keep me in");
  EXPECT_EQ(again.fields.text("client"), std::nullopt);
}

TEST_F(SignInAskTest, RefusesWhatCannotBeASignIn) {
  const std::string badSite =
      "a sign-in needs an https address, with no port and no credentials in "
      "it";
  // Which addresses are refused is the kit's; here, that it is asked, that
  // a site must be text, and the length cap.
  for (const json& site :
       {json(nullptr), json(42), json("http://shop.example/"),
        json("https://shop.example/" + std::string(2030, 'a'))}) {
    EXPECT_EQ(refusal(site), badSite) << site;
  }

  const std::string badName = "that is not a name a secret can have";
  EXPECT_EQ(refusal("https://shop.example/", "Shop"), badName);
  // No name given and the host too long to be one.
  EXPECT_EQ(refusal("https://" + std::string(60, 'a') + ".example/"), badName);

  EXPECT_EQ(refusal("https://github.com/login", "github"),
            "the phone already holds github as a bearer secret; save the "
            "session under another name");
  EXPECT_EQ(refusal("https://shop.example/", nullptr, "look\x1b[2Jhere"),
            "reason has control characters in it");
  EXPECT_TRUE(ServiceInternals::store(*service).pending().empty());
}

}  // namespace
}  // namespace tolvanger::service
