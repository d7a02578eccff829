#include "tolvanger/kit/sign_in.h"

#include <algorithm>

#include "tolvanger/kit/ascii.h"
#include "tolvanger/kit/ids.h"
#include "tolvanger/kit/text.h"
#include "tolvanger/kit/url.h"

namespace tolvanger::SignIn {

namespace {

bool isHostCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '.';
}

// A blank, a C0 control or DEL: never part of an address worth opening, and
// a way to make one look like another on a screen.
bool hasBlankOrControl(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte <= 0x20 || byte == 0x7F;
  });
}

// True when `longer` ends in "." followed by `shorter`.
bool isBelow(std::string_view longer, std::string_view shorter) {
  return longer.size() > shorter.size() && longer.ends_with(shorter) &&
         longer[longer.size() - shorter.size() - 1] == '.';
}

// The registrable site of a host: its last two labels.
std::string_view siteOf(std::string_view host) {
  const size_t last = host.rfind('.');
  if (last == std::string_view::npos || last == 0) return host;
  const size_t before = host.rfind('.', last - 1);
  return before == std::string_view::npos ? host : host.substr(before + 1);
}

// Characters that would end a cookie pair or break the header's line: ";",
// NUL, and the line breaks 10 to 13, U+0085, U+2028 and U+2029.
bool fitsHeader(std::string_view text) {
  if (!Text::isValidUTF8(text)) return false;
  for (const char32_t c : Text::scalars(text)) {
    if (c == ';' || c == 0 || (c >= 10 && c <= 13) || c == 0x85 ||
        c == 0x2028 || c == 0x2029) {
      return false;
    }
  }
  return true;
}

// True when a cookie for `domain` is sent to `host`: the domain is the host
// or a parent of it at a label boundary.
bool belongsTo(std::string_view domain, std::string_view host) {
  std::string normal = Ascii::lower(domain);
  if (normal.starts_with('.')) normal.erase(0, 1);
  return !normal.empty() && (normal == host || isBelow(host, normal));
}

}  // namespace

std::optional<std::string> host(std::string_view url) {
  if (hasBlankOrControl(url)) return std::nullopt;
  const std::optional<Url> parsed = Url::parse(url);
  if (!parsed || Ascii::lower(parsed->scheme) != "https") return std::nullopt;
  if (parsed->user || parsed->password) return std::nullopt;
  if (parsed->port && *parsed->port != 443) return std::nullopt;
  std::string name = Ascii::lower(parsed->host);
  if (name.find('.') == std::string::npos || name.starts_with('.') ||
      !std::all_of(name.begin(), name.end(), isHostCharacter)) {
    return std::nullopt;
  }
  return name;
}

bool isName(std::string_view text) { return Ids::isID(text); }

std::optional<std::string> defaultName(std::string_view host) {
  if (!isName(host)) return std::nullopt;
  return std::string(host);
}

bool related(std::string_view a, std::string_view b) {
  return a == b || isBelow(a, b) || isBelow(b, a) || siteOf(a) == siteOf(b);
}

bool Readiness::anyway() const {
  return kind == Kind::kElsewhere || kind == Kind::kForm ||
         kind == Kind::kUntouched;
}

Readiness readiness(std::string_view origin,
                    const std::optional<std::string>& current, bool settled,
                    bool form, bool newSession) {
  using Kind = Readiness::Kind;
  if (!current || current->empty()) return {Kind::kUnsavable, {}};
  if (!settled) return {Kind::kLoading, {}};
  if (!related(*current, origin)) return {Kind::kElsewhere, *current};
  if (form) return {Kind::kForm, {}};
  return {newSession ? Kind::kReady : Kind::kUntouched, {}};
}

std::set<std::string> serverMarks(const std::vector<Cookie>& cookies) {
  std::set<std::string> marks;
  for (const Cookie& cookie : cookies) {
    if (cookie.httpOnly) marks.insert(cookie.name);
  }
  return marks;
}

std::optional<Session> session(const std::vector<Cookie>& cookies,
                               std::string_view host, int64_t now) {
  const std::string forHost = Ascii::lower(host);
  std::vector<const Cookie*> kept;
  for (const Cookie& cookie : cookies) {
    if (!belongsTo(cookie.domain, forHost)) continue;
    if (cookie.expires && *cookie.expires <= now) continue;
    if (cookie.name.empty() || !fitsHeader(cookie.name) ||
        !fitsHeader(cookie.value)) {
      continue;
    }
    kept.push_back(&cookie);
  }
  if (kept.empty()) return std::nullopt;

  // The order a browser sends them in: the more specific path first.
  std::stable_sort(kept.begin(), kept.end(),
                   [](const Cookie* a, const Cookie* b) {
                     if (a->path.size() != b->path.size()) {
                       return a->path.size() > b->path.size();
                     }
                     return a->name < b->name;
                   });
  Session out;
  // Sized once, so that no growing copy of the session is left behind in
  // freed memory.
  size_t size = 0;
  for (const Cookie* cookie : kept) {
    size += cookie->name.size() + cookie->value.size() + 3;
  }
  out.header.reserve(size);
  for (const Cookie* cookie : kept) {
    if (!out.header.empty()) out.header += "; ";
    out.header += cookie->name;
    out.header += '=';
    out.header += cookie->value;
    if (cookie->expires) {
      out.expiresBy =
          std::max(out.expiresBy.value_or(*cookie->expires), *cookie->expires);
    }
  }
  out.count = kept.size();
  return out;
}

}  // namespace tolvanger::SignIn
