// Signing in to a web site on the phone, for sites that have no API key and
// only a browser login. An agent asks; the phone opens the site, the person
// signs in, and the session's cookies are kept on the phone as a secret of
// kind "cookie". This is the logic both sides share: which addresses and
// names a sign-in may use, when the page is ready to be kept, and how the
// cookie store's cookies become one `cookie` header.
//
// Thread safety: plain values and pure functions; no shared state.
#ifndef TOLVANGER_KIT_SIGN_IN_H_
#define TOLVANGER_KIT_SIGN_IN_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace tolvanger {

// A sign-in request as the phone reads it: the address to open, its host
// (lower-cased) and the name the session is to be kept under.
struct SignInAsk {
  std::string site;
  std::string host;
  std::string secret;

  bool operator==(const SignInAsk&) const = default;
};

namespace SignIn {

// The operation name of a sign-in request.
inline constexpr std::string_view kOperation = "site.signin";
// The life of a sign-in request, in seconds.
inline constexpr int64_t kWindow = 600;

// The host of an address a sign-in may open, lower-cased. The address must be
// https, carry no user or password, name no port other than 443, and hold no
// blank or control character; the host must hold a ".", not begin with one,
// and use only a-z, 0-9, "-" and ".". Nothing for anything else.
std::optional<std::string> host(std::string_view url);

// True for a name a kept session can have: 1 to 64 characters, the first a
// lower-case letter or digit, the rest lower-case letters, digits, "-", "."
// or "_".
bool isName(std::string_view text);

// The host itself as a name, when it is one by `isName`.
std::optional<std::string> defaultName(std::string_view host);

// True when two hosts belong together: equal, one a subdomain of the other,
// or the same registrable site (the last two labels).
bool related(std::string_view a, std::string_view b);

// How far the sign-in page has come, and whether it may be kept.
struct Readiness {
  enum class Kind {
    kElsewhere,  // the browser has wandered to an unrelated host
    kLoading,    // the page has not settled
    kUnsavable,  // there is no page to keep
    kForm,       // a login form is still on the page
    kUntouched,  // no new session has been marked since the page opened
    kReady,
  };

  Kind kind = Kind::kUnsavable;
  // The host the browser is on, for kElsewhere; empty otherwise.
  std::string host;

  // True when the phone may let the person keep the session anyway, after a
  // word of warning: kElsewhere, kForm and kUntouched.
  bool anyway() const;

  bool operator==(const Readiness&) const = default;
};

// Judges the page. `origin` is the host the sign-in asked for; `current` the
// host the browser shows (nothing or empty when there is none); `settled`
// whether loading has finished; `form` whether a login form is still on the
// page; `newSession` whether the server has marked a session since the page
// opened (see `serverMarks`).
Readiness readiness(std::string_view origin,
                    const std::optional<std::string>& current, bool settled,
                    bool form, bool newSession);

// One cookie from the browser's cookie store. `value` is a secret.
struct Cookie {
  std::string name;
  std::string value;
  std::string domain;  // as the store gives it, a leading "." allowed
  std::string path;
  std::optional<int64_t> expires;  // whole seconds; nothing for a session
  bool httpOnly = false;
};

// The names of the HttpOnly cookies. Page script cannot set these, so a new
// one means the server has marked a session; the phone compares two readings
// to decide `newSession`.
std::set<std::string> serverMarks(const std::vector<Cookie>& cookies);

// A site session as one header.
struct Session {
  // The value of a `cookie` header. It is the session itself: the caller
  // wipes it (tolvanger::wipe) when done.
  std::string header;
  // The number of cookies in it.
  size_t count = 0;
  // The latest expiry among them, whole seconds; nothing when every one of
  // them lasts only as long as the browser session.
  std::optional<int64_t> expiresBy;
};

// The session for `host` at `now` (whole seconds): the cookies whose domain
// is the host or a parent of it at a label boundary, not expired, with a
// name that is not empty, and with no ";", NUL or line-breaking character in
// name or value; longer paths first, paths of one length by name, joined as
// "name=value" with "; ". Nothing when no cookie is left.
std::optional<Session> session(const std::vector<Cookie>& cookies,
                               std::string_view host, int64_t now);

}  // namespace SignIn

}  // namespace tolvanger

#endif  // TOLVANGER_KIT_SIGN_IN_H_
