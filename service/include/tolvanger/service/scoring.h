// The behaviour profile as data, and the arithmetic that scores one message
// against it.
//
// A profile is fitted elsewhere, by a program in another language, on the
// owner's own messages. The scoring here is a second implementation of the
// same arithmetic and has to agree with the fitting program exactly on every
// feature label and to within `kTolerance` on every score: the rules below
// reproduce that program's string and number handling (its float rendering,
// its clock conversion, its lower-casing), and each profile's check rows
// prove the agreement on every load. Do not tidy them.
//
// A score comes in three stages: 21 feature labels and the word tokens of
// the message; three family scores (naive-Bayes log-likelihood ratios with
// additive smoothing: timing bins, style bins, vocabulary); a standardised
// logistic stacker over the three.
//
// Thread safety: plain values and pure functions; safe from any thread.
#ifndef TOLVANGER_SERVICE_SCORING_H_
#define TOLVANGER_SERVICE_SCORING_H_

#include <array>
#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace tolvanger::service::Scoring {

// The one failure of this namespace: the profile (or the message) cannot be
// scored. `what()` is the sentence.
class ScoringError : public std::runtime_error {
 public:
  explicit ScoringError(const std::string& sentence)
      : std::runtime_error(sentence) {}
};

// Feature name to label; 21 entries.
using Features = std::map<std::string, std::string, std::less<>>;

// A JSON number as the file wrote it: 3 is whole and 3.0 is real, and the
// features render the two differently.
struct Number {
  bool isWhole = true;
  int64_t whole = 0;
  double real = 0;

  static Number ofWhole(int64_t v) { return {true, v, 0}; }
  static Number ofReal(double v) { return {false, 0, v}; }
  bool operator==(const Number&) const = default;
};

// One message as the model sees it.
struct Message {
  double ts = 0;  // seconds since 1970
  std::string text;
  std::optional<double> gap;  // seconds since the sender's previous message
  Number burstlen = Number::ofWhole(1);
  Number pos = Number::ofWhole(0);
};

// Weights of the owner's messages and of everybody else's in one bin.
struct Cell {
  double mirel = 0;
  double other = 0;
};

struct Model {
  // Feature name to (bin label to cell). A table's cells are summed in the
  // map's order.
  std::map<std::string, std::map<std::string, Cell>, std::less<>> bins;
  // Token to cell; an entry may be present without a cell. Only looked up
  // and counted, never walked, so it is hashed.
  std::unordered_map<std::string, std::optional<Cell>> vocab;
  Cell totals;
};

struct Stacker {
  std::vector<double> w, mean, std;  // three or more each
  double b = 0;
};

struct Cuts {
  double no = 0;   // a score at or below it is "no"
  double yes = 0;  // a score at or above it is "yes"
};

// One proof row: a message and the score the fitting program gave it.
struct Check {
  Message msg;
  std::optional<Features> feats;
  double score = 0;  // NaN when the row had none, so it never passes
};

struct Profile {
  std::string fitted;
  std::vector<std::string> senders;
  int64_t messages = 0;
  Model model;
  Stacker stacker;
  Cuts cuts;
  std::vector<Check> checks;

  // Reads a profile from its parsed JSON, check rows first, then the model,
  // the stacker, the cuts and the rows' messages. Throws ScoringError with
  // the sentence of the first thing that is wrong.
  static Profile from(const nlohmann::json& object);
};

inline constexpr double kClip = 2.5;
inline constexpr double kAlpha = 0.5;
inline constexpr double kBeta = 0.2;
inline constexpr double kTolerance = 1e-9;

// The feature families, in the order their terms are summed.
inline constexpr std::array<std::string_view, 4> kTimingNames = {
    "hour", "gap", "burstlen", "pos"};
inline constexpr std::array<std::string_view, 17> kStyleNames = {
    "chars", "words", "wordlen", "lower", "punct", "cyr",
    "emoji", "q",     "excl",    "nl",    "apos",  "cap",
    "end",   "tick",  "url",     "digit", "dash"};

// The score of `message`, between 0 and 1; high reads like the owner.
double score(const Profile& profile, const Message& message);
// "yes", "no" or "maybe"; with crossed cuts "yes" wins.
std::string verdict(const Profile& profile, double score);
// Reproduces every check row in order; the number of rows, or the first
// disagreement as a ScoringError.
int64_t verify(const Profile& profile);

Features features(const Message& message);
Features timingFeatures(const Message& message);
Features styleFeatures(std::string_view text);
std::vector<std::string> tokens(std::string_view text);
// Timing, style and vocabulary family scores.
std::array<double, 3> families(const Model& model, const Features& feats,
                               const std::vector<std::string>& toks);
double binnedLLR(const Model& model, const Features& feats,
                 std::span<const std::string_view> names);
double vocabLLR(const Model& model, const std::vector<std::string>& toks);
double applyStacker(const Stacker& stacker, const std::array<double, 3>& x);

// Helpers, exposed for tests.
// The hour of day in the fixed zone three hours east of UTC, after rounding
// to microseconds with ties to even.
int hourOf(double ts);
// A float as the fitting program prints it: shortest round-trip digits,
// plain for exponents -4 to 15, "3.0" for whole values.
std::string shown(double x);
// Full lower-case mapping of every scalar, with the final-sigma rule.
std::u32string lowered(const std::u32string& scalars);
bool finalSigma(const std::u32string& scalars, size_t at);
// The end of a URL that starts at `at`, or nothing.
std::optional<size_t> url(const std::u32string& scalars, size_t at);
bool isWord(char32_t scalar);
std::vector<std::u32string> words(const std::u32string& scalars);
// Scalars of category So or above U+1F000.
size_t emoji(const std::u32string& scalars);

}  // namespace tolvanger::service::Scoring

#endif  // TOLVANGER_SERVICE_SCORING_H_
