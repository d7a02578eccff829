// The scoring arithmetic. This file is compiled without fast-math and with
// floating-point contraction off (see service/CMakeLists.txt): every sum and
// product must round exactly as the fitting program's do, in the order
// written here.
#include "tolvanger/service/scoring.h"

#include <unicode/uchar.h>
#include <unicode/ustring.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>

#include "tolvanger/kit/text.h"

namespace tolvanger::service::Scoring {

namespace {

constexpr std::u32string_view kPunct =
    U".,!?;:\u2026\"'\u2019\u201C\u201D()[]{}/\\*&%$#@~`|<>+=-\u2013\u2014";

// The ASCII members of `kPunct` as a bit set, so most scalars cost one test.
constexpr std::array<uint64_t, 2> kAsciiPunct = [] {
  std::array<uint64_t, 2> bits{};
  for (char32_t c : kPunct) {
    if (c < 0x80) bits[c / 64] |= uint64_t{1} << (c % 64);
  }
  return bits;
}();

bool isPunct(char32_t c) {
  if (c < 0x80) return (kAsciiPunct[c / 64] >> (c % 64)) & 1;
  return kPunct.find(c) != std::u32string_view::npos;
}

std::u32string toScalars(std::string_view utf8) {
  const std::vector<char32_t> v = Text::scalars(utf8);
  return std::u32string(v.begin(), v.end());
}

std::string toUTF8(std::u32string_view scalars) {
  std::string out;
  out.reserve(scalars.size());
  for (char32_t c : scalars) Text::appendUTF8(out, c);
  return out;
}

int8_t category(char32_t c) { return u_charType(static_cast<UChar32>(c)); }

bool isLetter(char32_t c) {
  if (c < 0x80) return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
  switch (category(c)) {
    case U_UPPERCASE_LETTER:
    case U_LOWERCASE_LETTER:
    case U_TITLECASE_LETTER:
    case U_MODIFIER_LETTER:
    case U_OTHER_LETTER:
      return true;
    default:
      return false;
  }
}

bool isDecimal(char32_t c) {
  if (c < 0x80) return c >= '0' && c <= '9';
  return category(c) == U_DECIMAL_DIGIT_NUMBER;
}

bool has(char32_t c, UProperty property) {
  return u_hasBinaryProperty(static_cast<UChar32>(c), property) != 0;
}

// Letters only: the ASCII ones are answered without a lookup.
bool isLowercaseLetter(char32_t c) {
  if (c < 0x80) return c >= 'a' && c <= 'z';
  return has(c, UCHAR_LOWERCASE);
}

// The index of the first bound that `v` lies strictly below, else the last.
template <size_t N>
std::string bin(double v, const double (&bounds)[N]) {
  for (size_t i = 0; i < N; ++i) {
    if (v < bounds[i]) return std::to_string(i);
  }
  return std::to_string(N);
}

std::string capped(const Number& n, int64_t limit) {
  if (n.isWhole) return std::to_string(std::min(n.whole, limit));
  if (n.real > static_cast<double>(limit)) return std::to_string(limit);
  return shown(n.real);
}

[[noreturn]] void unusable(const std::string& what) {
  throw ScoringError("that profile does not score: " + what);
}

}  // namespace

std::string shown(double x) {
  if (std::isnan(x)) return "nan";
  if (std::isinf(x)) return x < 0 ? "-inf" : "inf";
  // Shortest round-trip digits, read out of the scientific form.
  char buf[64];
  const auto r =
      std::to_chars(buf, buf + sizeof buf, x, std::chars_format::scientific);
  const std::string_view sci(buf, static_cast<size_t>(r.ptr - buf));
  const size_t e = sci.find('e');
  const std::string_view mantissa = sci.substr(0, e);
  int exponent = 0;
  std::from_chars(sci.data() + e + 1 + (sci[e + 1] == '+' ? 1 : 0),
                  sci.data() + sci.size(), exponent);
  const bool negative = mantissa.front() == '-';
  std::string digits;
  for (char c : mantissa) {
    if (c >= '0' && c <= '9') digits += c;
  }
  std::string out = negative ? "-" : "";
  if (exponent < -4 || exponent > 15) {
    out += digits.substr(0, 1);
    if (digits.size() > 1) out += "." + digits.substr(1);
    char tail[16];
    std::snprintf(tail, sizeof tail, "e%c%02d", exponent < 0 ? '-' : '+',
                  std::abs(exponent));
    return out + tail;
  }
  const int point = exponent + 1;  // digits before the decimal point
  if (point <= 0) {
    out += "0." + std::string(static_cast<size_t>(-point), '0') + digits;
  } else if (static_cast<size_t>(point) >= digits.size()) {
    out += digits +
           std::string(static_cast<size_t>(point) - digits.size(), '0') + ".0";
  } else {
    out += digits.substr(0, static_cast<size_t>(point)) + "." +
           digits.substr(static_cast<size_t>(point));
  }
  return out;
}

int hourOf(double ts) {
  if (!std::isfinite(ts) || std::fabs(ts) >= 1e15) {
    throw ScoringError(
        "that profile does not score: a check message has an unusable time");
  }
  const double whole = std::trunc(ts);
  auto s = static_cast<int64_t>(whole);
  const double u = std::nearbyint((ts - whole) * 1e6);  // ties to even
  if (u >= 1e6) {
    s += 1;
  } else if (u < 0) {
    s -= 1;
  }
  int64_t t = (s + 10800) % 86400;
  if (t < 0) t += 86400;
  return static_cast<int>(t / 3600);
}

bool finalSigma(const std::u32string& sc, size_t at) {
  size_t j = at;
  for (;;) {
    if (j == 0) return false;
    --j;
    if (!has(sc[j], UCHAR_CASE_IGNORABLE)) break;
  }
  if (!has(sc[j], UCHAR_CASED)) return false;
  for (size_t k = at + 1; k < sc.size(); ++k) {
    if (!has(sc[k], UCHAR_CASE_IGNORABLE)) return !has(sc[k], UCHAR_CASED);
  }
  return true;
}

std::u32string lowered(const std::u32string& sc) {
  std::u32string out;
  out.reserve(sc.size());
  for (size_t i = 0; i < sc.size(); ++i) {
    const char32_t c = sc[i];
    if (c < 0x80) {
      out += (c >= 'A' && c <= 'Z') ? c + 32 : c;
      continue;
    }
    if (c == 0x03A3) {
      out += finalSigma(sc, i) ? U'\u03C2' : U'\u03C3';
      continue;
    }
    // The full mapping, which may be several scalars (U+0130 gives two).
    UChar in[2];
    int32_t inLength = 0;
    U16_APPEND_UNSAFE(in, inLength, static_cast<UChar32>(c));
    UChar mapped[8];
    UErrorCode status = U_ZERO_ERROR;
    const int32_t n = u_strToLower(mapped, 8, in, inLength, "", &status);
    if (U_FAILURE(status) || n > 8) {
      out += static_cast<char32_t>(u_tolower(static_cast<UChar32>(c)));
      continue;
    }
    for (int32_t k = 0; k < n;) {
      UChar32 m;
      U16_NEXT(mapped, k, n, m);
      out += static_cast<char32_t>(m);
    }
  }
  return out;
}

std::optional<size_t> url(const std::u32string& sc, size_t at) {
  constexpr std::u32string_view kHttp = U"http";
  constexpr std::u32string_view kSep = U"://";
  if (at >= sc.size() || sc[at] != U'h') return std::nullopt;
  if (sc.compare(at, kHttp.size(), kHttp) != 0) return std::nullopt;
  size_t i = at + kHttp.size();
  if (i < sc.size() && sc[i] == U's') ++i;
  if (sc.compare(i, kSep.size(), kSep) != 0) return std::nullopt;
  i += kSep.size();
  const size_t start = i;
  while (i < sc.size() && !Text::isWhitespace(sc[i])) ++i;
  if (i == start) return std::nullopt;
  return i;
}

bool isWord(char32_t c) {
  if (c == U'_' || isDecimal(c)) return false;
  if (c < 0x80) return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
  return isLetter(c) || u_getIntPropertyValue(static_cast<UChar32>(c),
                                              UCHAR_NUMERIC_TYPE) != U_NT_NONE;
}

namespace {

// Where each word of `sc` begins and ends.
std::vector<std::pair<size_t, size_t>> wordSpans(const std::u32string& sc) {
  std::vector<std::pair<size_t, size_t>> out;
  const size_t n = sc.size();
  size_t i = 0;
  while (i < n) {
    while (i < n && !isWord(sc[i])) ++i;
    if (i == n) break;
    const size_t start = i;
    while (i < n && isWord(sc[i])) ++i;
    while (i + 1 < n && (sc[i] == U'\'' || sc[i] == U'\u2019') &&
           isWord(sc[i + 1])) {
      ++i;
      while (i < n && isWord(sc[i])) ++i;
    }
    out.emplace_back(start, i);
  }
  return out;
}

}  // namespace

std::vector<std::u32string> words(const std::u32string& sc) {
  std::vector<std::u32string> out;
  for (const auto& [start, end] : wordSpans(sc)) {
    out.push_back(sc.substr(start, end - start));
  }
  return out;
}

size_t emoji(const std::u32string& sc) {
  size_t count = 0;
  for (char32_t c : sc) {
    if (c > 0x1F000 || (c >= 0x80 && category(c) == U_OTHER_SYMBOL)) ++count;
  }
  return count;
}

namespace {

std::vector<std::string> tokensOf(const std::u32string& sc) {
  const std::u32string low = lowered(sc);
  std::u32string marked;
  marked.reserve(low.size());
  for (size_t i = 0; i < low.size();) {
    if (const auto end = low[i] == U'h' ? url(low, i) : std::nullopt) {
      marked += U" <url> ";
      i = *end;
    } else {
      marked += low[i++];
    }
  }
  std::vector<std::string> out;
  const auto spans = wordSpans(marked);
  out.reserve(spans.size());
  for (const auto& [start, end] : spans) {
    const std::u32string_view word(marked.data() + start, end - start);
    bool digit = false;
    for (char32_t c : word) digit = digit || isDecimal(c);
    out.push_back(digit ? std::string("<num>") : toUTF8(word));
  }
  return out;
}

Features styleOf(const std::u32string& sc,
                 const std::vector<std::string>& toks) {
  const size_t n = sc.size();
  size_t letters = 0, lowerLetters = 0, punct = 0, cyr = 0, latin = 0,
         newlines = 0, digits = 0;
  bool question = false, bang = false, curly = false, straight = false,
       tick = false, urlFound = false, dash = false;
  std::optional<char32_t> firstLetter;
  for (size_t i = 0; i < n; ++i) {
    const char32_t c = sc[i];
    if (isLetter(c)) {
      ++letters;
      if (!firstLetter) firstLetter = c;
      if (isLowercaseLetter(c)) ++lowerLetters;
    }
    if (isPunct(c)) ++punct;
    if (c >= 0x0400 && c <= 0x04FF) ++cyr;
    if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z')) ++latin;
    if (c == U'\n') ++newlines;
    if (isDecimal(c)) ++digits;
    question = question || c == U'?';
    bang = bang || c == U'!';
    curly = curly || c == U'\u2019';
    straight = straight || c == U'\'';
    tick = tick || c == U'`';
    dash = dash || c == U'\u2014' ||
           (c == U'-' && i > 0 && i + 1 < n && sc[i - 1] == U' ' &&
            sc[i + 1] == U' ');
    urlFound = urlFound || (c == U'h' && url(sc, i).has_value());
  }

  // Tokens are well-formed UTF-8: count the bytes that start a scalar.
  size_t tokenScalars = 0;
  for (const std::string& t : toks) {
    for (char b : t) tokenScalars += (static_cast<uint8_t>(b) & 0xC0) != 0x80;
  }

  static constexpr double kChars[] = {12, 25, 45, 80, 140, 250, 450, 800};
  static constexpr double kWords[] = {2, 4, 7, 12, 22, 40, 75, 130};
  static constexpr double kWordlen[] = {3.2, 3.7, 4.1, 4.5, 5.0, 5.8};
  static constexpr double kLower[] = {0.6, 0.85, 0.93, 0.97, 0.995};
  static constexpr double kPunctShare[] = {0.004, 0.015, 0.03,
                                           0.05,  0.08,  0.13};
  static constexpr double kCyr[] = {0.02, 0.25, 0.6, 0.9};

  Features f;
  f["chars"] = bin(static_cast<double>(n), kChars);
  f["words"] = bin(static_cast<double>(toks.size()), kWords);
  f["wordlen"] = bin(toks.empty() ? 0.0
                                  : static_cast<double>(tokenScalars) /
                                        static_cast<double>(toks.size()),
                     kWordlen);
  f["lower"] = bin(letters == 0 ? 0.5
                                : static_cast<double>(lowerLetters) /
                                      static_cast<double>(letters),
                   kLower);
  f["punct"] =
      bin(n == 0 ? 0.0 : static_cast<double>(punct) / static_cast<double>(n),
          kPunctShare);
  f["cyr"] =
      cyr + latin == 0
          ? std::string("0")
          : bin(static_cast<double>(cyr) / static_cast<double>(cyr + latin),
                kCyr);
  f["emoji"] = std::to_string(std::min<size_t>(emoji(sc), 2));

  size_t trimmed = n;
  while (trimmed > 0 && Text::isWhitespace(sc[trimmed - 1])) --trimmed;
  f["q"] = trimmed > 0 && sc[trimmed - 1] == U'?' ? "end"
           : question                             ? "mid"
                                                  : "no";
  f["excl"] = bang ? "y" : "n";
  f["nl"] = std::to_string(std::min<size_t>(newlines, 3));
  f["apos"] = curly && straight ? "both"
              : curly           ? "curly"
              : straight        ? "straight"
                                : "none";
  f["cap"] = firstLetter && has(*firstLetter, UCHAR_UPPERCASE) ? "y" : "n";

  std::string end = "none";
  if (n > 0 && isPunct(sc[n - 1])) {
    const char32_t c = sc[n - 1];
    if (c == U'\u2026' || (c == U'.' && n >= 2 && sc[n - 2] == U'.')) {
      end = "dots";
    } else {
      end = toUTF8(std::u32string_view(&sc[n - 1], 1));
    }
  }
  f["end"] = end;
  f["tick"] = tick ? "y" : "n";
  f["url"] = urlFound ? "y" : "n";
  f["digit"] = std::to_string(std::min<size_t>(digits, 2));
  f["dash"] = dash ? "y" : "n";
  return f;
}

}  // namespace

std::vector<std::string> tokens(std::string_view text) {
  return tokensOf(toScalars(text));
}

Features timingFeatures(const Message& m) {
  static constexpr double kGap[] = {3, 8, 20, 45, 120, 420, 1800, 7200, 43200};
  Features f;
  f["hour"] = std::to_string(hourOf(m.ts));
  f["gap"] = m.gap ? bin(*m.gap, kGap) : std::string("none");
  f["burstlen"] = capped(m.burstlen, 5);
  f["pos"] = capped(m.pos, 3);
  return f;
}

Features styleFeatures(std::string_view text) {
  const std::u32string sc = toScalars(text);
  return styleOf(sc, tokensOf(sc));
}

Features features(const Message& message) {
  Features f = timingFeatures(message);
  f.merge(styleFeatures(message.text));
  return f;
}

double binnedLLR(const Model& model, const Features& feats,
                 std::span<const std::string_view> names) {
  double sum = 0.0;
  for (const std::string_view name : names) {
    const auto label = feats.find(name);
    if (label == feats.end()) continue;
    const auto table = model.bins.find(name);
    if (table == model.bins.end() || table->second.empty()) continue;
    const auto found = table->second.find(label->second);
    const Cell cell = found == table->second.end() ? Cell{} : found->second;
    double sm = 0.0, so = 0.0;
    for (const auto& [bin, c] : table->second) {
      sm += c.mirel;
      so += c.other;
    }
    const double d = static_cast<double>(table->second.size() + 1) * kAlpha;
    const double p = (cell.mirel + kAlpha) / (d + sm);
    const double q = (cell.other + kAlpha) / (d + so);
    if (!(p > 0) || !(q > 0)) unusable("a count went to zero or below");
    sum += std::log(p) - std::log(q);
  }
  return sum;
}

double vocabLLR(const Model& model, const std::vector<std::string>& toks) {
  if (toks.empty()) return 0.0;
  Cell oov;
  if (const auto it = model.vocab.find("<oov>");
      it != model.vocab.end() && it->second) {
    oov = *it->second;
  }
  const double v = static_cast<double>(model.vocab.size() + 1) * kBeta;
  double sum = 0.0;
  for (const std::string& token : toks) {
    const auto it = model.vocab.find(token);
    const Cell cell = it != model.vocab.end() && it->second ? *it->second : oov;
    const double p = (cell.mirel + kBeta) / (model.totals.mirel + v);
    const double q = (cell.other + kBeta) / (model.totals.other + v);
    if (!(p > 0) || !(q > 0)) unusable("a count went to zero or below");
    const double r = std::log(p) - std::log(q);
    sum += std::clamp(r, -kClip, kClip);
  }
  return sum / std::sqrt(static_cast<double>(toks.size()));
}

double applyStacker(const Stacker& st, const std::array<double, 3>& x) {
  double s = 0.0;
  for (size_t i = 0; i < 3; ++i) {
    const double t = (st.w[i] * (x[i] - st.mean[i])) / st.std[i];
    if (!std::isfinite(t)) unusable("the stacker divides by nothing");
    s += t;
  }
  const double z = st.b + s;
  if (z >= 30) return 0.9999999999999065;
  if (z < -30) return 9.357622968839299e-14;
  return 1.0 / (std::exp(-z) + 1.0);
}

std::array<double, 3> families(const Model& model, const Features& feats,
                               const std::vector<std::string>& toks) {
  return {binnedLLR(model, feats, kTimingNames),
          binnedLLR(model, feats, kStyleNames), vocabLLR(model, toks)};
}

double score(const Profile& profile, const Message& message) {
  const std::u32string sc = toScalars(message.text);
  const std::vector<std::string> toks = tokensOf(sc);
  Features feats = timingFeatures(message);
  feats.merge(styleOf(sc, toks));
  return applyStacker(profile.stacker, families(profile.model, feats, toks));
}

std::string verdict(const Profile& profile, double s) {
  if (profile.cuts.yes <= s) return "yes";
  if (s <= profile.cuts.no) return "no";
  return "maybe";
}

int64_t verify(const Profile& profile) {
  int64_t index = 0;
  for (const Check& row : profile.checks) {
    const std::u32string sc = toScalars(row.msg.text);
    const std::vector<std::string> toks = tokensOf(sc);
    Features f = timingFeatures(row.msg);
    f.merge(styleOf(sc, toks));
    if (row.feats && *row.feats != f) {
      std::vector<std::string> differing;
      for (const auto& [key, value] : f) {
        const auto there = row.feats->find(key);
        if (there == row.feats->end() || there->second != value)
          differing.push_back(key);
      }
      for (const auto& [key, value] : *row.feats) {
        if (f.count(key) == 0) differing.push_back(key);
      }
      std::sort(differing.begin(), differing.end());
      std::string joined;
      for (const std::string& key : differing) {
        if (!joined.empty()) joined += ", ";
        joined += key;
      }
      throw ScoringError("check row " + std::to_string(index) +
                         ": this Mac reads " + joined +
                         " differently from whatever fitted the profile");
    }
    const double s =
        applyStacker(profile.stacker, families(profile.model, f, toks));
    if (!(std::fabs(s - row.score) <= kTolerance)) {
      char here[64], there[64];
      std::snprintf(here, sizeof here, "%.12f", s);
      std::snprintf(there, sizeof there, "%.12f", row.score);
      throw ScoringError("check row " + std::to_string(index) + " scores " +
                         here + " here and " + there +
                         " where it was fitted \u2014 the two implementations "
                         "have come apart");
    }
    ++index;
  }
  return index;
}

}  // namespace tolvanger::service::Scoring
