// One provider's sign-in as the phone runs it, independent of any screen.
//
// `OAuthFlow` builds the authorisation URL (PKCE with S256), reads the code
// from the callback, exchanges it, refreshes tokens, and runs the device
// flow. Every call to the provider is a form POST through a
// `TokenEndpointTransport`; `CurlTokenTransport` is the real one: https only,
// certificate and host name verified, optionally against an extra CA file.
// What a sign-in yields, `OAuthTokens`, becomes a secret in the phone's
// vault (see token_vault.h).
//
// Failures are `OAuthError`: denied, malformed, provider or needs-reconnect,
// each with the sentence the person reads (through Failures::of); failures
// of the transport pass on as TransportError.
//
// Thread safety: `OAuthFlow` keeps no state between calls; one flow may be
// used from several threads at once when its transport, clock and sleep
// may. The parsers are pure functions.
#ifndef TOLVANGER_PHONE_OAUTH_FLOW_H_
#define TOLVANGER_PHONE_OAUTH_FLOW_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tolvanger/phone/oauth_catalogue.h"
#include "tolvanger/phone/phone_client.h"

namespace tolvanger::phone {

class OAuthError : public std::runtime_error {
 public:
  enum class Kind { kDenied, kMalformed, kProvider, kNeedsReconnect };

  OAuthError(Kind kind, std::string description)
      : std::runtime_error(std::move(description)), kind_(kind) {}
  Kind kind() const { return kind_; }

  // "your <provider name> connection needs reconnecting".
  static OAuthError needsReconnect(std::string_view providerName);

 private:
  Kind kind_;
};

// Proof Key for Code Exchange.
namespace PKCE {
// 48 random bytes in URL-safe base64 without padding: 64 characters.
std::string verifier();
// SHA-256 of the verifier in URL-safe base64 without padding.
std::string challenge(std::string_view verifier);
}  // namespace PKCE

// application/x-www-form-urlencoded with RFC 3986 unreserved characters
// kept and every other byte written %XX (upper-case hex).
namespace FormEncoding {
std::string encode(std::string_view text);
// "k=v&k=v" of the pairs in order, each side encoded.
std::string body(const std::vector<std::pair<std::string, std::string>>& form);
}  // namespace FormEncoding

struct OAuthTokens {
  std::string accessToken;
  std::optional<std::string> refreshToken;
  // Whole seconds since 1970.
  int64_t expiresAt = 0;
  std::string scope;

  // Token answers larger than this are refused unread.
  static constexpr size_t kMaxAnswer = 64 << 10;

  // Reads a token endpoint's answer. Throws OAuthError: malformed for an
  // answer that is no JSON object, has no access token or no lifetime;
  // needsReconnect (naming `providerName`) for "invalid_grant"; provider
  // with the description or code of any other error. A missing refresh
  // token keeps `previousRefresh`.
  static OAuthTokens parse(std::string_view data,
                           const std::optional<std::string>& previousRefresh,
                           int64_t now, std::string_view providerName = "");

  // {"accessToken", "refreshToken" (when present), "expiresAt", "scope"}.
  nlohmann::json toJSON() const;
  // Nothing when a field is missing or of another type.
  static std::optional<OAuthTokens> fromJSON(const nlohmann::json& value);

  OAuthTokens() = default;
  OAuthTokens(const OAuthTokens&) = default;
  OAuthTokens(OAuthTokens&&) = default;
  OAuthTokens& operator=(const OAuthTokens&) = default;
  OAuthTokens& operator=(OAuthTokens&&) = default;
  // Wipes both tokens.
  ~OAuthTokens();
};

struct DeviceCode {
  std::string deviceCode;
  std::string userCode;
  std::string verificationURL;
  // The page with the code already filled in, when the provider gives one.
  std::optional<std::string> verificationURLComplete;
  int64_t expiresAt = 0;
  // Seconds between polls; 5 when the answer gives none.
  int64_t interval = 5;

  // Throws OAuthError::malformed with the sentence for what is missing, or
  // the provider's error as OAuthTokens::parse would.
  static DeviceCode parse(std::string_view data, int64_t now);
};

struct DevicePoll {
  enum class Kind { kTokens, kWaiting, kSlower };
  Kind kind = Kind::kWaiting;
  std::optional<OAuthTokens> tokens;
};

// One form POST to a provider.
struct FormPost {
  std::string url;
  // Extra headers besides content-type and accept, "name: value".
  std::vector<std::string> headers;
  // The encoded form; wiped by the flow after the call.
  std::string body;
  std::chrono::milliseconds timeout{30000};
};

class TokenEndpointTransport {
 public:
  virtual ~TokenEndpointTransport() = default;
  // Sends the POST with content-type application/x-www-form-urlencoded and
  // accept application/json. Any HTTP status is an answer; failures below
  // HTTP throw TransportError.
  virtual HTTPAnswer post(const FormPost& call) = 0;
};

// libcurl over https only: the peer's certificate and name are verified
// (against `caFile` when given, else the system's store), no redirects are
// followed, and an answer larger than OAuthTokens::kMaxAnswer is refused.
class CurlTokenTransport final : public TokenEndpointTransport {
 public:
  explicit CurlTokenTransport(std::optional<std::string> caFile = {});
  HTTPAnswer post(const FormPost& call) override;

 private:
  std::optional<std::string> caFile_;
};

class OAuthFlow {
 public:
  using Clock = std::function<int64_t()>;
  using Sleep = std::function<void(int64_t seconds)>;

  // A flow for `provider` (hosts filled in) registered as `clientID`. Null
  // clock and sleep mean the system's.
  OAuthFlow(OAuthProvider provider, std::string clientID,
            std::shared_ptr<TokenEndpointTransport> transport,
            Clock clock = nullptr, Sleep sleep = nullptr);

  const OAuthProvider& provider() const { return provider_; }
  const std::string& clientID() const { return clientID_; }
  std::string redirectURI() const;

  // The provider's authorisation URL with response_type, client_id,
  // redirect_uri, scope (joined by one space), state, code_challenge and
  // code_challenge_method, in that order, then the provider's extras.
  std::string authorizationURL(std::string_view state,
                               std::string_view verifier,
                               const std::vector<std::string>& scopes) const;

  // Callback URLs longer than this are refused unread.
  static constexpr size_t kMaxCallback = 16 << 10;
  // The code of a callback URL. Throws OAuthError: denied when it carries
  // an error, malformed when its state is not `state` or it has no code.
  static std::string code(std::string_view url, std::string_view state);

  OAuthTokens exchange(std::string_view code, std::string_view verifier) const;
  // Throws OAuthError when `tokens` has no refresh token or the provider
  // refuses; keeps the old refresh token when no new one comes.
  OAuthTokens refresh(const OAuthTokens& tokens) const;

  DeviceCode deviceCode(const std::vector<std::string>& scopes) const;
  // Polls until the person has entered the code, sleeping the interval
  // before each poll and five seconds more after each "slow_down". Throws
  // OAuthError::denied when the code expires or the person declines.
  OAuthTokens waitForDevice(const DeviceCode& code) const;
  // One poll's answer read.
  static DevicePoll devicePoll(std::string_view data, int64_t now,
                               std::string_view providerName = "");

 private:
  // POSTs `form` (client_id added or sent as Basic as the provider wants)
  // and returns the answer's body; wipes the form.
  std::string post(const std::string& url,
                   std::vector<std::pair<std::string, std::string>> form) const;

  OAuthProvider provider_;
  std::string clientID_;
  std::shared_ptr<TokenEndpointTransport> transport_;
  Clock clock_;
  Sleep sleep_;
};

}  // namespace tolvanger::phone

#endif  // TOLVANGER_PHONE_OAUTH_FLOW_H_
