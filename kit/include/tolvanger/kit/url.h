// An absolute URL split into its parts exactly as written.
//
// `Url::parse` never decodes, re-encodes, lower-cases or resolves anything:
// what the person is shown, what is signed and what goes on the wire are the
// same characters. It only refuses what it cannot split.
//
// Thread safety: a plain value and a pure function; no shared state.
#ifndef TOLVANGER_KIT_URL_H_
#define TOLVANGER_KIT_URL_H_

#include <optional>
#include <string>
#include <string_view>

namespace tolvanger {

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

}  // namespace tolvanger

#endif  // TOLVANGER_KIT_URL_H_
