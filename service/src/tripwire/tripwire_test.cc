#include "tolvanger/service/tripwire.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utime.h>

#include <filesystem>
#include <fstream>

#include "testing/paired_phone.h"
#include "testing/profile_maker.h"
#include "testing/temp_home.h"
#include "tolvanger/kit/crypto/p256.h"
#include "tolvanger/kit/service_error.h"
#include "tolvanger/service/service.h"

namespace tolvanger::service {
namespace {

using nlohmann::json;
using testing::kOwner;
using testing::questionProfile;

std::string refusal(const std::string& data) {
  try {
    Tripwire::inspect(data);
  } catch (const ServiceError& e) {
    EXPECT_TRUE(e.isRefused());
    return e.what();
  }
  return "accepted";
}

std::string refusal(const json& top) { return refusal(top.dump()); }

TEST(TripwireInspect, AcceptsAProvedProfileAndSaysWhatItIs) {
  const std::string text = questionProfile().dump();
  const Inspected got = Tripwire::inspect(text);
  EXPECT_EQ(got.checked, 5);
  EXPECT_EQ(got.fingerprint, Tripwire::digest(text));
  EXPECT_EQ(got.fingerprint.size(), 16u);
  EXPECT_EQ(got.profile.fitted, "2026-11-20 09:30");
  // Kept: a non-empty string and a non-zero integer; dropped: "", 0, 1.5, true.
  EXPECT_EQ(got.profile.senders,
            (std::vector<std::string>{std::string(kOwner), "42"}));
  // 1200 + "800"; a boolean adds nothing.
  EXPECT_EQ(got.profile.messages, 2000);
  EXPECT_EQ(got.about(), (json{{"checked", 5},
                               {"fitted", "2026-11-20 09:30"},
                               {"fingerprint", got.fingerprint},
                               {"messages", 2000}}));
}

TEST(TripwireInspect, RowsScoredByPythonsOwnArithmeticPass) {
  // The fuzz seed's three scores were computed by Python (math.log, exp).
  const auto text = Home(TOLVANGER_SOURCE_DIR "/fuzz/corpus/profile_fuzz")
                        .read("three_rows.json");
  ASSERT_TRUE(text.has_value());
  EXPECT_EQ(Tripwire::inspect(*text).checked, 3);
}

TEST(TripwireInspect, RefusesInTheOrderItReads) {
  EXPECT_EQ(refusal(std::string(kProfileLimit + 1, ' ')),
            "a profile over 4096kb is not a profile, it is a file");
  EXPECT_EQ(refusal(std::string("{\"a\":"))
                .rfind("that is not a readable profile: ", 0),
            0u);
  EXPECT_EQ(refusal(std::string("[1]")), "a profile is a json object");

  json top = questionProfile();
  json t = top;
  t.erase("stacker");
  t.erase("model");
  EXPECT_EQ(refusal(t), "a profile needs model in it");
  t = top;
  t.erase("fitted");
  t.erase("cuts");
  EXPECT_EQ(refusal(t), "a profile needs cuts in it");
  // Null counts as present, and then fails where its value is read.
  t = top;
  t["model"] = nullptr;
  EXPECT_EQ(refusal(t),
            "that profile does not score: the model has no bins or vocab");
  t["checks"] = json::array();
  EXPECT_EQ(refusal(t),
            "this profile carries no check rows, so nothing here can tell "
            "whether it was fitted by a version that agrees with this one");

  for (const json& fitted : {json("2025-13-01 10:00"), json("2025-02-29 10:00"),
                             json("25-01-01 10:00"), json("2025-01-01T10:00"),
                             json(nullptr), json(202501011000)}) {
    t = top;
    t["fitted"] = fitted;
    EXPECT_EQ(refusal(t),
              "a profile has to say when it was fitted, as YYYY-MM-DD HH:MM")
        << fitted;
  }

  const std::string p = "that profile does not score: ";
  const std::vector<std::pair<std::function<void(json&)>, std::string>> cases =
      {
          {[](json& j) { j["model"]["bins"]["hour"] = 3; },
           p + "bins.hour is not a table"},
          {[](json& j) { j["model"]["bins"]["q"]["end"]["mirel"] = true; },
           p + "bins.q.end.mirel is not a number"},
          {[](json& j) { j["model"]["bins"]["q"]["end"].erase("other"); },
           p + "bins.q.end.other is not a number"},
          {[](json& j) { j["model"]["vocab"]["x"] = nullptr; },
           p + "vocab.x is not a cell"},
          {[](json& j) {
             j["model"]["vocab"]["x"] = {{"mirel", 1}};
           },
           p + "vocab.x.other is not a number"},
          {[](json& j) { j["model"].erase("totals"); },
           p + "totals is not a cell"},
          {[](json& j) { j["stacker"] = json::array(); },
           p + "the stacker is not an object"},
          {[](json& j) {
             j["stacker"]["w"] = {1, 2};
           },
           p + "stacker.w is short"},
          {[](json& j) {
             j["stacker"]["mean"] = {1, false, 2};
           },
           p + "stacker.mean is not a number"},
          {[](json& j) {
             j["stacker"]["b"] = "0";
             j["stacker"]["std"] = {1};
           },
           p + "stacker.b is not a number"},
          {[](json& j) { j["cuts"] = 1; }, p + "the cuts are not an object"},
          {[](json& j) { j["cuts"]["no"] = true; },
           p + "cuts.no is not a number"},
          {[](json& j) { j["checks"][3] = "row"; },
           "check row 3 is not a message"},
          {[](json& j) { j["checks"][1]["msg"].erase("ts"); },
           "check row 1 is not a message"},
          {[](json& j) { j["checks"][0]["msg"]["ts"] = "1700000000"; },
           p + "a check message has no readable text or time"},
          {[](json& j) { j["checks"][0]["msg"]["gap"] = "5"; },
           p + "a check message's gap is not a number"},
          {[](json& j) { j["checks"][0]["msg"]["burstlen"] = true; },
           p + "a check message's burstlen is not a number"},
          {[](json& j) { j["checks"][0]["msg"]["pos"] = nullptr; },
           p + "a check message's pos is not a number"},
          // The model is read before the rows: a bad cell wins over a bad row.
          {[](json& j) {
             j["checks"][0] = 1;
             j["model"]["totals"] = 1;
           },
           p + "totals is not a cell"},
      };
  for (const auto& [change, sentence] : cases) {
    t = top;
    change(t);
    EXPECT_EQ(refusal(t), sentence);
  }
  // An entry with no cell is fine.
  t = top;
  t["model"]["vocab"]["x"] = json::object();
  EXPECT_EQ(refusal(t), "accepted");
}

TEST(TripwireInspect, WholeAndRealCountsAreDifferentMessages) {
  json top = questionProfile();
  top["checks"][0]["msg"]["burstlen"] = 2;
  // The row's feats say "1" (written by the maker for the default burst).
  EXPECT_EQ(refusal(top),
            "check row 0: this Mac reads burstlen differently from whatever "
            "fitted the profile");
  top["checks"][0]["feats"]["burstlen"] = "2";
  EXPECT_EQ(refusal(top), "accepted");
  top["checks"][0]["msg"]["burstlen"] = 2.0;
  EXPECT_EQ(refusal(top),
            "check row 0: this Mac reads burstlen differently from whatever "
            "fitted the profile");
  top["checks"][0]["feats"]["burstlen"] = "2.0";
  EXPECT_EQ(refusal(top), "accepted");
}

TEST(TripwireInspect, FittedTimesAreReadInAZoneThreeHoursEast) {
  EXPECT_EQ(Tripwire::fittedAt("2025-03-09 08:05"),
            Tripwire::fittedAt("2025-3-9 8:05"));
  EXPECT_EQ(Tripwire::fittedAt("1970-01-01 03:00"), 0);
  // The parts are counted together, wherever the split fell.
  EXPECT_EQ(Tripwire::fittedAt("2025-1-1-1 10"),
            Tripwire::fittedAt("2025-01-01 01:10"));
  EXPECT_EQ(Tripwire::fittedAt("  2024-02-29   23:59 "), 1709240340);
  for (const char* bad :
       {"2025-02-30 10:00", "2025-01-00 10:00", "2025-01-01 24:00",
        "2025-01-01 10:60", "2025-01-01 10:00 x", "2025-01-01",
        "2025-1-1-1 10:00", "2025-01-01 +1:00", "2025-001-01 10:00"}) {
    EXPECT_FALSE(Tripwire::fittedAt(bad).has_value()) << bad;
  }
}

TEST(ProfileStore, WritesThroughAScratchFileInAPrivateDirectory) {
  TempHome home;
  const ProfileStore store(home.home());
  EXPECT_FALSE(store.exists());
  EXPECT_FALSE(store.stat().has_value());
  EXPECT_THROW(store.put("{}"), ServiceError);
  EXPECT_FALSE(std::filesystem::exists(store.dir()));

  const std::string text = questionProfile().dump();
  EXPECT_EQ(store.put(text).checked, 5);
  struct stat st {};
  ASSERT_EQ(::stat(store.dir().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
  EXPECT_EQ(store.path(), home.path + "/profile/behaviour.json");
  const auto attributes = store.stat();
  ASSERT_TRUE(attributes.has_value());
  EXPECT_EQ(attributes->mode, "0o600");
  EXPECT_EQ(attributes->bytes, static_cast<int64_t>(text.size()));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(store.dir()),
                          std::filesystem::directory_iterator()),
            1);

  // The file stays as it was when a write cannot happen (here a directory
  // stands where the scratch file would go).
  const std::string scratch =
      store.path() + ".tmp" + std::to_string(::getpid());
  std::filesystem::create_directory(scratch);
  try {
    store.put(questionProfile({"other?"}).dump());
    ADD_FAILURE() << "the write went through";
  } catch (const ServiceError& e) {
    EXPECT_FALSE(e.isRefused());
    EXPECT_STREQ(e.what(), "the profile could not be written");
  }
  std::filesystem::remove(scratch);
  EXPECT_EQ(home.home().read("profile/behaviour.json"), text);
  EXPECT_TRUE(store.forget());
  EXPECT_FALSE(store.exists());
}

class TripwireTest : public ::testing::Test {
 protected:
  void install(const json& profile) {
    ProfileStore(home_.home()).put(profile.dump());
  }
  void say(const std::string& text, double ts, const json& sender = kOwner) {
    tripwire_.observe(sender, ts, text, nullptr, nullptr, nullptr);
  }

  TempHome home_;
  Tripwire tripwire_{home_.home(), TripwireConfig{}};
};

TEST_F(TripwireTest, ReloadsWhenTheFileChangesAndSaysWhyNoneIsLoaded) {
  json about = tripwire_.about(1790000000);
  EXPECT_EQ(about["loaded"], false);
  EXPECT_EQ(about["why"], "no behaviour profile is stored");
  EXPECT_FALSE(about.contains("bytes"));

  install(questionProfile());
  about = tripwire_.about(
      static_cast<int64_t>(*Tripwire::fittedAt("2026-11-20 09:30")) +
      86400 * 22 + 3600 * 3);
  EXPECT_EQ(about["loaded"], true);
  EXPECT_EQ(about["age_days"], 22.1);
  EXPECT_EQ(about["stale"], true);
  EXPECT_EQ(about["stale_after_days"], 21);
  EXPECT_EQ(about["messages"], 2000);
  EXPECT_EQ(about["watching"], json({"42", std::string(kOwner)}));
  EXPECT_EQ(about["observed"], 0);
  EXPECT_EQ(about["mode"], "0o600");
  EXPECT_FALSE(about.contains("why"));

  // A file that turns bad behind the service's back is found on the next
  // use, once its modification time moved, and stays out until replaced.
  const std::string path = tripwire_.store().path();
  std::ofstream(path) << "{\"model\": 1}";
  struct utimbuf times {
    1700000000, 1700000000
  };
  ::utime(path.c_str(), &times);
  EXPECT_FALSE(tripwire_.load());
  EXPECT_EQ(tripwire_.about(0)["why"], "a profile needs stacker in it");
  install(questionProfile());
  times = {1700000100, 1700000100};
  ::utime(path.c_str(), &times);
  EXPECT_TRUE(tripwire_.load());
}

TEST_F(TripwireTest, ANoticeFollowsTheLatestVerdictsInTheWindow) {
  install(questionProfile());
  const double t = 1800000000;
  EXPECT_EQ(tripwire_.notice(t), std::nullopt);
  say("nothing asked", t - 1801);  // "no", out of the window
  EXPECT_EQ(tripwire_.notice(t), std::nullopt);
  say("not a question", t - 100);  // "no"
  const std::string single =
      "The last message from your account doesn\u2019t read like you \u2014 "
      "though about 1 in 45 of yours trips this too.";
  EXPECT_EQ(tripwire_.notice(t), single);
  say("A question?", t - 50);  // "yes" clears it
  EXPECT_EQ(tripwire_.notice(t), std::nullopt);
  say("no", t - 40);
  say("nope", t - 30);
  EXPECT_EQ(tripwire_.notice(t),
            "3 of the last 4 messages from your account don\u2019t read like "
            "you.");
  // Another sender's messages are not scored; an unwatched one is not kept.
  say("stranger", t - 20, "someone@else");
  say("   \u3000\n", t - 20);
  say("ok", t - 20, 42);
  EXPECT_EQ(tripwire_.about(0)["observed"], 5);

  // The same time, "no" and "yes": "yes" sorts last and clears the notice.
  say("tie", t - 10);
  say("tie?", t - 10);
  EXPECT_EQ(tripwire_.notice(t), std::nullopt);
  // Four "maybe" then one "no" gives the fixed sentence; in the future counts.
  for (int i = 0; i < 4; ++i) say("maybe? so", t - 5 + i);
  say("no", t + 100);
  EXPECT_EQ(tripwire_.notice(t), single);
  // Eight entries are kept per sender, the oldest pushed out.
  EXPECT_EQ(tripwire_.about(0)["observed"], 8);
  for (int i = 0; i < 5; ++i) say("no", t + 101 + i);
  EXPECT_EQ(tripwire_.notice(t),
            "5 of the last 5 messages from your account don\u2019t read like "
            "you.");
}

TEST_F(TripwireTest, CountsFromAgentsAndAProfileThatStopsScoring) {
  EXPECT_EQ(Tripwire::number(true), 1.0);
  EXPECT_EQ(Tripwire::number(" 2.5\u00a0"), 2.5);
  EXPECT_EQ(Tripwire::number("1e3"), 1000.0);
  EXPECT_EQ(Tripwire::number("2.5x"), std::nullopt);
  EXPECT_EQ(Tripwire::number(""), std::nullopt);
  EXPECT_EQ(Tripwire::number(json::array()), std::nullopt);

  install(questionProfile());
  // A time the clock cannot read puts the profile aside; a touch of the file
  // brings it back.
  tripwire_.observe(std::string(kOwner), 1e15, "hello", nullptr, 0, 0);
  const json about = tripwire_.about(0);
  EXPECT_EQ(about["loaded"], true);  // reloaded: the file is still good
  EXPECT_EQ(about["observed"], 0);
}

TEST(TripwireNotice, TheSignedTextIsThreeLinesWhenTheNoticeIsUsable) {
  EXPECT_EQ(Tripwire::noticeText("r0123456789abcdef", "Careful."),
            "tolvanger-notice-v1\nr0123456789abcdef\nCareful.");
  EXPECT_FALSE(Tripwire::noticeText("r0123456789abcdef", " \u3000 "));
  EXPECT_FALSE(Tripwire::noticeText("r0123456789abcdef", "two\nlines"));
  EXPECT_FALSE(Tripwire::noticeText("R/1", "Careful."));
  EXPECT_TRUE(Tripwire::noticeText("r1", std::string(200, 'x')));
  EXPECT_FALSE(Tripwire::noticeText("r1", std::string(201, 'x')));
}

TEST(TripwireService, AnOfferIsApprovedThenInstalledAndRaisesCarryNotices) {
  TempHome home;
  Service service(home.home());
  Phone phone;
  phone.pair(service);

  const json offered = questionProfile();
  // Refusals reach the agent before any request exists.
  for (const auto& [blob, sentence] : std::vector<std::pair<json, std::string>>{
           {json(5), "a profile arrives base64-encoded and gzipped"},
           {json(""), "a profile arrives base64-encoded and gzipped"},
           {json(std::string(kProfileLimit + 1, 'A')),
            "that is too big to be a profile"},
           {json("H4sI\nAAAA"), "that profile is not base64"},
           {json(toBase64(asBytes("plain"))),
            "that profile is not gzip: no gzip header"}}) {
    try {
      service.offerProfile(blob, nullptr, "agent", std::nullopt);
      ADD_FAILURE() << sentence;
    } catch (const ServiceError& e) {
      EXPECT_EQ(std::string(e.what()), sentence);
    }
  }
  EXPECT_EQ(service.pendingRequests().size(), 0u);

  const StoredRequest r = service.offerProfile(
      testing::packed(offered), nullptr, "agent", std::string("claude"));
  EXPECT_EQ(r.operation, "tripwire.replace");
  EXPECT_EQ(r.fields.text("replaces"), "nothing yet");
  EXPECT_EQ(r.fields.text("fingerprint"), Tripwire::digest(offered.dump()));
  EXPECT_EQ(r.fields.get("checks"), FieldValue::number(5));
  EXPECT_EQ(r.fields.get("messages"), FieldValue::number(2000));
  EXPECT_EQ(r.canonical.find("H4sI"), std::string::npos);

  // Not approved yet: the store's refusal.
  EXPECT_THROW(service.installProfile(r.id), ServiceError);
  service.approve(phone.approve(service, r));
  const json about = service.installProfile(r.id);
  EXPECT_EQ(about["checked"], 5);
  EXPECT_EQ(service.status()["tripwire"]["loaded"], true);

  // Not the profile's approval.
  const StoredRequest plain = service.raise("deploy.prod", Fields());
  service.approve(phone.approve(service, plain));
  try {
    service.installProfile(plain.id);
    ADD_FAILURE();
  } catch (const ServiceError& e) {
    EXPECT_STREQ(e.what(), "that approval was not for a profile");
  }

  // An observed message that reads wrong puts a signed notice on the next
  // request, and on the next offer's, which names what it replaces.
  service.tripwire().observe(std::string(kOwner), 1.0 * Store::systemNow(),
                             "this does not read like me", nullptr, nullptr,
                             nullptr);
  const StoredRequest warned = service.raise("deploy.prod", Fields());
  ASSERT_TRUE(warned.notice.has_value());
  const json payload = service.requestPayload(warned);
  EXPECT_EQ(payload["notice"], *warned.notice);
  const auto sig = fromBase64(payload["notice_sig"].get<std::string>());
  ASSERT_TRUE(sig.has_value());
  const auto key = crypto::P256PublicKey::fromDER(
      ServiceInternals::identity(service).spki());
  ASSERT_TRUE(key.has_value());
  EXPECT_TRUE(key->verify(
      asBytes(*Tripwire::noticeText(warned.id, *warned.notice)), *sig));
  EXPECT_NE(service.journalTail(1).back().find("off-profile=true"),
            std::string::npos);
  const StoredRequest second = service.offerProfile(
      testing::packed(questionProfile({"again?"}, "2026-11-21 10:00")), "newer",
      "agent", std::nullopt);
  EXPECT_EQ(second.fields.text("replaces"), "2026-11-20 09:30");
  EXPECT_TRUE(second.notice.has_value());

  // A package that cannot be stored after the take leaves the approval
  // spent and the old profile in force.
  service.approve(phone.approve(service, second));
  std::filesystem::create_directory(service.tripwire().store().path() + ".tmp" +
                                    std::to_string(::getpid()));
  EXPECT_THROW(service.installProfile(second.id), ServiceError);
  EXPECT_EQ(service.request(second.id)->state, RequestState::kTaken);
  EXPECT_EQ(service.tripwire().about(0)["fitted"], "2026-11-20 09:30");
}

}  // namespace
}  // namespace tolvanger::service
