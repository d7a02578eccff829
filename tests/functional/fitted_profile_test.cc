// Profiles made by tolvanger-fit, the project's fitting program (Python,
// written apart from the service's C++ scoring), from made-up message
// histories (tests/fit/make_history.py): the service must reproduce every
// check row the fitter wrote, and install the profile through the phone's
// approval.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "harness.h"
#include "paired_service.h"

namespace tolvanger::testing {
namespace {

using nlohmann::json;

class FittedProfiles : public PairedServiceTest {
 protected:
  void SetUp() override { ASSERT_NO_FATAL_FAILURE(startPaired()); }

  // Fits a profile on `count` messages made up by the fitting tests' own
  // history maker; returns the package text.
  std::string fit(size_t count, uint64_t seed) {
    const std::string input =
        dir_.file("history-" + std::to_string(seed) + ".jsonl");
    const std::string output =
        dir_.file("profile-" + std::to_string(seed) + ".b64");
    Child maker({"/usr/bin/python3",
                 TOLVANGER_SOURCE_DIR "/tests/fit/make_history.py", "--count",
                 std::to_string(count), "--seed", std::to_string(seed), "--out",
                 input});
    EXPECT_EQ(maker.wait(std::chrono::seconds(60)).status, 0);
    Child fitter({"/usr/bin/python3", TOLVANGER_FIT_BIN, input, "--out", output,
                  "--fitted", "2026-11-20 09:30"});
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
  EXPECT_EQ(about["watching"], json({"owner@example.org"}));
}

}  // namespace
}  // namespace tolvanger::testing
