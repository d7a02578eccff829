#include "tolvanger/appcore/reading.h"

#include <array>
#include <cstdint>
#include <cstdlib>

namespace tolvanger::app {

namespace {

using Fields = std::map<std::string, std::string, std::less<>>;

constexpr std::array<std::string_view, 6> kAgentVerbs = {
    "raised", "approved", "denied", "cancelled", "spent", "allowed"};

std::vector<std::string> splitSpaces(std::string_view line) {
  std::vector<std::string> pieces;
  size_t at = 0;
  while (at <= line.size()) {
    const size_t blank = line.find(' ', at);
    const size_t end = blank == std::string_view::npos ? line.size() : blank;
    pieces.emplace_back(line.substr(at, end - at));
    if (blank == std::string_view::npos) break;
    at = blank + 1;
  }
  return pieces;
}

std::vector<std::string> splitCommas(const std::string& text) {
  std::vector<std::string> items;
  size_t at = 0;
  for (;;) {
    const size_t comma = text.find(',', at);
    std::string item = text.substr(
        at, comma == std::string::npos ? std::string::npos : comma - at);
    if (!item.empty()) items.push_back(std::move(item));
    if (comma == std::string::npos) break;
    at = comma + 1;
  }
  return items;
}

// A field's value; "-" and empty count as missing.
std::optional<std::string> given(const Fields& fields, std::string_view key) {
  const auto it = fields.find(key);
  if (it == fields.end() || it->second.empty() || it->second == "-") {
    return std::nullopt;
  }
  return it->second;
}

std::string value(const Fields& fields, std::string_view key) {
  const auto it = fields.find(key);
  return it == fields.end() ? "" : it->second;
}

// "5 min", "an hour", "3 hours" for an allowance of `seconds`.
std::string span(const std::string& seconds) {
  char* end = nullptr;
  const long long s = std::strtoll(seconds.c_str(), &end, 10);
  if (seconds.empty() || *end != '\0' || s < 0) return "a while";
  if (s < 3600) return std::to_string(s / 60) + " min";
  if (s == 3600) return "an hour";
  const long long hours = s / 3600;
  const long long rest = s % 3600;
  std::string figure = std::to_string(hours);
  if (rest != 0) figure += "." + std::to_string(rest * 10 / 3600);
  return figure + " hours";
}

std::string allowanceEnded(const Fields& f, const std::string& who) {
  const auto c = given(f, "credential");
  const std::string opening = c.value_or("a credential") + " time with " + who;
  // The journal names the reason `why`.
  const std::string why = value(f, "why");
  if (why == "phone") return "You ended " + opening;
  std::string closing = " ended";
  if (why == "expired") closing = " ran out";
  if (why == "lock") closing = " ended when this computer locked";
  if (why == "sleep") closing = " ended when this computer went to sleep";
  if (why == "session") closing = " ended with the agent's session";
  if (why == "stopped") closing = " ended when Tolvanger stopped";
  if (why == "replaced") closing = " was replaced by a newer one";
  return c.value_or("A credential") + " time with " + who + closing;
}

std::string cloudLine(const Fields& f) {
  const std::string state = value(f, "state");
  if (state == "up") return "The iCloud road is up";
  if (state == "down") {
    const auto why = given(f, "why");
    return "The iCloud road is down" + (why ? ": " + *why : std::string());
  }
  if (value(f, "card") == "published") {
    return "This computer published its card for pairing through iCloud";
  }
  if (given(f, "refused")) {
    const auto why = given(f, "why");
    return "iCloud refused the phone's subscriptions" +
           (why ? ": " + *why : std::string());
  }
  if (given(f, "call")) {
    return "A call to " + given(f, "device").value_or("a phone") +
           " through iCloud (" + value(f, "call") + ") answered " +
           given(f, "status").value_or("nothing");
  }
  if (given(f, "phones")) {
    return "No phone has an iCloud key yet, so nothing went through iCloud";
  }
  if (!f.empty()) {
    const auto& [kind, name] = *f.begin();
    return "The iCloud road handled a " + kind + " record" +
           (name.empty() || name == "-" ? std::string() : " (" + name + ")");
  }
  return "The iCloud road did something";
}

std::string say(const std::string& verb, const Fields& f,
                const std::optional<std::string>& client) {
  const auto c = given(f, "credential");
  const std::string who = client.value_or("an agent");
  const std::string Who = client.value_or("Something");
  if (verb == "started") return "Tolvanger started";
  if (verb == "stopped") return "Tolvanger stopped";
  if (verb == "paired") return "A phone paired with this computer";
  if (verb == "recovered") return "A phone came back with a recovery code";
  if (verb == "nudged") {
    return value(f, "kind") == "secret" ? "You asked your phone to add a secret"
                                        : "You asked your phone for something";
  }
  if (verb == "secrets") {
    if (const auto added = given(f, "added")) {
      return "Your phone added " + Reading::list(splitCommas(*added));
    }
    if (given(f, "stale")) {
      return "Your phone sent its list again, with nothing new on it";
    }
    const std::string count = given(f, "count").value_or("0");
    return "Your phone listed " + count +
           (count == "1" ? " secret" : " secrets");
  }
  if (verb == "raised") {
    return Who + " asked for " +
           c.value_or(given(f, "operation").value_or("something"));
  }
  if (verb == "approved") {
    if (value(f, "road") == "allowance") {
      return c.value_or("A credential") + " went out for " + who +
             " in the time you allowed";
    }
    if (c) return "You approved " + *c + " for " + who;
    return "You approved what " + who + " asked for";
  }
  if (verb == "allowed") {
    return "You let " + who + " use " + c.value_or("a credential") + " for " +
           span(value(f, "seconds")) + " without asking";
  }
  if (verb == "allowance-ended") return allowanceEnded(f, who);
  if (verb == "session-watch") {
    // Written once at start when sleep and lock cannot be heard.
    const std::string why = value(f, "why");
    std::string because = "this computer's sleep and lock cannot be heard";
    if (why == "no-system-bus")
      because = "there is no system bus to hear them on";
    if (why == "no-logind") because = "no login manager announces them";
    return "Allowances will not end when this computer sleeps or locks: " +
           because;
  }
  if (verb == "denied") {
    return client ? "You said no to " + *client : "You said no";
  }
  if (verb == "cancelled") {
    return client ? *client + " called its request off"
                  : "A request was called off";
  }
  if (verb == "spent") {
    if (c) return *c + " was spent for " + who + ", nothing kept";
    return "A credential was spent, nothing kept";
  }
  if (verb == "redeemed") {
    return client ? *client + " picked up your answer"
                  : "An answer was picked up";
  }
  if (verb == "performed") {
    const auto status = given(f, "status");
    return "The call for " + given(f, "operation").value_or("a request") +
           (status ? " came back with status " + *status : " got no answer");
  }
  if (verb == "refused") {
    return "A phone's answer did not check out, and was refused";
  }
  if (verb == "socket-refused") {
    return value(f, "why") == "uid"
               ? "Another account tried the socket, and could not"
               : "Something was refused at the socket";
  }
  if (verb == "profile-installed") {
    return "A new tripwire profile was installed" +
           (client ? ", offered by " + *client : std::string());
  }
  if (verb == "cloud") return cloudLine(f);
  if (verb == "cloud-refused") {
    const std::string why = value(f, "why");
    std::string what = "did not check out";
    if (why == "binding") what = "was meant for another request";
    if (why == "seal") what = "was not sealed right";
    if (why == "device") what = "came from no phone paired here";
    return "Something from iCloud " + what + ", and was refused";
  }
  // A word this build does not know: the line's own words, as they stand.
  std::string text = verb;
  for (const auto& [key, v] : f) text += " " + key + "=" + v;
  return text;
}

}  // namespace

bool Reading::isAgentVerb(std::string_view verb) {
  for (auto v : kAgentVerbs) {
    if (v == verb) return true;
  }
  return false;
}

std::string Reading::list(const std::vector<std::string>& items) {
  if (items.empty()) return "";
  if (items.size() == 1) return items[0];
  std::string text;
  for (size_t i = 0; i + 1 < items.size(); ++i) {
    if (i > 0) text += ", ";
    text += items[i];
  }
  return text + " and " + items.back();
}

Reading Reading::of(std::string_view line) {
  Reading r;
  r.raw = std::string(line);
  r.plain = r.raw;
  const std::vector<std::string> pieces = splitSpaces(line);
  if (pieces.size() < 3 || pieces[0].size() != 10 || pieces[1].size() != 8 ||
      pieces[2].empty()) {
    return r;
  }
  const std::string& verb = pieces[2];
  Fields fields;
  std::string* last = nullptr;
  for (size_t i = 3; i < pieces.size(); ++i) {
    const size_t eq = pieces[i].find('=');
    if (eq == std::string::npos || eq == 0) {
      // A blank inside the value before: give it back its blank.
      if (last != nullptr) *last += " " + pieces[i];
      continue;
    }
    last = &fields[pieces[i].substr(0, eq)];
    *last = pieces[i].substr(eq + 1);
  }
  const std::string& time = pieces[1];
  const size_t colon = time.find(':');
  const size_t second = colon == std::string::npos ? std::string::npos
                                                   : time.find(':', colon + 1);
  r.clock = time.substr(0, second);
  r.client = given(fields, "client");
  r.house = !isAgentVerb(verb);
  r.plain = say(verb, fields, r.client);
  return r;
}

}  // namespace tolvanger::app
