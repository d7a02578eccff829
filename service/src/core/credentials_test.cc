#include "tolvanger/service/credentials.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <thread>
#include <vector>

namespace tolvanger::service {
namespace {

std::string text(const SecretBytes& bytes) { return toString(bytes.reveal()); }

TEST(HeldTest, HoldsCopiesAndScrubs) {
  Held held(asBytes("s3cret"));
  EXPECT_TRUE(held.live());
  EXPECT_EQ(held.count(), 6u);
  ASSERT_TRUE(held.data());
  EXPECT_EQ(text(*held.data()), "s3cret");

  held.scrub();
  EXPECT_FALSE(held.live());
  EXPECT_EQ(held.count(), 0u);
  EXPECT_EQ(held.capacity(), 0u);
  EXPECT_FALSE(held.data());
  held.scrub();  // a second scrub is harmless
  EXPECT_FALSE(held.data());

  Held empty(ByteView{});
  EXPECT_EQ(empty.capacity(), 1u);
  EXPECT_EQ(empty.count(), 0u);
  ASSERT_TRUE(empty.data());
  EXPECT_TRUE(empty.data()->empty());

  Held from(asBytes("abc"));
  Held to(std::move(from));
  EXPECT_FALSE(from.live());  // NOLINT(bugprone-use-after-move)
  EXPECT_FALSE(from.data());  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(text(*to.data()), "abc");
}

TEST(CredentialsTest, CeilingBoundsTheHoldAndSweepWipes) {
  int64_t now = 1000;
  Credentials credentials(120, [&] { return now; });
  EXPECT_EQ(credentials.ceiling(), 120);

  EXPECT_EQ(credentials.put("r1", "gh", "bearer", asBytes("a"), std::nullopt,
                            "phone"),
            1120);
  EXPECT_EQ(credentials.put("r2", "gh", "bearer", asBytes("b"), 5000, "phone"),
            1120);
  EXPECT_EQ(credentials.put("r3", "gh", "bearer", asBytes("c"), 1060, "phone"),
            1060);
  // A phone limit already past is swept at once.
  credentials.put("r4", "gh", "bearer", asBytes("d"), 1000, "phone");
  EXPECT_FALSE(credentials.waiting("r4"));
  EXPECT_EQ(credentials.count(), 3u);

  now = 1059;
  EXPECT_EQ(credentials.sweep(), 0u);
  now = 1060;
  EXPECT_FALSE(credentials.waiting("r3"));
  EXPECT_TRUE(credentials.waiting("r1"));
  now = 1120;
  EXPECT_EQ(credentials.count(), 0u);
  EXPECT_FALSE(credentials.take("r1"));
}

TEST(CredentialsTest, TakeGivesTheValueOnceAndReplacementStands) {
  int64_t now = 1000;
  Credentials credentials(120, [&] { return now; });
  credentials.put("r1", "gh", "bearer", asBytes("old"), std::nullopt, "p1");
  credentials.put("r1", "gh2", "basic", asBytes("new"), 1100, "p2");
  EXPECT_EQ(credentials.count(), 1u);

  std::optional<Spent> spent = credentials.take("r1");
  ASSERT_TRUE(spent);
  EXPECT_EQ(text(spent->value), "new");
  EXPECT_EQ(spent->name, "gh2");
  EXPECT_EQ(spent->kind, "basic");
  EXPECT_EQ(spent->expiresAt, 1100);
  EXPECT_EQ(spent->deviceID, "p2");
  EXPECT_FALSE(credentials.take("r1"));
  EXPECT_FALSE(credentials.waiting("r1"));
  EXPECT_FALSE(credentials.take("never"));

  credentials.put("r2", "gh", "bearer", asBytes("x"), std::nullopt, "p");
  credentials.discard("r2");
  EXPECT_FALSE(credentials.take("r2"));

  credentials.put("r3", "gh", "bearer", asBytes("x"), std::nullopt, "p");
  credentials.put("r4", "gh", "bearer", asBytes("y"), std::nullopt, "p");
  credentials.scrubAll();
  EXPECT_EQ(credentials.count(), 0u);
  EXPECT_FALSE(credentials.take("r3"));
}

TEST(CredentialsTest, ExactlyOneOfManyRacingTakersGetsTheValue) {
  constexpr int kThreads = 8;
  for (int round = 0; round < 20; ++round) {
    Credentials credentials(120);
    credentials.put("r", "gh", "bearer", asBytes("v"), std::nullopt, "p");
    std::atomic<int> winners = 0;
    std::latch start(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&] {
        start.arrive_and_wait();
        if (std::optional<Spent> spent = credentials.take("r")) {
          EXPECT_EQ(text(spent->value), "v");
          ++winners;
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(winners.load(), 1);
  }
}

}  // namespace
}  // namespace tolvanger::service
