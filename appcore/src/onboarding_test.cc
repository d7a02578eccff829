#include "tolvanger/appcore/onboarding.h"

#include <gtest/gtest.h>

namespace tolvanger::app {
namespace {

using Step = Onboarding::Step;
using Mode = Onboarding::Mode;

TEST(Onboarding, MovesOnlyByWhatTheServiceReports) {
  Onboarding flow;
  EXPECT_TRUE(flow.advance({}));  // welcome asks nothing
  EXPECT_EQ(flow.step(), Step::pair);
  EXPECT_FALSE(flow.advance({}));
  EXPECT_FALSE(flow.skip());  // no phone, no way past
  EXPECT_EQ(flow.step(), Step::pair);
  EXPECT_TRUE(flow.advance({.paired = true}));
  EXPECT_EQ(flow.step(), Step::secret);
  EXPECT_FALSE(flow.advance({.paired = true, .secrets = 0}));
  EXPECT_TRUE(flow.advance({.paired = true, .secrets = 1}));
  EXPECT_EQ(flow.step(), Step::test);
  EXPECT_FALSE(flow.advance({.paired = true, .secrets = 1}));
  EXPECT_TRUE(flow.advance({.paired = true, .secrets = 1, .proved = true}));
  EXPECT_EQ(flow.step(), Step::done);
  EXPECT_FALSE(flow.advance({.paired = true, .secrets = 1, .proved = true}));
  EXPECT_TRUE(flow.skipped().empty());
}

TEST(Onboarding, OnlyTheOptionalStepsOfAFirstRunSkip) {
  Onboarding flow(Step::secret);
  EXPECT_TRUE(flow.skip());
  EXPECT_EQ(flow.step(), Step::test);
  EXPECT_TRUE(flow.skip());
  EXPECT_EQ(flow.step(), Step::done);
  EXPECT_EQ(flow.skipped(), (std::set<Step>{Step::secret, Step::test}));
  EXPECT_FALSE(flow.skip());

  Onboarding another(Step::secret, Mode::anotherPhone);
  EXPECT_FALSE(another.skip());
  EXPECT_EQ(another.step(), Step::secret);
}

TEST(Onboarding, AnotherPhoneEndsAfterPairing) {
  Onboarding flow(Step::pair, Mode::anotherPhone);
  EXPECT_TRUE(flow.advance({.paired = true}));
  EXPECT_EQ(flow.step(), Step::done);
}

TEST(Onboarding, StepsHaveTheirNames) {
  for (Step s :
       {Step::welcome, Step::pair, Step::secret, Step::test, Step::done}) {
    EXPECT_EQ(Onboarding::stepNamed(Onboarding::name(s)), s);
  }
  EXPECT_EQ(Onboarding::stepNamed("Pair"), std::nullopt);
}

}  // namespace
}  // namespace tolvanger::app
