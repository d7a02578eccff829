#include "tolvanger/kit/url.h"

namespace tolvanger {

namespace {

bool isAlpha(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isHex(char c) {
  return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

bool validScheme(std::string_view s) {
  if (s.empty() || !isAlpha(s.front())) return false;
  for (char c : s) {
    if (!isAlpha(c) && !isDigit(c) && c != '+' && c != '-' && c != '.') {
      return false;
    }
  }
  return true;
}

// Every "%" is followed by two hexadecimal digits.
bool escapesWellFormed(std::string_view s) {
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] != '%') continue;
    if (i + 2 >= s.size()) return false;
    if (!isHex(s[i + 1]) || !isHex(s[i + 2])) return false;
    i += 2;
  }
  return true;
}

// Unreserved characters, sub-delimiters, ":" and escapes: nothing that
// another reader might take for the end of the authority.
bool validUserinfo(std::string_view s) {
  constexpr std::string_view kAllowed = "-._~!$&'()*+,;=:%";
  for (char c : s) {
    if (!isAlpha(c) && !isDigit(c) &&
        kAllowed.find(c) == std::string_view::npos) {
      return false;
    }
  }
  return escapesWellFormed(s);
}

// A registered name of letters, digits, "-", ".", "_" and "~"; no escapes.
bool validRegName(std::string_view s) {
  if (s.empty()) return false;
  for (char c : s) {
    if (!isAlpha(c) && !isDigit(c) && c != '-' && c != '.' && c != '_' &&
        c != '~') {
      return false;
    }
  }
  return true;
}

// "[" hex digits, ":" and "." "]", with at least one ":". Zone identifiers
// and future address forms are refused.
bool validIPLiteral(std::string_view s) {
  if (s.size() < 4 || s.front() != '[' || s.back() != ']') return false;
  const std::string_view inner = s.substr(1, s.size() - 2);
  bool colon = false;
  for (char c : inner) {
    if (c == ':') {
      colon = true;
    } else if (!isHex(c) && c != '.') {
      return false;
    }
  }
  return colon;
}

// Decimal 1 to 65535 without a leading zero.
std::optional<int> parsePort(std::string_view s) {
  if (s.empty() || s.size() > 5 || s.front() == '0') return std::nullopt;
  int port = 0;
  for (char c : s) {
    if (!isDigit(c)) return std::nullopt;
    port = port * 10 + (c - '0');
  }
  if (port > 65535) return std::nullopt;
  return port;
}

}  // namespace

std::optional<Url> Url::parse(std::string_view text) {
  Url url;

  const size_t colon = text.find(':');
  if (colon == std::string_view::npos) return std::nullopt;
  const std::string_view scheme = text.substr(0, colon);
  if (!validScheme(scheme)) return std::nullopt;
  std::string_view rest = text.substr(colon + 1);
  if (!rest.starts_with("//")) return std::nullopt;
  rest.remove_prefix(2);
  url.scheme = std::string(scheme);

  // The authority runs to the first "/", "?" or "#".
  const size_t authorityEnd = rest.find_first_of("/?#");
  std::string_view authority = rest.substr(0, authorityEnd);
  rest = authorityEnd == std::string_view::npos ? std::string_view()
                                                : rest.substr(authorityEnd);

  // One "@" at most: two are a classic way to make one reader see another
  // host than the next.
  const size_t at = authority.find('@');
  if (at != std::string_view::npos) {
    const std::string_view userinfo = authority.substr(0, at);
    authority.remove_prefix(at + 1);
    if (authority.find('@') != std::string_view::npos) return std::nullopt;
    if (!validUserinfo(userinfo)) return std::nullopt;
    const size_t split = userinfo.find(':');
    url.user = std::string(userinfo.substr(0, split));
    if (split != std::string_view::npos) {
      url.password = std::string(userinfo.substr(split + 1));
    }
  }

  std::string_view host = authority;
  std::optional<std::string_view> port;
  if (authority.starts_with('[')) {
    const size_t close = authority.find(']');
    if (close == std::string_view::npos) return std::nullopt;
    host = authority.substr(0, close + 1);
    const std::string_view after = authority.substr(close + 1);
    if (!after.empty()) {
      if (after.front() != ':') return std::nullopt;
      port = after.substr(1);
    }
    if (!validIPLiteral(host)) return std::nullopt;
  } else {
    const size_t split = authority.find(':');
    if (split != std::string_view::npos) {
      host = authority.substr(0, split);
      port = authority.substr(split + 1);
    }
    if (!validRegName(host)) return std::nullopt;
  }
  url.host = std::string(host);
  if (port) {
    url.port = parsePort(*port);
    if (!url.port) return std::nullopt;
  }

  // rest: [path] ["?" query] ["#" fragment]
  const size_t hash = rest.find('#');
  if (hash != std::string_view::npos) {
    url.fragment = std::string(rest.substr(hash + 1));
    rest = rest.substr(0, hash);
  }
  const size_t question = rest.find('?');
  if (question != std::string_view::npos) {
    url.query = std::string(rest.substr(question + 1));
    rest = rest.substr(0, question);
  }
  url.path = std::string(rest);
  if (!escapesWellFormed(url.path)) return std::nullopt;
  if (url.query && !escapesWellFormed(*url.query)) return std::nullopt;
  return url;
}

}  // namespace tolvanger
