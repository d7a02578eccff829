#include "tolvanger/service/pins.h"

#include <algorithm>

#include "tolvanger/kit/ascii.h"
#include "tolvanger/kit/service_error.h"
#include "tolvanger/kit/text.h"

namespace tolvanger::service {

using nlohmann::json;

namespace {

bool contains(const std::vector<std::string>& items, std::string_view item) {
  return std::find(items.begin(), items.end(), item) != items.end();
}

void sortUnique(std::vector<std::string>& items) {
  std::sort(items.begin(), items.end());
  items.erase(std::unique(items.begin(), items.end()), items.end());
}

bool isControl(unsigned char c) { return c < 32 || c == 127; }

// One piece of a header template: literal text, or a placeholder's name.
struct Piece {
  std::string_view text;
  bool placeholder = false;
};

// Splits a template into literal text and "{name}" placeholders. A "{" with
// no "}" after it starts literal text that runs to the end.
std::vector<Piece> pieces(std::string_view templ) {
  std::vector<Piece> out;
  while (!templ.empty()) {
    const size_t open = templ.find('{');
    if (open == std::string_view::npos) {
      out.push_back({templ, false});
      break;
    }
    const size_t close = templ.find('}', open + 1);
    if (close == std::string_view::npos) {
      out.push_back({templ, false});
      break;
    }
    if (open > 0) out.push_back({templ.substr(0, open), false});
    out.push_back({templ.substr(open + 1, close - open - 1), true});
    templ.remove_prefix(close + 1);
  }
  return out;
}

}  // namespace

std::pair<std::string, std::string> Pins::byKind(std::string_view kind) {
  if (kind == "basic") return {"authorization", "Basic {value}"};
  if (kind == "api_key") return {"authorization", "{value}"};
  if (kind == "cookie") return {"cookie", "{value}"};
  return {"authorization", "Bearer {value}"};
}

const std::set<std::string, std::less<>>& Pins::transportHeaders() {
  static const std::set<std::string, std::less<>> headers = {
      "host",       "content-length", "transfer-encoding",
      "connection", "expect",         "upgrade",
      "te",         "trailer",        "proxy-authorization"};
  return headers;
}

std::optional<Pins> Pins::derived(const SecretName& name) {
  Pins pins;
  for (const std::string& raw : name.hosts) {
    const std::string lowered = Ascii::lower(raw);
    const std::string_view host = Ascii::trim(lowered);
    if (!host.empty()) pins.hosts.emplace_back(host);
  }
  if (pins.hosts.empty()) return std::nullopt;
  sortUnique(pins.hosts);

  std::tie(pins.header, pins.templ) = byKind(name.kind);

  pins.rules = name.rules;
  for (AccessRule& rule : pins.rules) {
    for (std::string& host : rule.hosts) host = Ascii::lower(host);
  }

  if (pins.rules.empty()) {
    pins.methods.assign(AccessRule::allMethods.begin(),
                        AccessRule::allMethods.end());
    return pins;
  }
  for (std::string_view method : AccessRule::allMethods) {
    if (std::any_of(
            pins.rules.begin(), pins.rules.end(),
            [&](const AccessRule& r) { return contains(r.methods, method); })) {
      pins.methods.emplace_back(method);
    }
  }
  // A rule that allows every path makes the list of paths say so too; the
  // rules still decide one by one in `allow`.
  const bool everyPath =
      std::any_of(pins.rules.begin(), pins.rules.end(),
                  [](const AccessRule& r) { return r.paths.empty(); });
  if (!everyPath) {
    for (const AccessRule& rule : pins.rules) {
      pins.paths.insert(pins.paths.end(), rule.paths.begin(), rule.paths.end());
    }
    sortUnique(pins.paths);
  }
  return pins;
}

void Pins::allow(const Wire& wire, std::string_view called) const {
  const std::string who(called);
  if (wire.scheme != scheme) {
    throw ServiceError::refused(
        who + " speaks " + scheme + ", not " +
        (wire.scheme.empty() ? std::string("nothing") : wire.scheme));
  }
  if (!contains(methods, wire.method)) {
    throw ServiceError::refused(who + " sends " + Ascii::join(methods, " or ") +
                                ", not " + wire.method);
  }
  const std::string netloc = wire.netloc();
  if (!contains(hosts, netloc)) {
    throw ServiceError::refused(who + " may only reach " +
                                Ascii::join(hosts, ", ") + " \u2014 not " +
                                (netloc.empty() ? std::string("?") : netloc));
  }
  const std::string_view path =
      std::string_view(wire.path).substr(0, wire.path.find('?'));

  if (!rules.empty()) {
    for (const AccessRule& rule : rules) {
      if (rule.covers(netloc, wire.method, path)) return;
    }
    std::vector<std::string> sentences;
    sentences.reserve(rules.size());
    for (const AccessRule& rule : rules) sentences.push_back(rule.sentence());
    throw ServiceError::refused(who + " may do " +
                                Ascii::join(sentences, "; ") + " \u2014 not " +
                                wire.method + " " + netloc + std::string(path));
  }
  if (paths.empty()) return;
  for (const std::string& entry : paths) {
    if (path == entry) return;
    const std::string stem = entry.ends_with('/') ? entry : entry + "/";
    if (path.starts_with(stem)) return;
  }
  throw ServiceError::refused(who + " may only reach " +
                              Ascii::join(paths, ", ") + " on " + netloc);
}

std::pair<std::string, SecretBytes> Pins::attach(ByteView value) const {
  if (authKind != "header") {
    throw ServiceError::refused("this build attaches header credentials only");
  }
  const std::vector<Piece> parts = pieces(templ);
  size_t placeholders = 0;
  size_t literal = 0;
  for (const Piece& piece : parts) {
    if (!piece.placeholder) {
      literal += piece.text.size();
    } else if (piece.text == "value") {
      ++placeholders;
    } else {
      throw ServiceError::refused(
          "the " + header + " template wants " + std::string(piece.text) +
          ", and a credential this phone announced is one string");
    }
  }

  // The credential as UTF-8, each invalid sequence replaced by U+FFFD. The
  // scalars and the text are sized up front so that no reallocation leaves a
  // copy of the secret behind, and both are wiped before they are freed.
  const std::string_view raw(reinterpret_cast<const char*>(value.data()),
                             value.size());
  std::vector<char32_t> scalars = Text::scalars(raw);
  std::string out;
  // An invalid byte grows to at most the three bytes of U+FFFD.
  out.reserve(literal + placeholders * value.size() * 3);
  for (const Piece& piece : parts) {
    if (!piece.placeholder) {
      out += piece.text;
      continue;
    }
    for (char32_t c : scalars) Text::appendUTF8(out, c);
  }
  wipe(scalars.data(), scalars.size() * sizeof(char32_t));

  const bool empty = out.empty();
  const bool control = std::any_of(out.begin(), out.end(), [](char c) {
    return isControl(static_cast<unsigned char>(c));
  });
  if (empty || control) {
    wipe(out);
    if (empty)
      throw ServiceError::refused("that credential produced no header");
    throw ServiceError::refused(
        "control characters in a header value are how one header becomes two");
  }
  SecretBytes filled(asBytes(out));
  wipe(out);
  return {header, std::move(filled)};
}

json Pins::asDictionary() const {
  json out = {{"hosts", hosts},   {"methods", methods}, {"paths", paths},
              {"scheme", scheme}, {"auth", authKind},   {"header", header}};
  if (!rules.empty()) {
    json list = json::array();
    for (const AccessRule& rule : rules) list.push_back(rule.asDictionary());
    out["rules"] = std::move(list);
  }
  return out;
}

}  // namespace tolvanger::service
