// The outgoing HTTP call that an approval authorises, exactly as approved.
//
// A `Wire` is built once by `Broker::check` from what an agent sent, kept with
// the stored request, shown to the phone through the structural fields, and
// rebuilt into those fields again right before the call goes out. Nothing on
// the way normalises it: the path is kept percent-encoded as written.
//
// Thread safety: plain values and pure functions; no shared state.
#ifndef TOLVANGER_SERVICE_WIRE_H_
#define TOLVANGER_SERVICE_WIRE_H_

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "tolvanger/kit/url.h"

namespace tolvanger::service {

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
