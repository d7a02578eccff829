#include "tolvanger/service/scoring.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "testing/profile_maker.h"

namespace tolvanger::service::Scoring {
namespace {

using nlohmann::json;

std::string error(const std::function<void()>& f) {
  try {
    f();
  } catch (const ScoringError& e) {
    return e.what();
  }
  return "no error";
}

TEST(Scoring, FloatsAreShownAsTheFittingProgramPrintsThem) {
  // Expected texts are Python 3.11's repr of the same doubles.
  const std::vector<std::pair<double, std::string>> cases = {
      {3.0, "3.0"},
      {-0.0, "-0.0"},
      {1e16, "1e+16"},
      {1e-5, "1e-05"},
      {0.0001, "0.0001"},
      {123456.789, "123456.789"},
      {1.5e16, "1.5e+16"},
      {1e15, "1000000000000000.0"},
      {9999999999999998.0, "9999999999999998.0"},
      {0.1 + 0.2, "0.30000000000000004"},
      {1e22, "1e+22"},
      {5e-324, "5e-324"},
      {-1.25e-7, "-1.25e-07"},
      {12345678901234567.0, "1.2345678901234568e+16"},
      {100.0, "100.0"},
      {std::numeric_limits<double>::quiet_NaN(), "nan"},
      {-std::numeric_limits<double>::infinity(), "-inf"}};
  for (const auto& [x, text] : cases) EXPECT_EQ(shown(x), text) << text;
}

TEST(Scoring, TheHourRoundsToMicrosecondsInAZoneThreeHoursEast) {
  EXPECT_EQ(hourOf(0.0), 3);
  EXPECT_EQ(hourOf(75599.9999995), 23);  // rounds to .999999
  EXPECT_EQ(hourOf(75599.9999996), 0);   // rounds into the next day
  EXPECT_EQ(hourOf(-0.5), 2);            // negative times floor
  EXPECT_EQ(hourOf(-1e-7), 3);           // rounds to -0.0, not below zero
  EXPECT_EQ(hourOf(1700000000.4999995), 1);
  const std::string unusable =
      "that profile does not score: a check message has an unusable time";
  EXPECT_EQ(error([] { hourOf(1e15); }), unusable);
  EXPECT_EQ(error([] { hourOf(-1e15); }), unusable);
  EXPECT_EQ(error([] { hourOf(std::nan("")); }), unusable);
  EXPECT_EQ(hourOf(999999999999999.9), hourOf(999999999999999.0));
}

TEST(Scoring, TheWorkedExampleGivesItsTokensAndFeatures) {
  const std::string text =
      "Ok, don't panic \u2014 it's 5 o'clock, see https://a/b?";
  EXPECT_EQ(tokens(text),
            (std::vector<std::string>{"ok", "don't", "panic", "it's", "o'clock",
                                      "see", "url"}));
  const Features expected = {
      {"chars", "3"}, {"words", "3"}, {"wordlen", "3"},     {"lower", "3"},
      {"punct", "6"}, {"cyr", "0"},   {"emoji", "0"},       {"q", "end"},
      {"excl", "n"},  {"nl", "0"},    {"apos", "straight"}, {"cap", "y"},
      {"end", "?"},   {"tick", "n"},  {"url", "y"},         {"digit", "1"},
      {"dash", "y"}};
  EXPECT_EQ(styleFeatures(text), expected);
}

TEST(Scoring, StyleLabelsAtTheirEdges) {
  const Features empty = styleFeatures("");
  for (const char* key : {"chars", "words", "wordlen", "lower", "punct", "cyr"})
    EXPECT_EQ(empty.at(key), "0") << key;
  EXPECT_EQ(empty.at("end"), "none");
  EXPECT_EQ(empty.at("q"), "no");
  EXPECT_EQ(empty.at("cap"), "n");

  EXPECT_EQ(styleFeatures("Hello.").at("end"), ".");
  EXPECT_EQ(styleFeatures("Hello. ").at("end"), "none");
  EXPECT_EQ(styleFeatures("Really?").at("q"), "end");
  EXPECT_EQ(styleFeatures("Really? \u3000").at("q"), "end");
  EXPECT_EQ(styleFeatures("why? no").at("q"), "mid");
  for (const char* dots : {"wait...", "wait\u2026", "wait.."})
    EXPECT_EQ(styleFeatures(dots).at("end"), "dots") << dots;
  EXPECT_EQ(styleFeatures(".").at("end"), ".");
  EXPECT_EQ(styleFeatures("ok \u2014").at("end"), "\u2014");

  const Features digits = styleFeatures("2024");
  EXPECT_TRUE(tokens("2024").empty());
  EXPECT_EQ(digits.at("digit"), "2");
  EXPECT_EQ(digits.at("words"), "0");

  EXPECT_EQ(tokens("HTTPS://EXAMPLE"), std::vector<std::string>{"url"});
  EXPECT_EQ(styleFeatures("HTTPS://EXAMPLE").at("url"), "n");
  EXPECT_EQ(styleFeatures("see http://x").at("url"), "y");
  EXPECT_EQ(styleFeatures("http:// x").at("url"), "n");

  EXPECT_EQ(styleFeatures("a - b").at("dash"), "y");
  EXPECT_EQ(styleFeatures("a-b").at("dash"), "n");
  EXPECT_EQ(styleFeatures("it\u2019s 'x'").at("apos"), "both");
  EXPECT_EQ(styleFeatures("\u041f\u0440\u0438\u0432\u0435\u0442 ok").at("cyr"),
            "3");
  EXPECT_EQ(styleFeatures("\u2603 \U0001F600\U0001F600").at("emoji"), "2");
  EXPECT_EQ(styleFeatures("a\nb\n\n\nc").at("nl"), "3");
  // The first letter decides `cap`, whatever comes before it.
  EXPECT_EQ(styleFeatures("12 \u00C9t\u00E9").at("cap"), "y");
  EXPECT_EQ(styleFeatures("\u3042 Abc").at("cap"), "n");
}

TEST(Scoring, LoweringWordsAndTheFinalSigma) {
  // Python 3.11: 'ΣΑΣ Σ ΑΣ.'.lower() == 'σας σ ας.'
  EXPECT_EQ(tokens("\u03a3\u0391\u03a3 \u03a3 \u0391\u03a3."),
            (std::vector<std::string>{"\u03c3\u03b1\u03c2", "\u03c3",
                                      "\u03b1\u03c2"}));
  // U+0130 lowers to two scalars; the combining dot is no word scalar.
  EXPECT_EQ(tokens("\u0130stanbul"),
            (std::vector<std::string>{"i", "stanbul"}));
  EXPECT_EQ(tokens("rock'n'roll dogs' abc123def a_b x\u2019y"),
            (std::vector<std::string>{"rock'n'roll", "dogs", "abc", "def", "a",
                                      "b", "x\u2019y"}));
  // Roman numerals and vulgar fractions are word scalars; digits are not.
  EXPECT_TRUE(isWord(U'\u2163'));
  EXPECT_TRUE(isWord(U'\u00BD'));
  EXPECT_FALSE(isWord(U'\u0663'));
  EXPECT_FALSE(isWord(U'_'));
}

TEST(Scoring, TimingLabelsKeepWholeAndRealApart) {
  Message m;
  m.ts = 1700000000;
  EXPECT_EQ(timingFeatures(m).at("gap"), "none");
  const auto label = [&](Number b, Number p) {
    m.burstlen = b;
    m.pos = p;
    const Features f = timingFeatures(m);
    return f.at("burstlen") + "/" + f.at("pos");
  };
  EXPECT_EQ(label(Number::ofWhole(2), Number::ofWhole(9)), "2/3");
  EXPECT_EQ(label(Number::ofReal(2.0), Number::ofReal(3.0)), "2.0/3.0");
  EXPECT_EQ(label(Number::ofReal(7.5), Number::ofReal(3.5)), "5/3");
  EXPECT_EQ(label(Number::ofReal(5.0), Number::ofReal(1e-5)), "5.0/1e-05");
  m.gap = -4;
  EXPECT_EQ(timingFeatures(m).at("gap"), "0");
  m.gap = 3;
  EXPECT_EQ(timingFeatures(m).at("gap"), "1");
  m.gap = 43200;
  EXPECT_EQ(timingFeatures(m).at("gap"), "9");
}

TEST(Scoring, FamiliesSmoothMissingLabelsAndSkipMissingTables) {
  const Profile p = Profile::from(testing::questionProfile());
  // q table: end 100/1, mid 10/10, no 1/100; k = 3, d = 2, sums 111 each.
  EXPECT_NEAR(binnedLLR(p.model, {{"q", "end"}}, kStyleNames), std::log(67.0),
              1e-12);
  EXPECT_NEAR(binnedLLR(p.model, {{"q", "mid"}}, kStyleNames), 0.0, 1e-12);
  // A label the table lacks counts as a cell of zeros: 0.5 / 113 each side.
  EXPECT_NEAR(binnedLLR(p.model, {{"q", "elsewhere"}}, kStyleNames), 0.0,
              1e-12);
  // A feature without a table adds nothing.
  EXPECT_EQ(binnedLLR(p.model, {{"hour", "3"}}, kTimingNames), 0.0);

  Model m;
  m.vocab["hi"] = Cell{9, 1};
  m.vocab["<oov>"] = std::nullopt;
  m.totals = Cell{10, 10};
  EXPECT_EQ(vocabLLR(m, {}), 0.0);
  // v = 3 * 0.2; "hi" gives log(9.2/1.2) clipped to 2.5 (log 7.67 is 2.04),
  // an unknown token the zero cell: 0.
  const double hi = std::log((9.2 / 10.6) / (1.2 / 10.6));
  EXPECT_NEAR(vocabLLR(m, {"hi", "zzz"}), hi / std::sqrt(2.0), 1e-12);
  m.vocab["hi"] = Cell{1000, 0};
  EXPECT_NEAR(vocabLLR(m, {"hi"}), 2.5, 0);
  m.totals = Cell{-5, 1};
  EXPECT_EQ(error([&] { vocabLLR(m, {"x"}); }),
            "that profile does not score: a count went to zero or below");
}

TEST(Scoring, TheStackerAndTheVerdict) {
  Stacker s{{1, 1, 1}, {0, 0, 0}, {1, 1, 1}, 0};
  EXPECT_EQ(applyStacker(s, {0, 0, 0}), 0.5);
  EXPECT_EQ(applyStacker(s, {10, 10, 10}), 0.9999999999999065);
  EXPECT_EQ(applyStacker(s, {-10, -10, -10.0001}), 9.357622968839299e-14);
  EXPECT_EQ(applyStacker(s, {-10, -10, -10}), 1.0 / (std::exp(30.0) + 1));
  s.w[2] = 0;
  s.std[2] = 0;
  EXPECT_EQ(error([&] {
              applyStacker(s, {0, 0, 0});
            }),
            "that profile does not score: the stacker divides by nothing");

  Profile p;
  p.cuts = Cuts{0.2, 0.8};
  EXPECT_EQ(verdict(p, 0.8), "yes");
  EXPECT_EQ(verdict(p, 0.2), "no");
  EXPECT_EQ(verdict(p, 0.5), "maybe");
  p.cuts = Cuts{0.9, 0.1};
  EXPECT_EQ(verdict(p, 0.5), "yes");
}

TEST(Scoring, CheckRowsProveTheArithmeticOrSayWhereItCameApart) {
  json top = testing::questionProfile();
  EXPECT_EQ(verify(Profile::from(top)), 5);

  json changed = top;
  const double fitted = changed["checks"][1]["score"].get<double>();
  changed["checks"][1]["score"] = std::nextafter(fitted + 2e-9, 1.0);
  char here[32];
  std::snprintf(here, sizeof here, "%.12f", fitted);
  EXPECT_EQ(
      error([&] { verify(Profile::from(changed)); }),
      "check row 1 scores " + std::string(here) + " here and " +
          [&] {
            char there[32];
            std::snprintf(there, sizeof there, "%.12f",
                          changed["checks"][1]["score"].get<double>());
            return std::string(there);
          }() +
          " where it was fitted \u2014 the two implementations have "
          "come apart");

  changed = top;
  changed["checks"][2]["feats"]["cap"] = "y";
  changed["checks"][2]["feats"].erase("q");
  changed["checks"][2]["feats"]["extra"] = "1";
  EXPECT_EQ(error([&] { verify(Profile::from(changed)); }),
            "check row 2: this Mac reads cap, extra, q differently from "
            "whatever fitted the profile");

  // Without feats a row proves the score only; a row without a score never
  // passes.
  changed = top;
  changed["checks"][0].erase("feats");
  EXPECT_EQ(verify(Profile::from(changed)), 5);
  changed["checks"][0].erase("score");
  EXPECT_NE(error([&] { verify(Profile::from(changed)); }).find("nan"),
            std::string::npos);
}

}  // namespace
}  // namespace tolvanger::service::Scoring
