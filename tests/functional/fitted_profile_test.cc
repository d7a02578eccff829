// Profiles made by tolvanger-fit, the project's fitting program (Python,
// written apart from the service's C++ scoring), from made-up message
// histories: the service must reproduce every check row the fitter wrote,
// and install the profile through the phone's approval.
#include <gtest/gtest.h>

#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "harness.h"
#include "paired_service.h"

namespace tolvanger::testing {
namespace {

using nlohmann::json;

// A history of `count` messages as JSON lines: the owner writes lower-case
// chat with curly apostrophes, Greek and emoji; the others write capitals,
// Cyrillic, URLs, digits and exclamations; both come in bursts.
// `words` made-up words of random letters, so a long history has a large
// vocabulary that packs poorly, as real ones do.
std::vector<std::string> lexicon(size_t words, std::mt19937_64& rng) {
  std::vector<std::string> out;
  for (size_t i = 0; i < words; ++i) {
    std::string w;
    for (size_t k = 0, n = 5 + rng() % 6; k < n; ++k) {
      w += static_cast<char>('a' + rng() % 26);
    }
    out.push_back(w);
  }
  return out;
}

std::string history(size_t count, uint64_t seed) {
  std::mt19937_64 rng(seed);
  const std::vector<std::string> words = lexicon(count * 2, rng);
  const std::vector<std::string> mine = {
      "ok sounds good",
      "hm, not sure\u2026",
      "can we do thursday?",
      "lol yes",
      "i\u2019ll check tonight",
      "\u03a3\u0391\u03a3 "
      "\u03b5\u03c5\u03c7\u03b1\u03c1\u03b9\u03c3\u03c4\u03ce",
      "brb \U0001F600",
      "that\u2019s fine \u2014 go ahead",
      "see https://example.org/a?b=1",
      "meh",
      "\u03a3\u03a9\u03a3\u03a4\u039f\u03a3 \u03a3",
      "yes!! \U0001F389\U0001F389"};
  const std::vector<std::string> theirs = {
      "Please confirm the transfer of 4,500 EUR today.",
      "\u041f\u0440\u0438\u0432\u0435\u0442, \u043a\u0430\u043a "
      "\u0434\u0435\u043b\u0430?",
      "URGENT: reset your password at http://example.com/reset now!",
      "Meeting moved to 14:30 - room 2B.",
      "Did you get my last email?",
      "Thanks, I'll send the invoice (no. 20931) tomorrow.",
      "`npm install` fails again...",
      "Call me at +44 20 7946 0958"};
  std::string out;
  double ts = 1.75e9;
  for (size_t i = 0; i < count;) {
    const bool me = rng() % 3 == 0;
    const size_t burst = 1 + rng() % 4;
    for (size_t k = 0; k < burst && i < count; ++k, ++i) {
      ts += k == 0 ? 60.0 + static_cast<double>(rng() % 20000)
                   : 1.0 + static_cast<double>(rng() % 30) + 0.25;
      const auto& pool = me ? mine : theirs;
      std::string text = pool[rng() % pool.size()];
      if (rng() % 4 == 0) text += " " + pool[rng() % pool.size()];
      if (rng() % 7 == 0) text += "\n" + std::to_string(rng() % 1000);
      for (size_t w = 0, n = rng() % 16; w < n; ++w) {
        text += " " + words[rng() % words.size()];
      }
      out += json{{"ts", ts},
                  {"text", text},
                  {"from_me", me},
                  {"from", me ? "me@example.org"
                              : "friend-" + std::to_string(rng() % 5)}}
                 .dump() +
             "\n";
    }
  }
  return out;
}

class FittedProfiles : public PairedServiceTest {
 protected:
  void SetUp() override { ASSERT_NO_FATAL_FAILURE(startPaired()); }

  // Fits a profile on `count` made-up messages; returns the package text.
  std::string fit(size_t count, uint64_t seed) {
    const std::string input =
        dir_.file("history-" + std::to_string(seed) + ".jsonl");
    const std::string output =
        dir_.file("profile-" + std::to_string(seed) + ".b64");
    std::ofstream(input) << history(count, seed);
    Child fitter({"/usr/bin/python3", TOLVANGER_FIT_BIN, input, "--me",
                  "me@example.org", "--out", output, "--fitted",
                  "2026-11-20 09:30"});
    const Ran ran = fitter.wait(std::chrono::seconds(30));
    EXPECT_EQ(ran.status, 0) << ran.err;
    std::string packed = readFile(output);
    while (!packed.empty() && (packed.back() == '\n' || packed.back() == '\r'))
      packed.pop_back();
    return packed;
  }
};

TEST_F(FittedProfiles, PassTheirCheckRows) {
  SocketClient agent(service_->socketPath());
  agent.call({{"op", "hello"}, {"client", "claude"}});
  for (const auto& [count, seed] :
       std::vector<std::pair<size_t, uint64_t>>{{2000, 1}, {5000, 2}}) {
    const std::string packed = fit(count, seed);
    ASSERT_FALSE(packed.empty());
    const json opened =
        agent.call({{"op", "tripwire.offer"}, {"profile", packed}});
    ASSERT_EQ(opened["ok"], true) << opened << " after " << count;
    agent.call({{"op", "cancel"}, {"id", opened["request_id"]}});
  }
}

TEST_F(FittedProfiles, OneFittedOnTwentyThousandMessagesInstalls) {
  SocketClient agent(service_->socketPath());
  agent.call({{"op", "hello"}, {"client", "claude"}});
  // Larger than a socket line used to be.
  const std::string large = fit(20000, 3);
  ASSERT_GT(large.size(), 262144u);
  const json opened =
      agent.call({{"op", "tripwire.offer"}, {"profile", large}});
  ASSERT_EQ(opened["ok"], true) << opened;
  const std::string id = opened["request_id"];
  const Ran approved = runPhone(phoneHome_, {"approve", id}, "approve\n");
  ASSERT_EQ(approved.status, 0) << approved.err;
  ASSERT_EQ(agent.call({{"op", "poll"}, {"id", id}, {"wait", 5}})["state"],
            "approved");
  const json installed = agent.call({{"op", "tripwire.install"}, {"id", id}});
  ASSERT_EQ(installed["ok"], true) << installed;
  EXPECT_GE(installed["checked"].get<int>(), 1);
  EXPECT_EQ(installed["fitted"], "2026-11-20 09:30");
  const json about = admin_->call({{"op", "status"}})["tripwire"];
  EXPECT_EQ(about["loaded"], true) << about;
  EXPECT_EQ(about["watching"], json({"me@example.org"}));
}

}  // namespace
}  // namespace tolvanger::testing
