// Tests of the small registries of the agent surface: callers, nudges and the
// timing chain.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "testing/temp_home.h"
#include "tolvanger/kit/ids.h"
#include "tolvanger/kit/service_error.h"
#include "tolvanger/service/callers.h"
#include "tolvanger/service/chain.h"
#include "tolvanger/service/home.h"
#include "tolvanger/service/nudges.h"

namespace tolvanger::service {
namespace {

TEST(Callers, KeepsEightMostRecentFirst) {
  int64_t now = 100;
  Callers callers([&] { return now; });
  for (int i = 0; i < 9; ++i) {
    ++now;
    callers.hello("c" + std::to_string(i), "agent", "agent");
  }
  auto rows = callers.all();
  ASSERT_EQ(rows.size(), 8u);
  EXPECT_EQ(rows.front().client, "c8");
  EXPECT_EQ(rows.back().client, "c1");  // c0, the oldest, was pushed out

  // The same client, agent and scope is one row, brought to the front.
  now = 500;
  callers.hello("c3", "agent", "agent");
  callers.hello("c3", "agent", "admin");
  rows = callers.all();
  ASSERT_EQ(rows.size(), 8u);
  EXPECT_EQ(callers.last()->scope, "admin");
  EXPECT_EQ(rows[1], (Caller{"c3", "agent", "agent", 500, true}));
  EXPECT_EQ(rows[1].asDictionary(), (nlohmann::json{{"client", "c3"},
                                                    {"agent", "agent"},
                                                    {"scope", "agent"},
                                                    {"at", 500},
                                                    {"live", true}}));
}

TEST(Callers, LiveUntilTheLastGoodbyeAndNeverBelowZero) {
  Callers callers([] { return int64_t{7}; });
  callers.goodbye("x", "y");  // nobody open: stays at zero
  EXPECT_FALSE(callers.connected());
  callers.hello("a", "p1", "agent");
  callers.hello("b", "p2", "agent");
  callers.goodbye("a", "p1");
  EXPECT_TRUE(callers.connected());
  EXPECT_TRUE(callers.all()[0].live && callers.all()[1].live);
  callers.goodbye("b", "p2");
  callers.goodbye("b", "p2");
  EXPECT_FALSE(callers.connected());
  for (const Caller& c : callers.all()) EXPECT_FALSE(c.live);
}

TEST(Nudges, RefusesUnknownKindsAndExpires) {
  int64_t now = 1000;
  Nudges nudges(300, [&] { return now; });
  const Nudge first = nudges.raise("secret");
  EXPECT_EQ(first.id.size(), 16u);
  EXPECT_TRUE(Ids::isID(first.id));
  EXPECT_EQ(first.asDictionary(),
            (nlohmann::json{
                {"id", first.id}, {"kind", "secret"}, {"expires_at", 1300}}));

  try {
    nudges.raise("other");
    FAIL() << "an unknown kind was raised";
  } catch (const ServiceError& e) {
    EXPECT_TRUE(e.isRefused());
    EXPECT_STREQ(e.what(),
                 "this Mac has nothing to nudge a phone about called other");
  }
  EXPECT_EQ(nudges.current(), first);  // a refusal leaves the held one

  now = 1100;
  const Nudge second = nudges.raise("secret");
  EXPECT_NE(second.id, first.id);
  // Seeing the replaced nudge does not clear the one raised after it.
  EXPECT_FALSE(nudges.clearIf(first.id));
  EXPECT_EQ(nudges.current(), second);
  now = 1399;
  EXPECT_EQ(nudges.current(), second);
  now = 1400;
  EXPECT_FALSE(nudges.current().has_value());

  nudges.raise("secret");
  nudges.clear();
  EXPECT_FALSE(nudges.current().has_value());
}

class ChainTest : public ::testing::Test {
 protected:
  Home home() const { return dir_.home(); }
  void write(const std::string& text) const {
    home().writeAtomically(text, Chain::kFile);
  }
  // Raises `id` now and answers it `ms` later.
  void answer(Chain& chain, const std::string& id, int64_t ms,
              const nlohmann::json& stamps = nullptr,
              std::string_view road = "lan") {
    chain.raised(id);
    nowMS_ += ms;
    chain.answered(id, road, stamps.is_null() ? nullptr : &stamps);
  }

  TempHome dir_;
  int64_t nowMS_ = 1'700'000'000'000;
  Chain::Clock clock_ = [this] { return nowMS_; };
};

TEST_F(ChainTest, RowsFromStamps) {
  Chain chain(home(), clock_);
  chain.answered("never-raised", "lan", nullptr);
  EXPECT_FALSE(home().read(Chain::kFile).has_value());

  answer(chain, "r1", 4000);  // no stamps at all
  struct stat st;
  ASSERT_EQ(stat(home().file(Chain::kFile).c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600);
  // On screen: posted less drawn, capped by the real elapsed time.
  answer(chain, "r2", 4000,
         {{"drawn_at", 10'000}, {"posted_at", 11'500}, {"source", "push"}},
         "cloud");
  answer(chain, "r3", 4000,
         {{"drawn_at", 10'000}, {"posted_at", 99'000}, {"source", "a b"}});
  // Absent, zero, reversed or non-integer stamps give -1; bad sources "-".
  answer(chain, "r4", 10, {{"drawn_at", 0}, {"posted_at", 5}, {"source", ""}});
  answer(chain, "r5", 10,
         {{"drawn_at", 9}, {"posted_at", 5}, {"source", std::string(17, 'x')}});
  answer(chain, "r6", 10,
         {{"drawn_at", 1.5},
          {"posted_at", "9"},
          {"source", std::string(16, 'x')}});
  chain.answered("r1", "lan", nullptr);  // answered once only

  const int64_t t = 1'700'000'000;  // the second of the first raising
  EXPECT_EQ(chain.rows(),
            (std::vector<ChainRow>{
                {t + 4, "r1", "lan", 4000, -1, "-"},
                {t + 8, "r2", "cloud", 4000, 1500, "push"},
                {t + 12, "r3", "lan", 4000, 4000, "-"},
                {t + 12, "r4", "lan", 10, -1, "-"},
                {t + 12, "r5", "lan", 10, -1, "-"},
                {t + 12, "r6", "lan", 10, -1, std::string(16, 'x')},
            }));
  EXPECT_TRUE(home()
                  .read(Chain::kFile)
                  ->starts_with("1700000004 r1 lan 4000 -1 -\n1700000008 r2 "
                                "cloud 4000 1500 push\n"));
}

TEST_F(ChainTest, ForgetsTheOldestOf500Raised) {
  Chain chain(home(), clock_);
  for (int i = 0; i <= 500; ++i) chain.raised("r" + std::to_string(i));
  chain.answered("r0", "lan", nullptr);
  chain.answered("r1", "lan", nullptr);
  ASSERT_EQ(chain.rows().size(), 1u);
  EXPECT_EQ(chain.rows()[0].requestID, "r1");
}

TEST_F(ChainTest, ReadsBackWhatParsesOfTheLast500Lines) {
  std::string text = "1 old lan 1 1 -\n";  // beyond the last 500 lines
  for (int i = 0; i < 497; ++i) text += "5 r lan 7 -1\n\n";
  text += "x r lan 1 1 s\n";              // at not a number
  text += "5 r lan 1.5 1 s\n";            // nor raised-to-seen
  text += "5 r lan 9\n";                  // too few fields
  text += "6 last cloud 8 3 poll extra";  // no final line feed
  write(text);
  const auto rows = Chain(home(), clock_).rows();
  ASSERT_EQ(rows.size(), 497u);
  EXPECT_EQ(rows.front(), (ChainRow{5, "r", "lan", 7, -1, "-"}));
  EXPECT_EQ(rows.back(), (ChainRow{6, "last", "cloud", 8, 3, "poll"}));
}

TEST(ChainMaths, PercentilesAndSummaries) {
  EXPECT_EQ(Chain::percentile({}, 0.5), 0);
  std::vector<int64_t> hundred;
  for (int i = 1; i <= 100; ++i) hundred.push_back(i);
  EXPECT_EQ(Chain::percentile(hundred, 0.5), 50);
  EXPECT_EQ(Chain::percentile(hundred, 0.95), 95);
  EXPECT_EQ(Chain::percentile({1, 2, 3}, 0.5), 2);

  EXPECT_FALSE(Chain::summarise({}).has_value());
  // Machinery only counts rows whose time on screen is known.
  const auto s = Chain::summarise({{0, "a", "lan", 300, 100, "-"},
                                   {0, "b", "lan", 100, -1, "-"},
                                   {0, "c", "lan", 900, 800, "-"}});
  EXPECT_EQ(s, (ChainSummary{3, 300, 900, 100, 200}));
  EXPECT_EQ(Chain::summarise({{0, "a", "lan", 5, -1, "-"}}),
            (ChainSummary{1, 5, 5, 0, 0}));
}

TEST_F(ChainTest, ReportsTheLast50AndTheLastDayByRoad) {
  Chain chain(home(), clock_);
  EXPECT_EQ(chain.report(),
            (nlohmann::json{{"last50", nlohmann::json::object()},
                            {"last24h", nlohmann::json::object()}}));
  const int64_t now = nowMS_ / 1000;
  std::string text;
  // 60 old cloud rows, then one lan row from within the day.
  for (int i = 0; i < 60; ++i) {
    text += std::to_string(now - 90'000) + " c cloud 100 -1 -\n";
  }
  text += std::to_string(now - 86'400) + " l lan 20 5 push\n";
  write(text);
  const nlohmann::json report = chain.report();
  EXPECT_EQ(report["last50"]["all"]["count"], 50);
  EXPECT_EQ(report["last50"]["cloud"]["count"], 49);
  EXPECT_EQ(report["last50"]["lan"], (nlohmann::json{{"count", 1},
                                                     {"p50", 20},
                                                     {"p95", 20},
                                                     {"machinery_p50", 15},
                                                     {"machinery_p95", 15}}));
  EXPECT_EQ(report["last24h"]["all"]["count"], 1);
  EXPECT_FALSE(report["last24h"].contains("cloud"));

  // The report is kept, yet follows both an answer and the day's edge: the
  // lan row leaves the last day one second later.
  nowMS_ += 1000;
  EXPECT_FALSE(chain.report()["last24h"].contains("all"));
  answer(chain, "r-new", 700);
  EXPECT_EQ(chain.report()["last24h"]["all"]["p50"], 700);
}

}  // namespace
}  // namespace tolvanger::service
