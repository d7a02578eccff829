#include "tolvanger/service/journal.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "testing/temp_home.h"
#include "tolvanger/kit/text.h"
#include "tolvanger/service/events.h"

namespace tolvanger::service {
namespace {

namespace fs = std::filesystem;

// 2026-08-29 10:44:52 UTC.
constexpr int64_t kMoment = 1788000292;

class JournalTest : public ::testing::Test {
 protected:
  JournalTest() {
    if (const char* tz = getenv("TZ")) oldTZ_ = tz;
    // Three hours east of UTC, in POSIX notation.
    setenv("TZ", "XYZ-3", 1);
  }
  ~JournalTest() override {
    oldTZ_ ? setenv("TZ", oldTZ_->c_str(), 1) : unsetenv("TZ");
    tzset();
  }

  TempHome dir_;
  Home home_ = dir_.home();
  std::optional<std::string> oldTZ_;
};

TEST_F(JournalTest, LinesAreClockWordAndSortedItems) {
  Journal j(home_, [] { return kMoment; });
  j.write("stopped");
  j.write("spent", {{"request", "r7f21"},
                    {"credential", std::string("sheets")},
                    {"client", "claude"}});
  j.write("started", {{"port", 8645},
                      {"sealed", true},
                      {"open", false},
                      {"big", uint64_t{18446744073709551615u}},
                      {"socket", "/a b\nc"}});

  struct stat st;
  ASSERT_EQ(stat(home_.file("journal.log").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(home_.read("journal.log"),
            "2026-08-29 13:44:52 stopped\n"
            "2026-08-29 13:44:52 spent client=claude credential=sheets "
            "request=r7f21\n"
            "2026-08-29 13:44:52 started big=18446744073709551615 open=false "
            "port=8645 sealed=true socket=/a%20b%0Ac\n");

  // Values are cut to 120 whole characters: here "e" with a combining acute,
  // three bytes each.
  std::string accented;
  for (int i = 0; i < 121; ++i) accented += "e\xCC\x81";
  j.write("x", {{"v", accented}});
  EXPECT_EQ(j.tail(1), std::vector<std::string>{"2026-08-29 13:44:52 x v=" +
                                                accented.substr(0, 360)});
}

// Whatever a value holds, the line keeps its shape: the clock, the word, and
// exactly one key=value item for each field, on one line of UTF-8.
TEST_F(JournalTest, NoValueCanAddAnItemOrALine) {
  Journal j(home_, [] { return kMoment; });
  j.write("raised", {{"client", "claude credential=forged request=rfake"},
                     {"request", "r1"}});
  j.write("x", {{"tab", "a\tb\r"},
                {"percent", "100%"},
                {"unicode", "caf\xC3\xA9 \xE2\x80\xA8\xC2\xA0\xC2\x85"},
                {"bidi", "\xE2\x80\xAEtxt"},
                {"bad", "\xFF\xC3"},
                {"del", "\x7F\x01"}});
  EXPECT_EQ(j.tail(2),
            (std::vector<std::string>{
                "2026-08-29 13:44:52 raised "
                "client=claude%20credential%3Dforged%20request%3Drfake "
                "request=r1",
                "2026-08-29 13:44:52 x bad=%FF%C3 bidi=%E2%80%AEtxt del=%7F%01 "
                "percent=100%25 tab=a%09b%0D "
                "unicode=caf\xC3\xA9%20%E2%80%A8%C2%A0%C2%85"}));

  // Random bytes, in values and in keys alike.
  std::mt19937 random(7);
  for (int round = 0; round < 300; ++round) {
    JournalFields fields;
    for (int k = 0; k < 3; ++k) {
      std::string key(1 + random() % 4, '\0'), value(random() % 40, '\0');
      for (char& c : key) c = static_cast<char>(random());
      for (char& c : value) c = static_cast<char>(random());
      fields.insert_or_assign("k" + std::to_string(k) + key, value);
    }
    j.write("w", fields);
    const std::string line = j.tail(1).at(0);
    ASSERT_TRUE(Text::isValidUTF8(line));
    std::vector<std::string> items;
    for (size_t start = 0, end; start <= line.size(); start = end + 1) {
      end = std::min(line.find(' ', start), line.size());
      items.push_back(line.substr(start, end - start));
    }
    ASSERT_EQ(items.size(), 3 + fields.size()) << line;
    for (size_t i = 3; i < items.size(); ++i) {
      EXPECT_EQ(std::count(items[i].begin(), items[i].end(), '='), 1) << line;
      EXPECT_TRUE(std::none_of(items[i].begin(), items[i].end(), [](char c) {
        return static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
      })) << line;
    }
  }
}

TEST_F(JournalTest, TailGivesTheLastLinesWithoutBlanks) {
  Journal j(home_, [] { return kMoment; });
  EXPECT_TRUE(j.tail(5).empty());  // no file yet
  home_.writeAtomically("one\n\ntwo\nthree\n\n", "journal.log");
  EXPECT_TRUE(j.tail(0).empty());
  EXPECT_EQ(j.tail(2), (std::vector<std::string>{"two", "three"}));
  EXPECT_EQ(j.tail(10), (std::vector<std::string>{"one", "two", "three"}));
  home_.writeAtomically("bad \xFF\n", "journal.log");
  EXPECT_TRUE(j.tail(10).empty());
}

TEST_F(JournalTest, ConcurrentWritersNeverMixLines) {
  Journal j(home_);
  constexpr int kThreads = 4, kLines = 100;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kLines; ++i) {
        j.write("tick", {{"thread", t}, {"i", i}});
      }
    });
  }
  for (auto& t : threads) t.join();
  auto lines = j.tail(1000);
  ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
  for (const auto& line : lines) {
    EXPECT_NE(line.find(" tick i="), std::string::npos) << line;
    EXPECT_EQ(line.find("tick", line.find("tick") + 1), std::string::npos);
  }
}

TEST(EventsTest, KeysCountAndReentrantSinks) {
  Events events;
  std::vector<std::string> seen;
  int64_t first = events.subscribe([&](const nlohmann::json& e) {
    seen.push_back("first:" + e["event"].get<std::string>());
  });
  EXPECT_EQ(first, 1);
  int64_t self = 0;
  self = events.subscribe([&](const nlohmann::json&) {
    seen.push_back("self");
    events.unsubscribe(self);  // must not deadlock
    events.subscribe([&](const nlohmann::json&) { seen.push_back("late"); });
  });
  events.subscribe(
      [](const nlohmann::json&) { throw std::runtime_error("x"); });
  EXPECT_EQ(self, 2);
  EXPECT_EQ(events.listeners(), 3u);

  events.emit({{"event", "decided"}});
  EXPECT_EQ(events.listeners(), 3u);  // self gone, late added
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(seen, (std::vector<std::string>{"first:decided", "self"}));

  events.unsubscribe(first);
  events.unsubscribe(999);
  EXPECT_EQ(events.subscribe([](const nlohmann::json&) {}), 5);
  seen.clear();
  events.emit({{"event", "secret.available"}});
  EXPECT_EQ(seen, std::vector<std::string>{"late"});
}

}  // namespace
}  // namespace tolvanger::service
