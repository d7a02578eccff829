// Behaviour profiles for tests: a small model in which one feature decides
// the verdict, check rows scored by this build, and the package forms a
// profile travels in (gzip by zlib, Base64).
//
// The model: only the style family counts (stacker weights 0, 1, 0), and in
// it only `q`. A message ending in "?" reads like the owner ("yes"), one with
// a "?" inside is "maybe", one with none is "no".
//
// Thread safety: pure functions.
#ifndef TOLVANGER_SERVICE_TESTING_PROFILE_MAKER_H_
#define TOLVANGER_SERVICE_TESTING_PROFILE_MAKER_H_

#include <zlib.h>

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tolvanger/kit/bytes.h"
#include "tolvanger/service/scoring.h"

namespace tolvanger::service::testing {

inline constexpr std::string_view kOwner = "me@example.org";

inline nlohmann::json checkRow(const Scoring::Profile& model,
                               const nlohmann::json& msg) {
  Scoring::Message m;
  m.text = msg["text"].get<std::string>();
  m.ts = msg["ts"].get<double>();
  if (msg.contains("gap") && !msg.at("gap").is_null())
    m.gap = msg.at("gap").get<double>();
  const Scoring::Features f = Scoring::features(m);
  return nlohmann::json{
      {"msg", msg},
      {"feats", f},
      {"score",
       Scoring::applyStacker(
           model.stacker,
           Scoring::families(model.model, f, Scoring::tokens(m.text)))}};
}

// The profile's JSON, with check rows for `texts` (at ts 1.7e9 + i * 60).
inline nlohmann::json questionProfile(
    std::vector<std::string> texts = {"Really?", "so? what", "fine", "Γειά ΣΑΣ",
                                      "Привет, мир!"},
    std::string fitted = "2026-11-20 09:30") {
  using nlohmann::json;
  json top = {
      {"fitted", fitted},
      {"subject", {{"senders", {std::string(kOwner), 42, "", 0, 1.5, true}}}},
      {"n", {{"mine", 1200}, {"theirs", "800"}, {"flag", true}}},
      {"model",
       {{"bins",
         {{"q",
           {{"end", {{"mirel", 100}, {"other", 1}}},
            {"mid", {{"mirel", 10}, {"other", 10}}},
            {"no", {{"mirel", 1}, {"other", 100}}}}}}},
        {"vocab",
         {{"<oov>", {{"mirel", 1}, {"other", 1}}}, {"hi", json::object()}}},
        {"totals", {{"mirel", 1}, {"other", 1}}}}},
      {"stacker",
       {{"w", {0.0, 1.0, 0.0}},
        {"b", 0.0},
        {"mean", {0.0, 0.0, 0.0}},
        {"std", {1.0, 1.0, 1.0}}}},
      {"cuts", {{"no", 0.2}, {"yes", 0.8}}},
      {"checks", json::array()}};
  json stub = top;
  stub["checks"] = json::array({json{{"msg", {{"text", ""}, {"ts", 0}}}}});
  const Scoring::Profile model = Scoring::Profile::from(stub);
  for (size_t i = 0; i < texts.size(); ++i) {
    top["checks"].push_back(checkRow(
        model,
        json{{"text", texts[i]}, {"ts", 1.7e9 + static_cast<double>(i) * 60}}));
  }
  return top;
}

// A profile shaped like a real fit: every feature binned, a vocabulary of
// `vocabulary` words, all three families weighed; check rows for `texts`.
inline nlohmann::json realisticProfile(const std::vector<std::string>& texts,
                                       size_t vocabulary = 5000) {
  using nlohmann::json;
  uint64_t state = 0x9E3779B97F4A7C15u;
  const auto next = [&]() {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    return state;
  };
  const auto cell = [&]() {
    return json{{"mirel", static_cast<double>(next() % 400) + 0.5},
                {"other", static_cast<double>(next() % 400) + 0.5}};
  };
  json bins = json::object();
  const std::vector<std::pair<std::string, std::vector<std::string>>> labels = {
      {"hour", {}},
      {"gap", {"none", "0", "1", "2", "3", "4", "5", "6", "7", "8", "9"}},
      {"burstlen", {"1", "2", "3", "4", "5"}},
      {"pos", {"0", "1", "2", "3"}},
      {"chars", {"0", "1", "2", "3", "4", "5", "6", "7", "8"}},
      {"words", {"0", "1", "2", "3", "4", "5", "6", "7", "8"}},
      {"wordlen", {"0", "1", "2", "3", "4", "5", "6"}},
      {"lower", {"0", "1", "2", "3", "4", "5"}},
      {"punct", {"0", "1", "2", "3", "4", "5", "6"}},
      {"cyr", {"0", "1", "2", "3", "4"}},
      {"emoji", {"0", "1", "2"}},
      {"q", {"no", "mid", "end"}},
      {"excl", {"y", "n"}},
      {"nl", {"0", "1", "2", "3"}},
      {"apos", {"none", "straight", "curly", "both"}},
      {"cap", {"y", "n"}},
      {"end", {"none", ".", "?", "!", "dots", ")"}},
      {"tick", {"y", "n"}},
      {"url", {"y", "n"}},
      {"digit", {"0", "1", "2"}},
      {"dash", {"y", "n"}}};
  for (const auto& [name, values] : labels) {
    json table = json::object();
    if (name == "hour") {
      for (int h = 0; h < 24; ++h) table[std::to_string(h)] = cell();
    }
    for (const auto& v : values) table[v] = cell();
    bins[name] = table;
  }
  json vocab = {{"<oov>", cell()}};
  const std::string letters = "etaoinshrdlucmfwypvbgkjqxz";
  for (size_t i = 0; i < vocabulary; ++i) {
    std::string word;
    const size_t length = 2 + next() % 8;
    for (size_t k = 0; k < length; ++k)
      word += letters[next() % (k == 0 ? 20 : 26)];
    vocab[word] = cell();
  }
  json top = {{"fitted", "2026-11-20 09:30"},
              {"subject", {{"senders", {std::string(kOwner)}}}},
              {"n", {{"mine", 5000}, {"theirs", 15000}}},
              {"model",
               {{"bins", bins},
                {"vocab", vocab},
                {"totals", {{"mirel", 90000}, {"other", 250000}}}}},
              {"stacker",
               {{"w", {0.8, 1.1, 0.9}},
                {"b", -0.3},
                {"mean", {0.1, -0.2, 0.05}},
                {"std", {1.3, 2.1, 0.9}}}},
              {"cuts", {{"no", 0.15}, {"yes", 0.6}}},
              {"checks", json::array()}};
  json stub = top;
  stub["checks"] = json::array({json{{"msg", {{"text", ""}, {"ts", 0}}}}});
  const Scoring::Profile model = Scoring::Profile::from(stub);
  for (size_t i = 0; i < texts.size(); ++i) {
    top["checks"].push_back(
        checkRow(model, json{{"text", texts[i]},
                             {"ts", 1.7e9 + static_cast<double>(i) * 977.25},
                             {"gap", static_cast<double>(i * 37 % 5000)}}));
  }
  return top;
}

// One gzip member made by zlib (no file name in the header).
inline std::string gzipped(std::string_view data, int level = 6) {
  z_stream z{};
  if (deflateInit2(&z, level, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) !=
      Z_OK) {
    throw std::runtime_error("deflateInit2");
  }
  std::string out(deflateBound(&z, static_cast<uLong>(data.size())) + 32, '\0');
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  z.avail_in = static_cast<uInt>(data.size());
  z.next_out = reinterpret_cast<Bytef*>(out.data());
  z.avail_out = static_cast<uInt>(out.size());
  const int rc = deflate(&z, Z_FINISH);
  deflateEnd(&z);
  if (rc != Z_STREAM_END) throw std::runtime_error("deflate");
  out.resize(z.total_out);
  return out;
}

// What an agent sends as `profile`: Base64 of the gzip member.
inline std::string packed(const nlohmann::json& profile) {
  return toBase64(asBytes(gzipped(profile.dump())));
}

}  // namespace tolvanger::service::testing

#endif  // TOLVANGER_SERVICE_TESTING_PROFILE_MAKER_H_
