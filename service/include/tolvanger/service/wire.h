// The outgoing HTTP call that an approval authorises, exactly as approved.
//
// A `Wire` is built once by `Broker::check` from what an agent sent, kept with
// the stored request, shown to the phone through the structural fields, and
// rebuilt into those fields again right before the call goes out. Nothing on
// the way normalises it: the path is kept percent-encoded as written.
//
// `Url` splits an absolute URL into its parts as written. It never decodes,
// re-encodes, lower-cases or resolves anything; it only refuses what it cannot
// split.
//
// Thread safety: plain values and pure functions; no shared state.
#ifndef TOLVANGER_SERVICE_WIRE_H_
#define TOLVANGER_SERVICE_WIRE_H_

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace tolvanger::service {

// An absolute URL split into its parts, each as written.
struct Url {
  std::string scheme;  // as written; the caller lower-cases
  std::optional<std::string> user;
  std::optional<std::string> password;
  std::string host;  // as written, brackets kept for an IPv6 literal
  std::optional<int> port;
  std::string path;  // percent-encoded, possibly empty
  std::optional<std::string> query;
  std::optional<std::string> fragment;

  // Splits `text` as scheme "://" authority path ["?" query] ["#" fragment].
  // Nothing when it has no scheme or no "//" authority, an empty host, a port
  // that is not 1 to 65535 in decimal, or a malformed percent escape. Blanks
  // and control characters are left in place for the caller to judge.
  static std::optional<Url> parse(std::string_view text);
};

struct Wire {
  std::string method;  // upper-case
  std::string scheme;  // lower-case
  std::string host;    // lower-case, no port
  int port = 443;
  // The percent-encoded path, "/" when empty, then "?" and the query when
  // there is one.
  std::string path;
  // Lower-case names. The credential's header stands here with an empty
  // value: a slot that the broker fills when the call goes out.
  std::map<std::string, std::string> headers;
  std::string body;    // empty for none
  std::string secret;  // the credential's name

  // The host alone for the scheme's default port (443 under https, 80 under
  // anything else), otherwise "host:port".
  std::string netloc() const;

  // scheme "://" netloc path, as it goes on the wire; nothing when that does
  // not split back into the same parts.
  std::optional<std::string> url() const;

  bool operator==(const Wire&) const = default;
};

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_WIRE_H_
