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
  // Nothing when it has no scheme or no "//" authority; a host that is
  // neither letters, digits, "-", ".", "_" and "~" nor a bracketed IPv6
  // literal (escapes and zone identifiers included); a port that is not 1 to
  // 65535 in decimal without a leading zero, or is empty; more than one "@"
  // or a user part with characters a user part may not hold; or a "%" in the
  // user part, path or query without two hexadecimal digits after it. Blanks,
  // control characters and bytes beyond ASCII in the path and query are left
  // in place for the caller to judge.
  static std::optional<Url> parse(std::string_view text);
};

}  // namespace tolvanger

#endif  // TOLVANGER_KIT_URL_H_
