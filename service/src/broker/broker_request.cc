// Building a brokered request: from what an agent wrote to a `Wire`, the
// fields the phone shows, and a filed request.
#include <algorithm>
#include <set>

#include "tolvanger/kit/ascii.h"
#include "tolvanger/kit/crypto/digest.h"
#include "tolvanger/kit/service_error.h"
#include "tolvanger/kit/text.h"
#include "tolvanger/kit/url.h"
#include "tolvanger/service/broker.h"
#include "tolvanger/service/ops.h"
#include "tolvanger/service/service.h"

namespace tolvanger::service {

using nlohmann::json;

namespace {

const std::set<std::string, std::less<>> kParts = {"body", "headers", "method",
                                                   "secret", "url"};
constexpr size_t kMaxHeaderName = 64;
// The fields that describe the call itself; an op's renderer may not write
// them.
const std::set<std::string, std::less<>> kStructuralKeys = {
    "method",     "host",      "path",       "headers", "body_sha256",
    "body_bytes", "body_text", "credential", "reason"};

[[noreturn]] void refuse(std::string sentence) {
  throw ServiceError::refused(std::move(sentence));
}

bool isAlpha(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isControl(unsigned char c) { return c < 32 || c == 127; }

std::string_view trimmed(std::string_view s) {
  constexpr std::string_view kBlank = " \t\r\n";
  const size_t start = s.find_first_not_of(kBlank);
  if (start == std::string_view::npos) return {};
  return s.substr(start, s.find_last_not_of(kBlank) - start + 1);
}

// A segment that a server may resolve as a step in place or a step up,
// whether written plainly or with "%2e" for a dot.
bool isDotSegment(std::string_view segment) {
  std::string plain;
  for (size_t i = 0; i < segment.size(); ++i) {
    if (segment.substr(i, 3) == "%2e" || segment.substr(i, 3) == "%2E") {
      plain += '.';
      i += 2;
    } else {
      plain += segment[i];
    }
    if (plain.size() > 2) return false;
  }
  return plain == "." || plain == "..";
}

bool hasDotSegment(std::string_view path) {
  size_t start = 0;
  while (start <= path.size()) {
    const size_t end = std::min(path.find('/', start), path.size());
    if (isDotSegment(path.substr(start, end - start))) return true;
    start = end + 1;
  }
  return false;
}

// A "\" or an encoded "/" or "\": readers disagree on whether these separate
// the path's steps, so a pin on one reading says nothing about the other.
bool hasHiddenSeparator(std::string_view path) {
  if (path.find('\\') != std::string_view::npos) return true;
  for (size_t at = path.find('%'); at != std::string_view::npos;
       at = path.find('%', at + 1)) {
    const std::string escape = Ascii::lower(path.substr(at, 3));
    if (escape == "%2f" || escape == "%5c") return true;
  }
  return false;
}

// Labels of letters, digits and "-", joined by single dots: the way a phone
// pins a host. IP literals and names with other characters are refused.
bool isPlainHost(std::string_view host) {
  if (host.empty() || host.front() == '.' || host.back() == '.') return false;
  char previous = 0;
  for (char c : host) {
    if (c == '.' && previous == '.') return false;
    if (!isAlpha(c) && !isDigit(c) && c != '-' && c != '.') return false;
    previous = c;
  }
  return true;
}

const json* member(const json& object, const char* key) {
  const auto it = object.find(key);
  return it == object.end() ? nullptr : &*it;
}

// Fills scheme, host, port and path of `wire` from the url an agent wrote.
void readURL(Wire& wire, const json* value, const Pins& pins,
             std::string_view called) {
  if (value == nullptr || !value->is_string() ||
      value->get_ref<const std::string&>().empty() ||
      Text::longerThan(value->get_ref<const std::string&>(), Broker::kMaxURL)) {
    refuse("the url is missing or implausibly long");
  }
  const auto url = Url::parse(value->get_ref<const std::string&>());
  if (!url) refuse("that is not a usable url");
  const std::string scheme = Ascii::lower(url->scheme);
  if (scheme != pins.scheme) {
    refuse(std::string(called) + " speaks " + pins.scheme + ", not " +
           (scheme.empty() ? std::string("nothing") : scheme));
  }
  if (url->user || url->password) {
    refuse("credentials in the url are not how this works");
  }
  if (url->fragment) {
    refuse(
        "a fragment never reaches the server, so it has no business in "
        "something the user approves");
  }
  wire.scheme = scheme;
  wire.host = Ascii::lower(url->host);
  wire.port = url->port.value_or(scheme == "https" ? 443 : 80);
  wire.path = url->path.empty() ? "/" : url->path;
  if (url->query) wire.path += "?" + *url->query;

  if (std::any_of(wire.path.begin(), wire.path.end(), [](char c) {
        return c == ' ' || isControl(static_cast<unsigned char>(c));
      })) {
    refuse(
        "the path has a space or a control character in it \u2014 "
        "percent-encode it, so what the user reads is what goes on the wire");
  }
  if (std::any_of(wire.path.begin(), wire.path.end(),
                  [](char c) { return static_cast<unsigned char>(c) > 127; })) {
    refuse(
        "the path has a character beyond ASCII in it \u2014 percent-encode "
        "it, so what the user reads is what goes on the wire");
  }
  const std::string_view bare =
      std::string_view(wire.path).substr(0, wire.path.find('?'));
  if (hasDotSegment(bare)) {
    refuse(
        "the path has a \".\" or \"..\" step in it \u2014 write the path the "
        "server should end up at, so the pins judge where the call really "
        "goes");
  }
  if (hasHiddenSeparator(bare)) {
    refuse(
        "the path has a \"\\\" or an encoded \"/\" or \"\\\" in it \u2014 "
        "separate its steps with a plain \"/\" only, so the pins judge where "
        "the call really goes");
  }
  if (!isPlainHost(wire.host)) {
    refuse(
        "the host must be a plain name of letters, digits, hyphens and dots, "
        "as the phone pins it \u2014 not " +
        wire.host);
  }
}

// The headers an agent wrote, under lower-case names, with the credential's
// header standing empty.
void readHeaders(Wire& wire, const json* value, const Pins& pins) {
  if (value != nullptr) {
    if (!value->is_object()) refuse("headers are an object of names to text");
    if (value->size() > Broker::kMaxHeaders) refuse("more than 16 headers");
    for (const auto& [name, text] : value->items()) {
      if (name.empty() || name.size() > kMaxHeaderName ||
          !isAlpha(name.front()) ||
          !std::all_of(name.begin(), name.end(), [](char c) {
            return isAlpha(c) || isDigit(c) || c == '-';
          })) {
        refuse("header name not usable: " + name);
      }
      const std::string lower = Ascii::lower(name);
      if (wire.headers.count(lower) != 0) {
        refuse(name +
               " is named twice, and two spellings of one header are two "
               "requests");
      }
      if (Pins::transportHeaders().count(lower) != 0) {
        refuse(name + " belongs to the transport, not to the caller");
      }
      if (!text.is_string() ||
          Text::longerThan(text.get_ref<const std::string&>(),
                           Broker::kMaxHeaderValue)) {
        refuse(name + ": expected text under 1024 characters");
      }
      const std::string& given = text.get_ref<const std::string&>();
      if (std::any_of(given.begin(), given.end(), [](char c) {
            return isControl(static_cast<unsigned char>(c));
          })) {
        refuse(name +
               ": control characters in a header value are how one header "
               "becomes two");
      }
      wire.headers.emplace(lower, given);
    }
  }
  if (pins.header.empty()) return;
  const auto slot = wire.headers.find(pins.header);
  if (slot != wire.headers.end() && !slot->second.empty()) {
    refuse(pins.header +
           " is the broker's to fill \u2014 send it empty, or leave it out");
  }
  wire.headers[pins.header] = "";
}

// The derived pins of an announced name, or the refusal that says why there
// are none.
Pins pinsOf(const std::optional<SecretName>& found, const std::string& name) {
  if (!found) refuse("no credential called " + name);
  auto pins = Pins::derived(*found);
  if (!pins) {
    refuse("nothing says where " + name +
           " may be sent, so it cannot be attached to a request; a credential "
           "is only ever spent on a host the phone pinned");
  }
  return std::move(*pins);
}

// No character below 32 other than the line feed.
bool readable(std::string_view body) {
  return std::none_of(body.begin(), body.end(), [](char c) {
    return static_cast<unsigned char>(c) < 32 && c != '\n';
  });
}

}  // namespace

Wire Broker::check(const json& request, const std::string& secret,
                   const Pins& pins, std::string_view called) {
  const json* method = member(request, "method");
  if (method == nullptr || !method->is_string()) {
    refuse(std::string(called) + " sends " + Ascii::join(pins.methods, " or ") +
           ", and no method was named");
  }
  Wire wire;
  readURL(wire, member(request, "url"), pins, called);
  readHeaders(wire, member(request, "headers"), pins);

  const json* body = member(request, "body");
  if (body != nullptr) {
    if (!body->is_string()) {
      refuse(
          "the body is text \u2014 encode bytes yourself, so the encoding is "
          "part of what the user approves");
    }
    wire.body = body->get<std::string>();
    if (wire.body.size() > kMaxBody) refuse("the body is over 131072 bytes");
  }
  wire.method = Ascii::upper(method->get_ref<const std::string&>());
  wire.secret = secret;
  return wire;
}

Fields Broker::structuralFields(const Wire& wire, bool showBody) {
  Fields fields;
  fields.set("credential", wire.secret);
  fields.set("method", wire.method);
  fields.set("host", wire.netloc());
  fields.set("path", wire.path);
  FieldValue::List names;
  names.reserve(wire.headers.size());
  for (const auto& [name, value] : wire.headers) names.push_back(name);
  std::sort(names.begin(), names.end());
  fields.set("headers", FieldValue::list(std::move(names)));
  fields.set("body_sha256", crypto::sha256Hex(asBytes(wire.body)));
  fields.set("body_bytes",
             FieldValue::number(static_cast<int64_t>(wire.body.size())));
  if (showBody && !wire.body.empty() && wire.body.size() <= kCanonicalBodyMax &&
      readable(wire.body)) {
    fields.set("body_text", wire.body);
  }
  return fields;
}

std::optional<std::string> Broker::onlyOne(
    const std::vector<SecretName>& names,
    const std::vector<std::string>& hosts) {
  std::set<std::string, std::less<>> wanted;
  for (const std::string& host : hosts) wanted.insert(Ascii::lower(host));
  std::optional<std::string> found;
  size_t count = 0;
  for (const SecretName& name : names) {
    if (std::any_of(name.hosts.begin(), name.hosts.end(),
                    [&](const std::string& h) {
                      return wanted.count(Ascii::lower(h)) != 0;
                    })) {
      found = name.name;
      ++count;
    }
  }
  if (count != 1) return std::nullopt;
  return found;
}

Pins Broker::pins(const std::string& name) const {
  return pinsOf(service_.secretName(name), name);
}

Broker::Screen Broker::screen(const NamedOp* op, const Wire& wire) {
  if (op != nullptr) {
    const json rendered = op->render(wire);
    return {Fields::from(&rendered), op->showBody, op};
  }
  // A plain call that fits an op's pins reads like that op where it can; a
  // body the op cannot read is shown as it is.
  if (const NamedOp* presenter = Ops::presenter(wire)) {
    try {
      const json rendered = presenter->render(wire);
      return {Fields::from(&rendered), presenter->showBody, presenter};
    } catch (const ServiceError&) {
    }
  }
  return {Fields{}, true, nullptr};
}

json Broker::request(const Ask& ask) {
  const NamedOp* op = nullptr;
  if (ask.operation && *ask.operation != kOperation) {
    op = Ops::get(*ask.operation);
    if (op == nullptr) refuse("no such operation");
  }
  const std::string operation =
      op != nullptr ? op->name : std::string(kOperation);
  if (!ask.request.is_object()) {
    refuse("the request is an object with method, url, headers and body");
  }
  std::vector<std::string> others;
  for (const auto& [key, value] : ask.request.items()) {
    if (kParts.count(key) == 0) others.push_back(key);
  }
  if (!others.empty()) {
    std::sort(others.begin(), others.end());
    refuse("a request is " + Ascii::join(kParts, ", ") +
           " and nothing else \u2014 not " + Ascii::join(others, ", "));
  }

  // The credential: the one named, or for an op the usual one if the phone
  // announced it, else the only one pinned to the op's hosts.
  std::string name;
  const json* secret = member(ask.request, "secret");
  if (secret != nullptr && secret->is_string() &&
      !secret->get_ref<const std::string&>().empty()) {
    name = secret->get<std::string>();
  } else if (op != nullptr) {
    const std::vector<SecretName> announced = service_.secretNames();
    const bool usual = std::any_of(
        announced.begin(), announced.end(),
        [&](const SecretName& n) { return n.name == op->credential; });
    const std::optional<std::string> only =
        usual ? std::nullopt : onlyOne(announced, op->pins.hosts);
    name = only.value_or(op->credential);
  } else {
    refuse(std::string(kOperation) +
           " needs the name of the credential to attach \u2014 the ones you "
           "may ask for, and where each may be sent, come back from a "
           "credentials listing");
  }
  const auto found = service_.secretName(name);
  if (op != nullptr && !found) {
    refuse(op->name + " attaches the " + name +
           " credential and no phone here holds one \u2014 write one on your "
           "phone, pinned to " +
           Ascii::join(op->pins.hosts, ", ") +
           ", sign into the provider there, or name another with `secret`");
  }
  const Pins pins = pinsOf(found, name);

  Wire wire =
      check(ask.request, name, op != nullptr ? op->pins : pins, operation);
  // A site session goes out as the browser that made it, unless the agent
  // named a user agent of its own.
  if (found->userAgent && wire.headers.count("user-agent") == 0) {
    wire.headers["user-agent"] = *found->userAgent;
  }
  if (op != nullptr) op->pins.allow(wire, op->name);
  pins.allow(wire, "the " + name + " credential");

  Fields fields;
  if (ask.reason) {
    const std::string_view reason = trimmed(*ask.reason);
    if (!reason.empty()) fields.set("reason", std::string(reason));
  }
  Screen shown = screen(op, wire);
  for (auto& [key, value] : shown.fields.entries) {
    if (kStructuralKeys.count(key) != 0) {
      refuse("the " + shown.by->name + " renderer tried to write " + key +
             ", which is not its to write");
    }
    fields.set(key, std::move(value));
  }
  // A renderer cannot mask what the call is, and an agent cannot name
  // itself.
  for (auto& [key, value] : structuralFields(wire, shown.showBody).entries) {
    fields.set(key, std::move(value));
  }
  fields.set("agent", ask.agent);
  if (ask.client) fields.set("client", *ask.client);
  const json all = fields.any();
  fields = Fields::from(&all);

  RaiseOptions options;
  options.credentialName = name;
  options.ttlSeconds = ask.ttlSeconds;
  options.agent = ask.process;
  options.wire = std::move(wire);
  // A process that the phone let draw on this credential for a while is
  // settled at once; a peer whose process can't be told never is.
  std::optional<AllowanceUse> allowed;
  if (ask.process) allowed = service_.useAllowance(name, *ask.process);
  if (allowed) options.allowed = &*allowed;
  const StoredRequest stored =
      service_.raise(operation, std::move(fields), options);
  return service_.openedReply(stored);
}

json Broker::credentials() const {
  json list = json::array();
  for (const SecretName& name : service_.secretNames()) {
    json entry = {{"name", name.name},
                  {"kind", name.kind},
                  {"held", "phone"},
                  {"updated_at", name.updatedAt}};
    if (name.signedInAt) entry["signed_in_at"] = *name.signedInAt;
    if (name.expiresBy) entry["expires_by"] = *name.expiresBy;
    if (const auto pins = Pins::derived(name)) {
      entry["spend"] = "attach";
      entry.update(pins->asDictionary());
    } else {
      entry["spend"] = "none";
      entry["hosts"] = json::array();
      entry["methods"] = json::array();
      entry["paths"] = json::array();
      entry["note"] =
          "no host is pinned to this one, so there is nothing to attach it "
          "to; it cannot be used until the phone pins a host";
    }
    list.push_back(std::move(entry));
  }
  return list;
}

}  // namespace tolvanger::service
