// Where a secret may be sent, shared by the phone and the computer.
//
// `AccessRule` names the hosts, HTTP methods and path prefixes a secret may
// reach. `SecretAnnouncement` is the phone's record of one secret: its name,
// how it attaches, where it may go and, for a site session, when it was
// signed in. Neither ever holds a secret's value.
//
// Thread safety: plain values and pure functions; no shared state.
#ifndef TOLVANGER_KIT_ACCESS_RULE_H_
#define TOLVANGER_KIT_ACCESS_RULE_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tolvanger {

struct AccessRule {
  // Lower-case host names; a non-default port is written "host:port".
  std::vector<std::string> hosts;
  // Upper-case methods, each one of `allMethods`.
  std::vector<std::string> methods;
  // Path prefixes beginning with "/"; empty means every path.
  std::vector<std::string> paths;

  // Every method a rule may name, in this order.
  static constexpr std::array<std::string_view, 5> allMethods = {
      "GET", "POST", "PUT", "PATCH", "DELETE"};
  // At most this many hosts and this many paths survive a parse.
  static constexpr size_t kMaxHosts = 32;
  static constexpr size_t kMaxPaths = 32;

  // Reads a rule as the phone announces it, narrowing what it cannot use:
  // hosts are lower-cased and trimmed, and a host that is empty or holds a
  // line feed or "/" is dropped; `methods` absent means all of them, each is
  // upper-cased and one not in `allMethods` is dropped; a path that does not
  // begin with "/" or holds a line feed is dropped. Nothing when the value is
  // not an object or no host or no method is left: a rule is thrown away
  // rather than widened.
  static std::optional<AccessRule> parse(const nlohmann::json& value);

  // Whether a call to `host` with `method` on `path` is allowed. Host and
  // method are compared exactly; the path's query is ignored.
  bool covers(std::string_view host, std::string_view method,
              std::string_view path) const;

  // Whether the path pattern `pattern` covers `path`. Pieces between "/" are
  // compared from the left as far as the pattern goes; a "*" piece matches
  // any one non-empty piece; a trailing "/" on the pattern is ignored; "/"
  // covers every path. What the path has beyond the pattern is allowed.
  static bool prefix(std::string_view pattern, std::string_view path);

  // The rule in words, e.g. "GET/POST on api.example.com under /v1".
  std::string sentence() const;

  // {"hosts": [...], "methods": [...], "paths": [...]}; also the coded form.
  nlohmann::json asDictionary() const;
  // `rules` as a JSON array of their dictionaries.
  static nlohmann::json asList(const std::vector<AccessRule>& rules);

  bool operator==(const AccessRule&) const = default;
};

struct SecretAnnouncement {
  // An identifier (Ids::isID).
  std::string name;
  // "bearer", "basic", "api_key" or "cookie".
  std::string kind;
  std::vector<std::string> hosts;
  std::vector<AccessRule> rules;
  // For a site session: when it was signed in and when its cookies run out,
  // in whole seconds since 1970, and the browser identification it used.
  std::optional<int64_t> signedInAt;
  std::optional<int64_t> expiresBy;
  std::optional<std::string> userAgent;

  // The object the phone sends: name, kind, hosts; rules when not empty;
  // signed_in_at, expires_by, user_agent when present.
  nlohmann::json asDictionary() const;

  // A short fingerprint of a whole list, independent of its order, by which
  // the phone tells whether the list changed since it last announced it.
  static std::string digest(const std::vector<SecretAnnouncement>& list);

  bool operator==(const SecretAnnouncement&) const = default;
};

}  // namespace tolvanger

template <>
struct std::hash<tolvanger::AccessRule> {
  size_t operator()(const tolvanger::AccessRule& rule) const noexcept;
};

#endif  // TOLVANGER_KIT_ACCESS_RULE_H_
