// Tests of the software phone over a fake Mac: the list of secrets as it is
// announced, what an unpaired phone says, and the sentences a person reads.
#include "tolvanger/phone/software_phone.h"

#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <functional>
#include <stdexcept>

#include "testing/fake_transport.h"
#include "testing/temp_home.h"

namespace tolvanger::phone {
namespace {

using nlohmann::json;
using std::chrono::milliseconds;

std::string refusalOf(const std::function<void()>& f) {
  try {
    f();
  } catch (const Refusal& e) {
    return e.what();
  }
  return "no refusal";
}

void pairIn(const PhoneHome& home) {
  SavedPairing state;
  state.address = "http://127.0.0.1:8645";
  state.deviceID = "phone-1";
  state.deviceSecret = "device-secret";
  state.daemonID = "tolvanger-1a2b3c4d";
  state.daemonSPKI = Bytes{1, 2, 3};
  home.savePairing(state);
}

TEST(SoftwarePhoneTest, AnnouncesTheWholeListUnderANewNumber) {
  const TempHome temp;
  const PhoneHome home = PhoneHome::open(temp.path());
  pairIn(home);
  bool stale = false;
  auto mac = std::make_shared<FakeTransport>([&](const HTTPCall&) {
    return HTTPAnswer{200, json{{"ok", true}, {"stale", stale}}.dump()};
  });
  SoftwarePhone phone(home, /*clear=*/true, milliseconds(100), mac);

  SecretList list;
  list.seq = 5;
  list.put(SecretEntry{"github", "bearer", {"api.github.com"}, {}, {}});
  const int64_t before = std::time(nullptr);
  phone.announce(list);
  // Never below the clock, so that a list from a lost home still counts.
  EXPECT_GE(list.seq, before);
  EXPECT_EQ(home.secrets().seq, list.seq);
  ASSERT_EQ(mac->calls.size(), 1u);
  EXPECT_EQ(mac->calls[0].url, "http://127.0.0.1:8645/v1/secrets");
  const json body = json::parse(*mac->calls[0].body);
  EXPECT_EQ(body["seq"], list.seq);
  EXPECT_EQ(body["secrets"], list.announcement());
  EXPECT_EQ(body["device_id"], "phone-1");
  EXPECT_EQ(body["device_secret"], "device-secret");

  // A number already ahead of the clock still grows by one.
  list.seq += 1000;
  const int64_t ahead = list.seq;
  phone.announce(list);
  EXPECT_EQ(list.seq, ahead + 1);

  stale = true;
  EXPECT_EQ(refusalOf([&] { phone.announce(list); }),
            "The Mac already holds a newer list than this one.");
}

TEST(SoftwarePhoneTest, AnUnpairedPhoneSaysSoAndCallsNobody) {
  const TempHome temp;
  const PhoneHome home = PhoneHome::open(temp.path());
  auto mac = std::make_shared<FakeTransport>([](const HTTPCall&) {
    return HTTPAnswer{200, R"({"ok": true})"};
  });
  for (const bool clear : {false, true}) {
    SoftwarePhone phone(home, clear, milliseconds(100), mac);
    const std::string notPaired =
        "This phone is not paired; run tolvanger-phone pair <link> first.";
    EXPECT_EQ(refusalOf([&] { phone.pending(); }), notPaired);
    EXPECT_EQ(refusalOf([&] { phone.request("r1"); }), notPaired);
    EXPECT_EQ(refusalOf([&] { phone.deny("r1", {}); }), notPaired);
    SecretList list;
    EXPECT_EQ(refusalOf([&] { phone.announce(list); }),
              "This phone is not paired, so the list was kept here and not "
              "sent to a Mac.");
  }
  EXPECT_TRUE(mac->calls.empty());
}

TEST(SoftwarePhoneTest, ReadsOnlyPairLinksThatNameTheMac) {
  EXPECT_EQ(refusalOf([] {
              PhonePairing("https://example.com");
            }).rfind("That is not a pair link: ", 0),
            0u);
  EXPECT_EQ(
      refusalOf([] {
        PhonePairing("tolvanger://pair?v=1&d=tolvanger-1a2b3c4d&h=&p=8645&t=" +
                     std::string(32, 'a') + "&f=aaaa-bbbb-cccc-dddd");
      }),
      "That pair link names no address to reach the Mac at.");
}

TEST(SoftwarePhoneTest, ChecksACookieHeaderWithoutKeepingIt) {
  const auto check = [](std::string_view header) {
    return refusalOf(
        [&] { checkCookieHeader(asBytes(header), "shop.example"); });
  };
  EXPECT_EQ(check("sid=abc"), "no refusal");
  EXPECT_EQ(check(" a ; sid=abc; x"), "no refusal");
  EXPECT_EQ(check(""),
            "No cookie header was given for shop.example, so nothing was "
            "signed.");
  EXPECT_EQ(check("sid=a\tb"),
            "The cookie header for shop.example has control characters in "
            "it, so nothing was signed.");
  for (const std::string_view noPair : {"sid", "=abc", "; ;", " =x"}) {
    EXPECT_EQ(check(noPair),
              "That is not a cookie header for shop.example: it needs at "
              "least one name=value pair, so nothing was signed.")
        << noPair;
  }
}

TEST(SoftwarePhoneTest, EveryFailureIsOneLine) {
  EXPECT_EQ(failureLine(Refusal("As it stands")), "As it stands");
  EXPECT_EQ(failureLine(std::runtime_error("could not\nwrite")),
            "Could not write.");
  EXPECT_EQ(failureLine(RequestError::malformed("no fields")),
            "The daemon sent a request this app cannot read (malformed "
            "request: no fields).");
  EXPECT_EQ(failureLine(RequestError::daemon("that request has expired")),
            "That request has expired.");
  EXPECT_EQ(failureLine(SignerError::sign("userCancel")), "Cancelled.");
}

}  // namespace
}  // namespace tolvanger::phone
