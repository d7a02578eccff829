#include "tolvanger/kit/pair_link.h"

#include <array>
#include <map>

#include "tolvanger/kit/text.h"

namespace tolvanger {

namespace {

constexpr std::string_view kScheme = "tolvanger";
constexpr std::string_view kPlace = "pair";
constexpr std::array<std::string_view, 6> kNames = {"v", "d", "h",
                                                    "p", "t", "f"};

bool isAlnum(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
         (c >= '0' && c <= '9');
}

bool isHexDigit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') ||
         (c >= 'A' && c <= 'F');
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return c - 'A' + 10;
}

// Characters that may stand in a URL as they are: unreserved, reserved and
// the escape character itself.
bool isURLCharacter(char c) {
  if (isAlnum(c)) return true;
  static constexpr std::string_view kOthers = "-._~:/?#[]@!$&'()*+,;=%";
  return kOthers.find(c) != std::string_view::npos;
}

// What a value may hold without being escaped when a link is written.
bool isPlain(char c) {
  return isAlnum(c) || c == '-' || c == '.' || c == '_' || c == '~' || c == ':';
}

bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' ||
         c == '\f';
}

std::string_view trim(std::string_view s) {
  while (!s.empty() && isSpace(s.front())) s.remove_prefix(1);
  while (!s.empty() && isSpace(s.back())) s.remove_suffix(1);
  return s;
}

std::string escape(std::string_view value) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(value.size());
  for (char c : value) {
    if (isPlain(c)) {
      out += c;
    } else {
      const auto b = static_cast<unsigned char>(c);
      out += '%';
      out += kDigits[b >> 4];
      out += kDigits[b & 0x0f];
    }
  }
  return out;
}

// Percent-decodes; nothing on a broken escape.
std::optional<std::string> unescape(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out += text[i];
      continue;
    }
    if (i + 2 >= text.size() || !isHexDigit(text[i + 1]) ||
        !isHexDigit(text[i + 2])) {
      return std::nullopt;
    }
    out +=
        static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
    i += 2;
  }
  return out;
}

// A decimal integer with an optional sign, in 1...65535.
std::optional<int> parsePort(std::string_view text) {
  bool negative = false;
  if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
    negative = text.front() == '-';
    text.remove_prefix(1);
  }
  if (text.empty()) return std::nullopt;
  long value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + (c - '0');
    if (value > 65535) return std::nullopt;
  }
  if (negative || value < 1) return std::nullopt;
  return static_cast<int>(value);
}

std::optional<PairURL> fail(std::string* why, const char* reason) {
  if (why != nullptr) *why = reason;
  return std::nullopt;
}

}  // namespace

std::string PairURL::address() const {
  return host + ":" + std::to_string(port);
}

std::string PairURL::link() const {
  return std::string(kScheme) + "://" + std::string(kPlace) +
         "?v=1&d=" + escape(daemonID) + "&h=" + escape(host) +
         "&p=" + std::to_string(port) + "&t=" + escape(token) +
         "&f=" + escape(fingerprint);
}

std::optional<PairURL> PairURL::parse(std::string_view text, std::string* why) {
  text = trim(text);
  for (char c : text) {
    if (!isURLCharacter(c)) return fail(why, "that is not a link");
  }
  const size_t colon = text.find(':');
  if (colon == std::string_view::npos || text.substr(0, colon) != kScheme) {
    return fail(why, "that is not a tolvanger link");
  }
  std::string_view rest = text.substr(colon + 1);
  if (rest.find('#') != std::string_view::npos) {
    return fail(why, "that is not a pair link");
  }
  const size_t mark = rest.find('?');
  const std::string_view where = rest.substr(0, mark);
  bool place = where == kPlace;
  if (where.starts_with("//")) {
    const std::string_view authority = where.substr(2);
    const size_t slash = authority.find('/');
    const std::string_view host = authority.substr(0, slash);
    const std::string_view path =
        slash == std::string_view::npos ? "" : authority.substr(slash);
    place = host == kPlace && (path.empty() || path == "/");
  }
  if (!place) return fail(why, "that is not a pair link");
  if (mark == std::string_view::npos) {
    return fail(why, "the pair link has no parameters");
  }

  std::map<std::string, std::string, std::less<>> items;
  std::string_view query = rest.substr(mark + 1);
  while (true) {
    const size_t amp = query.find('&');
    const std::string_view item = query.substr(0, amp);
    const size_t eq = item.find('=');
    // An item with no value is dropped.
    if (eq != std::string_view::npos) {
      auto name = unescape(item.substr(0, eq));
      auto value = unescape(item.substr(eq + 1));
      if (!name || !value) {
        return fail(why, "the pair link has a broken escape");
      }
      if (!Text::isValidUTF8(*value)) {
        return fail(why, "the pair link is not valid text");
      }
      bool known = false;
      for (std::string_view n : kNames) known = known || n == *name;
      // Of two items of one name the later one stands.
      if (known) items[std::move(*name)] = std::move(*value);
    }
    if (amp == std::string_view::npos) break;
    query.remove_prefix(amp + 1);
  }

  auto get = [&](std::string_view name) -> const std::string* {
    auto it = items.find(name);
    return it == items.end() ? nullptr : &it->second;
  };
  const std::string* v = get("v");
  if (v == nullptr || *v != "1") {
    return fail(why, "the pair link is of another version");
  }
  PairURL url;
  const std::string* d = get("d");
  if (d == nullptr || d->empty()) {
    return fail(why, "the pair link names no daemon");
  }
  url.daemonID = *d;
  const std::string* h = get("h");
  if (h == nullptr) return fail(why, "the pair link names no host");
  url.host = *h;
  const std::string* p = get("p");
  const auto port = p == nullptr ? std::nullopt : parsePort(*p);
  if (!port) return fail(why, "the port is not a number from 1 to 65535");
  url.port = *port;
  const std::string* t = get("t");
  bool tokenOK = t != nullptr && t->size() == 32;
  if (tokenOK) {
    for (char c : *t) tokenOK = tokenOK && isHexDigit(c);
  }
  if (!tokenOK) return fail(why, "the token is not 32 hexadecimal digits");
  url.token = *t;
  const std::string* f = get("f");
  if (f == nullptr || f->empty()) {
    return fail(why, "the pair link has no fingerprint");
  }
  url.fingerprint = *f;
  return url;
}

}  // namespace tolvanger
