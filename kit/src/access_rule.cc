#include "tolvanger/kit/access_rule.h"

#include <algorithm>
#include <functional>

#include "tolvanger/kit/ascii.h"
#include "tolvanger/kit/fingerprint.h"

namespace tolvanger {

using nlohmann::json;

namespace {

// The strings under `key` when it holds a list of nothing but text.
std::optional<std::vector<std::string>> stringList(const json& object,
                                                   const char* key) {
  auto it = object.find(key);
  if (it == object.end() || !it->is_array()) return std::nullopt;
  std::vector<std::string> out;
  out.reserve(it->size());
  for (const json& item : *it) {
    if (!item.is_string()) return std::nullopt;
    out.push_back(item.get<std::string>());
  }
  return out;
}

bool contains(std::string_view s, char c) {
  return s.find(c) != std::string_view::npos;
}

// Splits on `separator`, keeping empty pieces.
std::vector<std::string_view> splitKeepingEmpty(std::string_view s,
                                                char separator) {
  std::vector<std::string_view> out;
  size_t start = 0;
  for (;;) {
    const size_t at = s.find(separator, start);
    if (at == std::string_view::npos) {
      out.push_back(s.substr(start));
      return out;
    }
    out.push_back(s.substr(start, at - start));
    start = at + 1;
  }
}

bool isAllMethods(const std::vector<std::string>& methods) {
  return std::equal(methods.begin(), methods.end(),
                    AccessRule::allMethods.begin(),
                    AccessRule::allMethods.end());
}

}  // namespace

std::optional<AccessRule> AccessRule::parse(const json& value) {
  if (!value.is_object()) return std::nullopt;
  AccessRule rule;

  for (const std::string& raw :
       stringList(value, "hosts").value_or(std::vector<std::string>{})) {
    const std::string lowered = Ascii::lower(raw);
    const std::string_view host = Ascii::trim(lowered);
    if (host.empty() || contains(host, '\n') || contains(host, '/')) continue;
    rule.hosts.emplace_back(host);
  }

  std::vector<std::string> methods;
  if (auto given = stringList(value, "methods")) {
    methods = std::move(*given);
  } else {
    methods.assign(allMethods.begin(), allMethods.end());
  }
  for (const std::string& raw : methods) {
    std::string method = Ascii::upper(raw);
    if (std::find(allMethods.begin(), allMethods.end(), method) !=
        allMethods.end()) {
      rule.methods.push_back(std::move(method));
    }
  }

  for (std::string& path :
       stringList(value, "paths").value_or(std::vector<std::string>{})) {
    if (path.empty() || path.front() != '/' || contains(path, '\n')) continue;
    rule.paths.push_back(std::move(path));
  }

  if (rule.hosts.empty() || rule.methods.empty()) return std::nullopt;
  if (rule.hosts.size() > kMaxHosts) rule.hosts.resize(kMaxHosts);
  if (rule.paths.size() > kMaxPaths) rule.paths.resize(kMaxPaths);
  return rule;
}

bool AccessRule::covers(std::string_view host, std::string_view method,
                        std::string_view path) const {
  if (std::find(hosts.begin(), hosts.end(), host) == hosts.end()) return false;
  if (std::find(methods.begin(), methods.end(), method) == methods.end()) {
    return false;
  }
  if (paths.empty()) return true;
  const std::string_view bare = path.substr(0, path.find('?'));
  return std::any_of(paths.begin(), paths.end(),
                     [&](const std::string& p) { return prefix(p, bare); });
}

bool AccessRule::prefix(std::string_view pattern, std::string_view path) {
  if (pattern.size() >= 2 && pattern.back() == '/') pattern.remove_suffix(1);
  if (pattern == "/") return true;
  const auto want = splitKeepingEmpty(pattern, '/');
  const auto have = splitKeepingEmpty(path, '/');
  if (want.size() > have.size()) return false;
  for (size_t i = 0; i < want.size(); ++i) {
    if (want[i] == "*") {
      if (have[i].empty()) return false;
    } else if (want[i] != have[i]) {
      return false;
    }
  }
  return true;
}

std::string AccessRule::sentence() const {
  std::string out =
      isAllMethods(methods) ? "anything" : Ascii::join(methods, "/");
  out += " on ";
  out += Ascii::join(hosts, ", ");
  if (!paths.empty()) {
    out += " under ";
    out += Ascii::join(paths, ", ");
  }
  return out;
}

json AccessRule::asDictionary() const {
  return json{{"hosts", hosts}, {"methods", methods}, {"paths", paths}};
}

json AccessRule::asList(const std::vector<AccessRule>& rules) {
  json list = json::array();
  for (const AccessRule& rule : rules) list.push_back(rule.asDictionary());
  return list;
}

json SecretAnnouncement::asDictionary() const {
  json out = {{"name", name}, {"kind", kind}, {"hosts", hosts}};
  if (!rules.empty()) out["rules"] = AccessRule::asList(rules);
  if (signedInAt) out["signed_in_at"] = *signedInAt;
  if (expiresBy) out["expires_by"] = *expiresBy;
  if (userAgent) out["user_agent"] = *userAgent;
  return out;
}

std::string SecretAnnouncement::digest(
    const std::vector<SecretAnnouncement>& list) {
  constexpr char kUnit = '\x1f';
  constexpr char kRecord = '\x1e';
  std::vector<std::string> lines;
  lines.reserve(list.size());
  for (const SecretAnnouncement& a : list) {
    std::vector<std::string> rules;
    rules.reserve(a.rules.size());
    for (const AccessRule& r : a.rules) {
      rules.push_back(Ascii::join(r.hosts, ",") + "|" +
                      Ascii::join(r.methods, ",") + "|" +
                      Ascii::join(r.paths, ","));
    }
    std::string line = a.name + kUnit + a.kind + kUnit +
                       Ascii::join(a.hosts, ",") + kUnit +
                       Ascii::join(rules, ";");
    if (a.signedInAt)
      line += kUnit + std::string("s") + std::to_string(*a.signedInAt);
    if (a.expiresBy)
      line += kUnit + std::string("e") + std::to_string(*a.expiresBy);
    if (a.userAgent) line += kUnit + std::string("u") + *a.userAgent;
    lines.push_back(std::move(line));
  }
  std::sort(lines.begin(), lines.end());
  return Fingerprint::of(
      asBytes(Ascii::join(lines, std::string_view(&kRecord, 1))));
}

}  // namespace tolvanger

size_t std::hash<tolvanger::AccessRule>::operator()(
    const tolvanger::AccessRule& rule) const noexcept {
  size_t seed = 0;
  const auto mix = [&seed](const std::vector<std::string>& list) {
    for (const std::string& s : list) {
      seed ^= std::hash<std::string>{}(s) + 0x9e3779b97f4a7c15ULL +
              (seed << 6) + (seed >> 2);
    }
    // A marker between the lists, so moving an entry from one list to the
    // next changes the hash.
    seed = seed * 31 + list.size();
  };
  mix(rule.hosts);
  mix(rule.methods);
  mix(rule.paths);
  return seed;
}
