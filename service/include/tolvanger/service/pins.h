// Where a credential may go and how it is attached.
//
// `Pins` are derived from what the phone announced for a secret and checked
// twice: when a brokered request is built and again right before it goes out.
// A named operation states its own fixed limits as `Pins` too, so one call
// can meet two sets of them.
//
// Thread safety: plain values and pure functions; no shared state.
#ifndef TOLVANGER_SERVICE_PINS_H_
#define TOLVANGER_SERVICE_PINS_H_

#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tolvanger/kit/access_rule.h"
#include "tolvanger/kit/bytes.h"
#include "tolvanger/service/secret_names.h"
#include "tolvanger/service/wire.h"

namespace tolvanger::service {

struct Pins {
  std::vector<std::string> hosts;    // "host" or "host:port", sorted
  std::vector<std::string> methods;  // upper-case, in AccessRule order
  std::vector<std::string> paths;    // prefixes; empty means every path
  std::vector<AccessRule> rules;     // when not empty, they decide
  std::string scheme = "https";
  std::string authKind = "header";
  std::string header;  // lower-case, the header the broker fills
  std::string templ;   // the header's value, "{value}" for the credential

  static constexpr std::string_view defaultKind = "bearer";

  // Header and template for a credential kind; an unknown kind gets the
  // bearer row.
  static std::pair<std::string, std::string> byKind(std::string_view kind);

  // Headers that belong to the transport and that no caller may set.
  static const std::set<std::string, std::less<>>& transportHeaders();

  // The pins of an announced secret; nothing when it names no usable host,
  // and such a secret can never be attached.
  static std::optional<Pins> derived(const SecretName& name);

  // Throws ServiceError::refused with a sentence beginning with `called`
  // when `wire` falls outside these pins; returns when it is inside.
  void allow(const Wire& wire, std::string_view called) const;

  // The header's name and its value: the template with the credential's
  // bytes read as UTF-8 (invalid sequences repaired with U+FFFD) in place of
  // "{value}"; a "{" with no "}" after it stands as written. The value holds
  // the secret, in a buffer that wipes itself; every other copy made on the
  // way is wiped. Throws ServiceError::refused when the pins attach no
  // header, the template wants another placeholder, or the result is empty
  // or holds a control character.
  std::pair<std::string, SecretBytes> attach(ByteView value) const;

  // hosts, methods, paths, scheme, auth, header, and rules when not empty.
  // Never the template.
  nlohmann::json asDictionary() const;

  bool operator==(const Pins&) const = default;
};

}  // namespace tolvanger::service

#endif  // TOLVANGER_SERVICE_PINS_H_
