// Fuzz target for building a brokered call: arbitrary bytes are parsed as
// JSON and handed to `Broker::check` with fixed pins, to `Url::parse` (the
// object's "url" and the raw bytes themselves) and to `Pins::attach`.
//
// What must hold:
// - `Url::parse` only splits: a URL it accepts is its parts put back together.
// - A Wire that `check` lets through is https to a plain lower-case host,
//   with a path that begins with "/" and holds no blank, control character,
//   byte beyond ASCII, backslash or dot step; the credential's header stands
//   empty; and `url()` gives a URL that splits back into the same parts.
//   When the pins allow it, its structural fields pass the gate on fields and
//   encode canonically.
// - `Pins::allow` and `Pins::attach` either pass or refuse with a
//   ServiceError; an attached value is valid UTF-8 without control
//   characters.
// Any other exception escapes and ends the run.
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "tolvanger/kit/canonical.h"
#include "tolvanger/kit/fields.h"
#include "tolvanger/kit/service_error.h"
#include "tolvanger/kit/text.h"
#include "tolvanger/kit/url.h"
#include "tolvanger/service/broker.h"
#include "tolvanger/service/pins.h"

namespace {

using nlohmann::json;
using tolvanger::ServiceError;
using tolvanger::Url;
using tolvanger::service::Pins;
using tolvanger::service::SecretName;
using tolvanger::service::Wire;

void fail(const char* what, std::string_view detail) {
  std::fprintf(stderr, "%s: %.*s\n", what, static_cast<int>(detail.size()),
               detail.data());
  std::abort();
}

// Pins with a non-default port, a rule with a wildcard and one open to every
// path, so every branch of `allow` is reachable.
const Pins& fixedPins() {
  static const Pins pins = [] {
    SecretName name{"fuzz", "bearer", {"api.host", "api.host:8443"}};
    name.rules = {tolvanger::AccessRule{{"api.host"}, {"GET"}, {"/v1/*/x"}},
                  tolvanger::AccessRule{{"api.host:8443"}, {"POST"}, {}}};
    const auto derived = Pins::derived(name);
    if (!derived) std::abort();
    return *derived;
  }();
  return pins;
}

std::string joined(const Url& u) {
  std::string out = u.scheme + "://";
  if (u.user) out += *u.user + (u.password ? ":" + *u.password : "") + "@";
  out += u.host;
  if (u.port) out += ":" + std::to_string(*u.port);
  out += u.path;
  if (u.query) out += "?" + *u.query;
  if (u.fragment) out += "#" + *u.fragment;
  return out;
}

void splitOnly(std::string_view text) {
  const auto url = Url::parse(text);
  if (!url) return;
  if (joined(*url) != text) fail("split is not the text", text);
  if (url->host.empty()) fail("empty host", text);
  if (url->port && (*url->port < 1 || *url->port > 65535)) fail("port", text);
}

void checkWire(const Wire& wire, const Pins& pins) {
  const std::string& path = wire.path;
  if (wire.scheme != "https" || wire.host.empty()) fail("scheme/host", path);
  for (char c : wire.host) {
    if (!(std::islower(static_cast<unsigned char>(c)) ||
          std::isdigit(static_cast<unsigned char>(c)) || c == '-' ||
          c == '.')) {
      fail("host not plain", wire.host);
    }
  }
  if (path.empty() || path.front() != '/') fail("path start", path);
  for (char c : path) {
    const auto u = static_cast<unsigned char>(c);
    if (u <= 32 || u >= 127 || c == '\\') fail("path byte", path);
  }
  const std::string bare = path.substr(0, path.find('?'));
  if (bare.find("/./") != std::string::npos ||
      bare.find("/../") != std::string::npos || bare.ends_with("/.") ||
      bare.ends_with("/..")) {
    fail("dot step", path);
  }
  const auto slot = wire.headers.find(pins.header);
  if (slot == wire.headers.end() || !slot->second.empty()) {
    fail("credential header not an empty slot", path);
  }
  if (wire.headers.size() > tolvanger::service::Broker::kMaxHeaders + 1) {
    fail("too many headers", path);
  }
  if (wire.body.size() > tolvanger::service::Broker::kMaxBody) {
    fail("body", path);
  }

  const auto url = wire.url();
  if (!url) fail("no url", path);
  const auto again = Url::parse(*url);
  if (!again || again->host != wire.host ||
      again->port.value_or(443) != wire.port ||
      (again->path.empty() ? "/" : again->path) +
              (again->query ? "?" + *again->query : "") !=
          path) {
    fail("url does not split back", *url);
  }

  // The method is judged by the pins, not by `check`: only a call the pins
  // let through reaches the fields.
  try {
    pins.allow(wire, "the fuzz credential");
  } catch (const ServiceError&) {
    return;
  }
  const json shown =
      tolvanger::service::Broker::structuralFields(wire, true).any();
  const tolvanger::Fields passed = tolvanger::Fields::from(&shown);
  tolvanger::Canonical::encode(passed.any());
}

void attach(std::string_view bytes) {
  try {
    const auto [header, value] = fixedPins().attach(tolvanger::asBytes(bytes));
    const std::string_view text(
        reinterpret_cast<const char*>(value.reveal().data()), value.size());
    if (!tolvanger::Text::isValidUTF8(text)) fail("attach utf8", header);
    for (char c : text) {
      const auto u = static_cast<unsigned char>(c);
      if (u < 32 || u == 127) fail("attach control", header);
    }
  } catch (const ServiceError&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  splitOnly(bytes);
  attach(bytes);

  const json request = json::parse(bytes, nullptr, false);
  if (request.is_discarded()) return 0;
  if (request.is_object()) {
    const auto url = request.find("url");
    if (url != request.end() && url->is_string()) {
      splitOnly(url->get_ref<const std::string&>());
    }
  }
  const Pins& pins = fixedPins();
  Wire wire;
  try {
    wire = tolvanger::service::Broker::check(request, "fuzz", pins,
                                             "http.request");
  } catch (const ServiceError&) {
    return 0;
  }
  checkWire(wire, pins);
  return 0;
}
