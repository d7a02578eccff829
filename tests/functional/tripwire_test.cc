// The tripwire from outside, with real processes: an agent offers a profile
// package over the socket, the software phone approves its replacement, the
// agent installs it; messages that do not read like the owner are observed,
// and the next request carries a notice that the phone verifies and shows.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "harness.h"
#include "paired_service.h"
#include "testing/profile_maker.h"

namespace tolvanger::testing {
namespace {

using nlohmann::json;
using service::testing::kOwner;
using service::testing::packed;
using service::testing::questionProfile;

// The question profile with `extra` vocabulary entries of random tokens,
// which the stacker does not weigh: a package far larger than 256 KiB.
json largeProfile(size_t extra) {
  json top = questionProfile();
  std::mt19937_64 rng(7);
  const std::string letters = "abcdefghijklmnopqrstuvwxyz";
  for (size_t i = 0; i < extra; ++i) {
    std::string token;
    for (int k = 0; k < 10; ++k) token += letters[rng() % letters.size()];
    top["model"]["vocab"][token] = {{"mirel", static_cast<int>(rng() % 500)},
                                    {"other", static_cast<int>(rng() % 500)}};
  }
  return top;
}

class TripwireFromOutside : public PairedServiceTest {
 protected:
  void SetUp() override { ASSERT_NO_FATAL_FAILURE(startPaired()); }
};

TEST_F(TripwireFromOutside, OfferApproveInstallObserveAndNotice) {
  SocketClient agent(service_->socketPath());
  agent.call({{"op", "hello"}, {"client", "claude"}});
  EXPECT_EQ(agent.call({{"op", "status"}})["tripwire"],
            (json{{"loaded", false}, {"stale", false}}));
  EXPECT_EQ(admin_->call({{"op", "status"}})["tripwire"]["why"],
            "no behaviour profile is stored");
  std::string before;
  ASSERT_EQ(runService(home_, {"status"}, &before), 0);
  EXPECT_NE(before.find("\ntripwire no profile \u2014 nothing warns you"),
            std::string::npos)
      << before;
  // Observing never fails, with or without a profile.
  EXPECT_EQ(agent.call({{"op", "tripwire.observe"}, {"text", 5}}),
            (json{{"ok", true}}));

  const std::string offer = packed(largeProfile(40000));
  ASSERT_GT(offer.size(), 262144u * 2);
  const json opened = agent.call({{"op", "tripwire.offer"},
                                  {"profile", offer},
                                  {"reason", "refit on this month's mail"}});
  ASSERT_EQ(opened["ok"], true) << opened;
  const std::string id = opened["request_id"];

  const Ran shown = runPhone(phoneHome_, {"show", id});
  ASSERT_EQ(shown.status, 0) << shown.err;
  EXPECT_NE(shown.out.find("Replace the profile of how you write, fitted "
                           "2026-11-20 09:30 on 2000 messages."),
            std::string::npos)
      << shown.out;
  const Ran approved = runPhone(phoneHome_, {"approve", id}, "approve\n");
  ASSERT_EQ(approved.status, 0) << approved.err;
  ASSERT_EQ(agent.call({{"op", "poll"}, {"id", id}, {"wait", 5}})["state"],
            "approved");

  const json installed = agent.call({{"op", "tripwire.install"}, {"id", id}});
  ASSERT_EQ(installed["ok"], true) << installed;
  EXPECT_EQ(installed["checked"], 5);
  EXPECT_EQ(installed["fitted"], "2026-11-20 09:30");
  EXPECT_EQ(agent.call({{"op", "tripwire.install"}, {"id", id}})["error"],
            "that approval was already spent");
  EXPECT_EQ(agent.call({{"op", "status"}})["tripwire"]["loaded"], true);
  const json about = admin_->call({{"op", "status"}})["tripwire"];
  EXPECT_EQ(about["fitted"], "2026-11-20 09:30");
  EXPECT_EQ(about["mode"], "0o600");
  EXPECT_EQ(about["watching"], json({"42", std::string(kOwner)}));
  std::string statusLines;
  ASSERT_EQ(runService(home_, {"status"}, &statusLines), 0);
  EXPECT_NE(statusLines.find("\ntripwire  fitted 2026-11-20 09:30\n"),
            std::string::npos)
      << statusLines;

  // Two messages unlike the owner's (no question in them), one from someone
  // the profile does not watch.
  for (const char* text : {"send me the keys now", "do it, no questions"}) {
    EXPECT_EQ(agent.call({{"op", "tripwire.observe"},
                          {"sender", kOwner},
                          {"text", text},
                          {"burstlen", "2"}}),
              (json{{"ok", true}}));
  }
  agent.call({{"op", "tripwire.observe"}, {"sender", "x"}, {"text", "hm?"}});
  EXPECT_EQ(admin_->call({{"op", "status"}})["tripwire"]["observed"], 2);

  const json raised = agent.call({{"op", "request"},
                                  {"operation", "deploy.prod"},
                                  {"fields", {{"reason", "ship it"}}}});
  ASSERT_EQ(raised["ok"], true) << raised;
  const std::string warned = raised["request_id"];
  const Ran seen = runPhone(phoneHome_, {"show", warned});
  ASSERT_EQ(seen.status, 0) << seen.err;
  EXPECT_NE(seen.out.find("Notice: 2 of the last 2 messages from your account "
                          "don\u2019t read like you."),
            std::string::npos)
      << seen.out;
  const json journal = admin_->call({{"op", "journal.tail"}, {"lines", 50}});
  const std::string lines = journal["lines"].dump();
  EXPECT_NE(lines.find("raised client=claude credential=- off-profile=true "
                       "operation=deploy.prod request=" +
                       warned),
            std::string::npos)
      << lines;
  EXPECT_NE(lines.find("raised client=claude credential=- off-profile=false "
                       "operation=tripwire.replace request=" +
                       id),
            std::string::npos)
      << lines;
  EXPECT_NE(lines.find("profile-installed client=claude"), std::string::npos);

  // A check row changed in a last digit, of a feature label or of the
  // score's ninth decimal: refused before any request exists.
  const auto offerOf = [&](const json& profile) {
    return agent.call({{"op", "tripwire.offer"}, {"profile", packed(profile)}});
  };
  json changed = questionProfile();
  changed["checks"][2]["feats"]["chars"] = "1";
  EXPECT_EQ(offerOf(changed)["error"],
            "check row 2: this Mac reads chars differently from whatever "
            "fitted the profile");
  changed = questionProfile();
  const double fitted = changed["checks"][2]["score"];
  changed["checks"][2]["score"] = fitted + 2e-9;
  const std::string refused = offerOf(changed)["error"];
  EXPECT_EQ(refused.rfind("check row 2 scores 0.", 0), 0u) << refused;
  EXPECT_NE(refused.find(" where it was fitted \u2014 the two implementations "
                         "have come apart"),
            std::string::npos)
      << refused;
  EXPECT_EQ(admin_->call({{"op", "request.pending"}})["requests"].size(), 1u);
}

}  // namespace
}  // namespace tolvanger::testing
