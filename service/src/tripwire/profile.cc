// Reading a profile out of its parsed JSON. The check rows are looked at
// first, so that a profile without proof is refused for that before anything
// else is said about it; then the model, the stacker, the cuts and the rows'
// messages, each with the sentence of the first thing wrong.
#include <charconv>
#include <cmath>
#include <limits>

#include "tolvanger/service/scoring.h"

namespace tolvanger::service::Scoring {

using nlohmann::json;

namespace {

[[noreturn]] void unusable(const std::string& what) {
  throw ScoringError("that profile does not score: " + what);
}

const json* member(const json& object, const char* key) {
  if (!object.is_object()) return nullptr;
  const auto it = object.find(key);
  return it == object.end() ? nullptr : &*it;
}

// A JSON number; booleans are not numbers, whatever a parser makes of them.
std::optional<double> number(const json* v) {
  if (v == nullptr || !v->is_number()) return std::nullopt;
  return v->get<double>();
}

// A number kept in the form it was written: integers whole, the rest real.
// Integers beyond the signed range are held at its ends.
Number asNumber(const json& v) {
  if (v.is_number_unsigned()) {
    const auto u = v.get<uint64_t>();
    return Number::ofWhole(
        u > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())
            ? std::numeric_limits<int64_t>::max()
            : static_cast<int64_t>(u));
  }
  if (v.is_number_integer()) return Number::ofWhole(v.get<int64_t>());
  return Number::ofReal(v.get<double>());
}

int64_t saturatingAdd(int64_t a, int64_t b) {
  int64_t out = 0;
  if (__builtin_add_overflow(a, b, &out)) {
    return b > 0 ? std::numeric_limits<int64_t>::max()
                 : std::numeric_limits<int64_t>::min();
  }
  return out;
}

// What one value of `n` adds to the message count.
int64_t counted(const json& v) {
  if (v.is_number_unsigned() || v.is_number_integer()) {
    return asNumber(v).whole;
  }
  if (v.is_number_float()) {
    const double d = std::trunc(v.get<double>());
    if (!(std::fabs(d) < 9.2e18)) return 0;
    return static_cast<int64_t>(d);
  }
  if (v.is_string()) {
    std::string_view s = v.get_ref<const std::string&>();
    bool negative = false;
    if (!s.empty() && (s.front() == '+' || s.front() == '-')) {
      negative = s.front() == '-';
      s.remove_prefix(1);
    }
    if (s.empty() || s.front() == '+' || s.front() == '-') return 0;
    uint64_t magnitude = 0;
    const auto r = std::from_chars(s.data(), s.data() + s.size(), magnitude);
    if (r.ec != std::errc() || r.ptr != s.data() + s.size()) return 0;
    if (negative) {
      if (magnitude > static_cast<uint64_t>(1) << 63) return 0;
      return static_cast<int64_t>(0 - magnitude);
    }
    if (magnitude >
        static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
      return 0;
    }
    return static_cast<int64_t>(magnitude);
  }
  return 0;
}

Cell cellAt(const json& v, const std::string& path) {
  if (!v.is_object()) unusable(path + " is not a cell");
  const auto mirel = number(member(v, "mirel"));
  if (!mirel) unusable(path + ".mirel is not a number");
  const auto other = number(member(v, "other"));
  if (!other) unusable(path + ".other is not a number");
  return Cell{*mirel, *other};
}

std::vector<double> row(const json& stacker, const char* key) {
  const json* v = member(stacker, key);
  if (v == nullptr || !v->is_array() || v->size() < 3) {
    unusable(std::string("stacker.") + key + " is short");
  }
  std::vector<double> out;
  out.reserve(v->size());
  for (const json& element : *v) {
    const auto d = number(&element);
    if (!d) unusable(std::string("stacker.") + key + " is not a number");
    out.push_back(*d);
  }
  return out;
}

Check checkRow(const json& r, size_t index) {
  const json* msg = member(r, "msg");
  const json* text = msg ? member(*msg, "text") : nullptr;
  const json* ts = msg ? member(*msg, "ts") : nullptr;
  if (!r.is_object() || text == nullptr || ts == nullptr) {
    throw ScoringError("check row " + std::to_string(index) +
                       " is not a message");
  }
  if (!text->is_string() || !ts->is_number()) {
    unusable("a check message has no readable text or time");
  }
  Check c;
  c.msg.text = text->get<std::string>();
  c.msg.ts = ts->get<double>();
  if (const json* gap = member(*msg, "gap"); gap && !gap->is_null()) {
    if (!gap->is_number()) unusable("a check message's gap is not a number");
    c.msg.gap = gap->get<double>();
  }
  if (const json* b = member(*msg, "burstlen")) {
    if (!b->is_number()) {
      unusable("a check message's burstlen is not a number");
    }
    c.msg.burstlen = asNumber(*b);
  }
  if (const json* p = member(*msg, "pos")) {
    if (!p->is_number()) unusable("a check message's pos is not a number");
    c.msg.pos = asNumber(*p);
  }
  if (const json* feats = member(r, "feats"); feats && feats->is_object()) {
    Features kept;
    for (const auto& [key, value] : feats->items()) {
      if (value.is_string()) kept[key] = value.get<std::string>();
    }
    c.feats = std::move(kept);
  }
  c.score = number(member(r, "score"))
                .value_or(std::numeric_limits<double>::quiet_NaN());
  return c;
}

}  // namespace

Profile Profile::from(const json& top) {
  Profile p;
  if (const json* fitted = member(top, "fitted"); fitted && fitted->is_string())
    p.fitted = fitted->get<std::string>();
  const json* subject = member(top, "subject");
  if (const json* senders = subject ? member(*subject, "senders") : nullptr;
      senders && senders->is_array()) {
    for (const json& s : *senders) {
      if (s.is_string() && !s.get_ref<const std::string&>().empty()) {
        p.senders.push_back(s.get<std::string>());
      } else if (s.is_number_unsigned() && s.get<uint64_t>() != 0) {
        p.senders.push_back(std::to_string(s.get<uint64_t>()));
      } else if (s.is_number_integer() && s.get<int64_t>() != 0) {
        p.senders.push_back(std::to_string(s.get<int64_t>()));
      }
    }
  }
  if (const json* n = member(top, "n"); n && n->is_object()) {
    for (const auto& [key, value] : n->items()) {
      p.messages = saturatingAdd(p.messages, counted(value));
    }
  }

  const json* checks = member(top, "checks");
  if (checks == nullptr || !checks->is_array() || checks->empty()) {
    throw ScoringError(
        "this profile carries no check rows, so nothing here can tell "
        "whether it was fitted by a version that agrees with this one");
  }

  const json* model = member(top, "model");
  const json* bins = model ? member(*model, "bins") : nullptr;
  const json* vocab = model ? member(*model, "vocab") : nullptr;
  if (model == nullptr || !model->is_object() || bins == nullptr ||
      !bins->is_object() || vocab == nullptr || !vocab->is_object()) {
    unusable("the model has no bins or vocab");
  }
  for (const auto& [feature, table] : bins->items()) {
    if (!table.is_object()) unusable("bins." + feature + " is not a table");
    auto& cells = p.model.bins[feature];
    for (const auto& [label, cell] : table.items()) {
      cells[label] = cellAt(cell, "bins." + feature + "." + label);
    }
  }
  for (const auto& [token, cell] : vocab->items()) {
    if (cell.is_object() && cell.empty()) {
      p.model.vocab[token] = std::nullopt;
    } else {
      p.model.vocab[token] = cellAt(cell, "vocab." + token);
    }
  }
  const json* totals = member(*model, "totals");
  p.model.totals = cellAt(totals ? *totals : json(), "totals");

  const json* stacker = member(top, "stacker");
  if (stacker == nullptr || !stacker->is_object()) {
    unusable("the stacker is not an object");
  }
  p.stacker.w = row(*stacker, "w");
  if (const auto b = number(member(*stacker, "b"))) {
    p.stacker.b = *b;
  } else {
    unusable("stacker.b is not a number");
  }
  p.stacker.mean = row(*stacker, "mean");
  p.stacker.std = row(*stacker, "std");

  const json* cuts = member(top, "cuts");
  if (cuts == nullptr || !cuts->is_object()) {
    unusable("the cuts are not an object");
  }
  const auto no = number(member(*cuts, "no"));
  if (!no) unusable("cuts.no is not a number");
  const auto yes = number(member(*cuts, "yes"));
  if (!yes) unusable("cuts.yes is not a number");
  p.cuts = Cuts{*no, *yes};

  p.checks.reserve(checks->size());
  for (size_t i = 0; i < checks->size(); ++i) {
    p.checks.push_back(checkRow((*checks)[i], i));
  }
  return p;
}

}  // namespace tolvanger::service::Scoring
