#include "tolvanger/appcore/reading.h"

#include <gtest/gtest.h>

namespace tolvanger::app {
namespace {

std::string plain(const std::string& rest) {
  return Reading::of("2026-08-29 13:44:09 " + rest).plain;
}

TEST(Reading, EveryEventWordReadsAsASentence) {
  const std::pair<const char*, const char*> cases[] = {
      {"started listen=127.0.0.1 port=7391 sealed=true socket=/h/t.sock",
       "Tolvanger started"},
      {"stopped", "Tolvanger stopped"},
      {"raised client=claude credential=sheets off-profile=false "
       "operation=http.request request=r7f21",
       "claude asked for sheets"},
      {"raised client=- credential=- operation=deploy.prod request=r1",
       "Something asked for deploy.prod"},
      {"approved client=claude credential=- device=d1 request=r1 road=lan",
       "You approved what claude asked for"},
      {"approved client=claude credential=sheets device=d1 request=r1 road=lan",
       "You approved sheets for claude"},
      {"approved allowance=r0 client=codex credential=sheets device=d1 "
       "request=r2 road=allowance",
       "sheets went out for codex in the time you allowed"},
      {"allowed client=codex credential=sheets request=r1 seconds=900",
       "You let codex use sheets for 15 min without asking"},
      {"allowed client=- credential=- request=r1 seconds=3600",
       "You let an agent use a credential for an hour without asking"},
      {"allowed client=x credential=c request=r1 seconds=7200",
       "You let x use c for 2 hours without asking"},
      {"allowance-ended client=codex credential=sheets request=r1 uses=3 "
       "why=expired",
       "sheets time with codex ran out"},
      {"allowance-ended client=codex credential=sheets request=r1 uses=3 "
       "why=phone",
       "You ended sheets time with codex"},
      {"allowance-ended client=- credential=- request=r1 uses=0 why=lock",
       "A credential time with an agent ended when this computer locked"},
      {"allowance-ended client=c credential=s request=r1 uses=0 why=replaced",
       "s time with c was replaced by a newer one"},
      {"allowance-ended client=c credential=s request=r1 uses=0 why=odd",
       "s time with c ended"},
      {"refused device=d1 request=r1 why=signature",
       "A phone's answer did not check out, and was refused"},
      {"denied client=claude request=r1 road=lan", "You said no to claude"},
      {"denied client=- request=r1 road=lan", "You said no"},
      {"cancelled client=codex request=r1", "codex called its request off"},
      {"cancelled client=- request=r1", "A request was called off"},
      {"redeemed client=claude request=r1", "claude picked up your answer"},
      {"spent client=claude credential=sheets request=r1",
       "sheets was spent for claude, nothing kept"},
      {"spent client=claude credential=- request=r1",
       "A credential was spent, nothing kept"},
      {"performed operation=http.request request=r1 status=200",
       "The call for http.request came back with status 200"},
      {"paired device=d1 fingerprint=ab pq=cd",
       "A phone paired with this computer"},
      {"recovered device=d1 left=9", "A phone came back with a recovery code"},
      {"secrets added=demo,sheets,mail count=3 device=d1",
       "Your phone added demo, sheets and mail"},
      {"secrets added= count=1 device=d1", "Your phone listed 1 secret"},
      {"secrets added= count=2 device=d1", "Your phone listed 2 secrets"},
      {"secrets device=d1 stale=4",
       "Your phone sent its list again, with nothing new on it"},
      {"nudged kind=secret nudge=n1", "You asked your phone to add a secret"},
      {"nudged kind=approve nudge=n1", "You asked your phone for something"},
      {"profile-installed client=claude fingerprint=f fitted=x request=r1",
       "A new tripwire profile was installed, offered by claude"},
      {"socket-refused uid=1001 why=uid",
       "Another account tried the socket, and could not"},
      {"cloud state=up", "The iCloud road is up"},
      {"cloud state=down why=no account",
       "The iCloud road is down: no account"},
      {"cloud-refused envelope=abc why=seal",
       "Something from iCloud was not sealed right, and was refused"},
  };
  for (const auto& [line, sentence] : cases) {
    EXPECT_EQ(plain(line), sentence) << line;
  }
}

TEST(Reading, PartsOfTheLine) {
  const Reading r = Reading::of(
      "2026-08-29 13:44:52 spent client=claude credential=sheets request=r7");
  EXPECT_EQ(r.clock, "13:44");
  EXPECT_EQ(r.client, "claude");
  EXPECT_FALSE(r.house);
  EXPECT_EQ(r.raw,
            "2026-08-29 13:44:52 spent client=claude credential=sheets "
            "request=r7");

  const Reading paired = Reading::of("2026-08-29 13:44:52 paired device=d1");
  EXPECT_TRUE(paired.house);
  EXPECT_EQ(paired.client, std::nullopt);
  EXPECT_EQ(Reading::of("2026-08-29 13:44:52 denied client=- request=r").client,
            std::nullopt);
}

TEST(Reading, BlanksInsideAValueStayWithIt) {
  // The journal does not escape values: "why=not started yet" is one value.
  EXPECT_EQ(plain("cloud state=down why=not started yet"),
            "The iCloud road is down: not started yet");
  EXPECT_EQ(plain("raised client=claude credential=- operation=a b c "
                  "request=r1"),
            "claude asked for a b c");
}

TEST(Reading, WhatIsNotAnEventReadsAsItself) {
  for (const char* line :
       {"free text from somewhere", "", "two words", "2026-08-29 13:44 raised",
        "2026-8-29 13:44:09 raised client=x"}) {
    const Reading r = Reading::of(line);
    EXPECT_EQ(r.plain, line);
    EXPECT_EQ(r.clock, "");
    EXPECT_TRUE(r.house);
  }
  // A word this build does not know keeps its fields as they stand.
  EXPECT_EQ(plain("someday a=1 b=two"), "someday a=1 b=two");
}

TEST(Reading, ListsReadAsProse) {
  EXPECT_EQ(Reading::list({}), "");
  EXPECT_EQ(Reading::list({"a"}), "a");
  EXPECT_EQ(Reading::list({"a", "b"}), "a and b");
  EXPECT_EQ(Reading::list({"a", "b", "c"}), "a, b and c");
}

}  // namespace
}  // namespace tolvanger::app
