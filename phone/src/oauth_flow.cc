#include "tolvanger/phone/oauth_flow.h"

#include <curl/curl.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "curl_codes.h"
#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/clock.h"
#include "tolvanger/kit/crypto/digest.h"
#include "tolvanger/kit/curl_memory.h"
#include "tolvanger/kit/random.h"
#include "tolvanger/kit/url.h"

namespace tolvanger::phone {
namespace {

using nlohmann::json;
using Kind = OAuthError::Kind;

constexpr const char* kDeviceGrant =
    "urn:ietf:params:oauth:grant-type:device_code";
// A lifetime beyond this is no lifetime: ten years.
constexpr int64_t kMaxLifetime = 10LL * 365 * 24 * 3600;
// Polling faster than this would hammer the provider; slower than this
// would outlast any code.
constexpr int64_t kMinInterval = 1;
constexpr int64_t kMaxInterval = 600;

std::string base64URL(ByteView data) {
  std::string text = toBase64(data);
  std::replace(text.begin(), text.end(), '+', '-');
  std::replace(text.begin(), text.end(), '/', '_');
  text.erase(std::remove(text.begin(), text.end(), '='), text.end());
  return text;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Decodes one query component: %XX and "+" as a blank. Nothing for a "%"
// without two hex digits after it.
std::optional<std::string> decodeComponent(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '+') {
      out += ' ';
    } else if (c == '%') {
      if (i + 2 >= text.size()) return std::nullopt;
      const int hi = hexValue(text[i + 1]);
      const int lo = hexValue(text[i + 2]);
      if (hi < 0 || lo < 0) return std::nullopt;
      out += static_cast<char>(hi * 16 + lo);
      i += 2;
    } else {
      out += c;
    }
  }
  return out;
}

// The first value of each item of a query, decoded.
std::optional<std::vector<std::pair<std::string, std::string>>> queryItems(
    std::string_view query) {
  std::vector<std::pair<std::string, std::string>> items;
  size_t at = 0;
  while (at <= query.size()) {
    size_t end = query.find('&', at);
    if (end == std::string_view::npos) end = query.size();
    const std::string_view item = query.substr(at, end - at);
    if (!item.empty()) {
      const size_t eq = item.find('=');
      auto name = decodeComponent(item.substr(0, eq));
      auto value = decodeComponent(
          eq == std::string_view::npos ? "" : item.substr(eq + 1));
      if (!name || !value) return std::nullopt;
      items.emplace_back(std::move(*name), std::move(*value));
    }
    at = end + 1;
  }
  return items;
}

const std::string* item(
    const std::vector<std::pair<std::string, std::string>>& items,
    std::string_view name) {
  for (const auto& [key, value] : items) {
    if (key == name) return &value;
  }
  return nullptr;
}

// An integer under `key`, also when written as decimal text, as some
// providers send it.
std::optional<int64_t> integerOrText(const json& object, const char* key) {
  if (const auto number = PhoneJSON::integer(object, key)) return number;
  const std::string* text = PhoneJSON::text(object, key);
  if (!text || text->empty() || text->size() > 12) return std::nullopt;
  int64_t value = 0;
  for (const char c : *text) {
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + (c - '0');
  }
  return value;
}

const std::string* nonEmptyText(const json& object, const char* key) {
  const std::string* text = PhoneJSON::text(object, key);
  return text && !text->empty() ? text : nullptr;
}

// The provider's error in an answer, as OAuthError; nothing when there is
// no "error".
std::optional<OAuthError> errorOf(const json& object,
                                  std::string_view providerName) {
  const auto it = object.find("error");
  if (it == object.end() || it->is_null()) return std::nullopt;
  const std::string code = it->is_string() ? it->get<std::string>() : "error";
  if (code == "invalid_grant") return OAuthError::needsReconnect(providerName);
  const std::string* description = nonEmptyText(object, "error_description");
  return OAuthError(Kind::kProvider, description ? *description : code);
}

// Wipes a string that held a secret when it goes.
struct WipeOnExit {
  std::string& text;
  ~WipeOnExit() { wipe(text); }
};

size_t receive(char* data, size_t size, size_t count, void* user) {
  auto* body = static_cast<std::string*>(user);
  const size_t n = size * count;
  if (body->size() + n > OAuthTokens::kMaxAnswer) return 0;
  body->append(data, n);
  return n;
}

}  // namespace

OAuthError OAuthError::needsReconnect(std::string_view providerName) {
  return OAuthError(
      Kind::kNeedsReconnect,
      "your " + std::string(providerName) + " connection needs reconnecting");
}

// --- PKCE and forms
// -----------------------------------------------------------

std::string PKCE::verifier() {
  Bytes random = Random::bytes(48);
  std::string text = base64URL(random);
  wipe(random);
  return text;
}

std::string PKCE::challenge(std::string_view verifier) {
  const crypto::Digest32 digest = crypto::sha256(asBytes(verifier));
  return base64URL(ByteView(digest.data(), digest.size()));
}

std::string FormEncoding::encode(std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    const bool unreserved = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
                            (c >= '0' && c <= '9') || c == '-' || c == '.' ||
                            c == '_' || c == '~';
    if (unreserved) {
      out += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      out += '%';
      out += kHex[byte >> 4];
      out += kHex[byte & 15];
    }
  }
  return out;
}

std::string FormEncoding::body(
    const std::vector<std::pair<std::string, std::string>>& form) {
  std::string out;
  for (const auto& [name, value] : form) {
    if (!out.empty()) out += '&';
    out += encode(name);
    out += '=';
    out += encode(value);
  }
  return out;
}

// --- Tokens
// ---------------------------------------------------------------------

OAuthTokens::~OAuthTokens() {
  wipe(accessToken);
  if (refreshToken) wipe(*refreshToken);
}

OAuthTokens OAuthTokens::parse(
    std::string_view data, const std::optional<std::string>& previousRefresh,
    int64_t now, std::string_view providerName) {
  if (data.size() > kMaxAnswer) {
    throw OAuthError(Kind::kMalformed, "the token answer was not JSON");
  }
  json object = PhoneJSON::parseObject(data);
  if (!object.is_object()) {
    throw OAuthError(Kind::kMalformed, "the token answer was not JSON");
  }
  if (auto error = errorOf(object, providerName)) throw *error;
  const std::string* access = nonEmptyText(object, "access_token");
  if (!access) {
    throw OAuthError(Kind::kMalformed,
                     "the token answer carried no access token");
  }
  const std::optional<int64_t> lifetime = integerOrText(object, "expires_in");
  if (!lifetime || *lifetime < 0 || *lifetime > kMaxLifetime) {
    throw OAuthError(Kind::kMalformed, "the token answer carried no lifetime");
  }
  OAuthTokens tokens;
  tokens.accessToken = *access;
  tokens.expiresAt = now + *lifetime;
  if (const std::string* refresh = nonEmptyText(object, "refresh_token")) {
    tokens.refreshToken = *refresh;
  } else {
    tokens.refreshToken = previousRefresh;
  }
  if (const std::string* scope = PhoneJSON::text(object, "scope")) {
    tokens.scope = *scope;
  }
  for (const char* key : {"access_token", "refresh_token", "id_token"}) {
    if (auto it = object.find(key); it != object.end() && it->is_string()) {
      wipe(it->get_ref<std::string&>());
    }
  }
  return tokens;
}

json OAuthTokens::toJSON() const {
  json out = {
      {"accessToken", accessToken}, {"expiresAt", expiresAt}, {"scope", scope}};
  if (refreshToken) out["refreshToken"] = *refreshToken;
  return out;
}

std::optional<OAuthTokens> OAuthTokens::fromJSON(const json& value) {
  const std::string* access = PhoneJSON::text(value, "accessToken");
  const std::optional<int64_t> expires = PhoneJSON::integer(value, "expiresAt");
  const std::string* scope = PhoneJSON::text(value, "scope");
  if (!access || !expires || !scope) return std::nullopt;
  OAuthTokens tokens;
  tokens.accessToken = *access;
  tokens.expiresAt = *expires;
  tokens.scope = *scope;
  if (const std::string* refresh = PhoneJSON::text(value, "refreshToken")) {
    tokens.refreshToken = *refresh;
  }
  return tokens;
}

DeviceCode DeviceCode::parse(std::string_view data, int64_t now) {
  const json object = data.size() > OAuthTokens::kMaxAnswer
                          ? json(json::value_t::discarded)
                          : PhoneJSON::parseObject(data);
  if (!object.is_object()) {
    throw OAuthError(Kind::kMalformed, "the device-code answer was not JSON");
  }
  if (auto error = errorOf(object, "")) throw *error;
  const std::string* device = nonEmptyText(object, "device_code");
  const std::string* user = nonEmptyText(object, "user_code");
  if (!device || !user) {
    throw OAuthError(Kind::kMalformed,
                     "the device-code answer carried no code");
  }
  const std::string* page = PhoneJSON::text(object, "verification_uri");
  if (!page) page = PhoneJSON::text(object, "verification_url");
  const auto url = page ? Url::parse(*page) : std::nullopt;
  if (!url || url->scheme != "https") {
    throw OAuthError(Kind::kMalformed,
                     "the device-code answer named no https page");
  }
  const std::optional<int64_t> lifetime = integerOrText(object, "expires_in");
  if (!lifetime || *lifetime <= 0 || *lifetime > kMaxLifetime) {
    throw OAuthError(Kind::kMalformed,
                     "the device-code answer carried no lifetime");
  }
  DeviceCode code;
  code.deviceCode = *device;
  code.userCode = *user;
  code.verificationURL = *page;
  if (const std::string* complete =
          PhoneJSON::text(object, "verification_uri_complete")) {
    if (const auto parsed = Url::parse(*complete);
        parsed && parsed->scheme == "https") {
      code.verificationURLComplete = *complete;
    }
  }
  code.expiresAt = now + *lifetime;
  if (const auto interval = integerOrText(object, "interval")) {
    code.interval = std::clamp<int64_t>(*interval, kMinInterval, kMaxInterval);
  }
  return code;
}

// --- Transport
// ------------------------------------------------------------------

CurlTokenTransport::CurlTokenTransport(std::optional<std::string> caFile)
    : caFile_(std::move(caFile)) {}

HTTPAnswer CurlTokenTransport::post(const FormPost& call) {
  using Code = TransportError::Code;
  initialiseCurl();
  std::unique_ptr<CURL, void (*)(CURL*)> handle(curl_easy_init(),
                                                curl_easy_cleanup);
  if (!handle) throw TransportError(Code::kOther, "curl_easy_init failed");
  CURL* h = handle.get();
  curl_slist* headers = curl_slist_append(nullptr, "Expect:");
  headers = curl_slist_append(
      headers, "content-type: application/x-www-form-urlencoded");
  headers = curl_slist_append(headers, "accept: application/json");
  for (const std::string& header : call.headers) {
    headers = curl_slist_append(headers, header.c_str());
  }
  std::unique_ptr<curl_slist, void (*)(curl_slist*)> headerList(
      headers, curl_slist_free_all);
  if (!headers) throw TransportError(Code::kOther, "curl_slist_append failed");

  HTTPAnswer answer;
  char error[CURL_ERROR_SIZE] = {};
  const long timeout = static_cast<long>(call.timeout.count());
  bool ok = curl_easy_setopt(h, CURLOPT_URL, call.url.c_str()) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "https") == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_SSL_VERIFYPEER, 1L) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_SSL_VERIFYHOST, 2L) == CURLE_OK;
  if (caFile_) {
    ok =
        ok && curl_easy_setopt(h, CURLOPT_CAINFO, caFile_->c_str()) == CURLE_OK;
  }
  // Loopback is never reached through a proxy.
  ok = ok && curl_easy_setopt(h, CURLOPT_NOPROXY, "localhost,127.0.0.1,::1") ==
                 CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 0L) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_TIMEOUT_MS, timeout) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_ERRORBUFFER, error) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, receive) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_WRITEDATA, &answer.body) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_POST, 1L) == CURLE_OK;
  ok = ok &&
       curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE,
                        static_cast<curl_off_t>(call.body.size())) == CURLE_OK;
  ok = ok &&
       curl_easy_setopt(h, CURLOPT_POSTFIELDS, call.body.data()) == CURLE_OK;
  if (!ok) throw TransportError(Code::kOther, "curl refused an option");
  const CURLcode result = curl_easy_perform(h);
  if (result == CURLE_WRITE_ERROR) {
    wipe(answer.body);
    throw TransportError(
        Code::kOther, "the provider's answer was larger than " +
                          std::to_string(OAuthTokens::kMaxAnswer) + " bytes");
  }
  if (result != CURLE_OK) {
    wipe(answer.body);
    long osError = 0;
    curl_easy_getinfo(h, CURLINFO_OS_ERRNO, &osError);
    throw TransportError(transportCodeFor(result, osError),
                         error[0] != '\0' ? error : curl_easy_strerror(result));
  }
  curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &answer.status);
  return answer;
}

// --- The flow
// ---------------------------------------------------------------------

OAuthFlow::OAuthFlow(OAuthProvider provider, std::string clientID,
                     std::shared_ptr<TokenEndpointTransport> transport,
                     Clock clock, Sleep sleep)
    : provider_(std::move(provider)),
      clientID_(std::move(clientID)),
      transport_(transport ? std::move(transport)
                           : std::make_shared<CurlTokenTransport>()),
      clock_(clock ? std::move(clock) : Clock(SystemClock::seconds)),
      sleep_(sleep ? std::move(sleep) : Sleep([](int64_t seconds) {
        std::this_thread::sleep_for(std::chrono::seconds(seconds));
      })) {}

std::string OAuthFlow::redirectURI() const {
  return provider_.redirect.uri(clientID_, provider_.id);
}

std::string OAuthFlow::authorizationURL(
    std::string_view state, std::string_view verifier,
    const std::vector<std::string>& scopes) const {
  std::string scope;
  for (const std::string& s : scopes) {
    if (!scope.empty()) scope += ' ';
    scope += s;
  }
  std::vector<std::pair<std::string, std::string>> items = {
      {"response_type", "code"},
      {"client_id", clientID_},
      {"redirect_uri", redirectURI()},
      {"scope", scope},
      {"state", std::string(state)},
      {"code_challenge", PKCE::challenge(verifier)},
      {"code_challenge_method", "S256"},
  };
  for (const auto& extra : provider_.authorizationExtras) {
    items.push_back(extra);
  }
  std::string url = provider_.authorizationURL;
  url += url.find('?') == std::string::npos ? '?' : '&';
  url += FormEncoding::body(items);
  return url;
}

std::string OAuthFlow::code(std::string_view url, std::string_view state) {
  if (url.size() > kMaxCallback) {
    throw OAuthError(Kind::kMalformed, "the callback is too long to be one");
  }
  const size_t mark = url.find('?');
  std::string_view query =
      mark == std::string_view::npos ? "" : url.substr(mark + 1);
  query = query.substr(0, query.find('#'));
  const auto items = queryItems(query);
  if (!items) {
    throw OAuthError(Kind::kMalformed, "the callback is not a readable URL");
  }
  if (item(*items, "error")) {
    const std::string* description = item(*items, "error_description");
    throw OAuthError(Kind::kDenied, description && !description->empty()
                                        ? *description
                                        : "You declined the sign-in.");
  }
  const std::string* given = item(*items, "state");
  if (!given || !constantTimeEqual(*given, state)) {
    throw OAuthError(Kind::kMalformed, "the callback is not this attempt's");
  }
  const std::string* code = item(*items, "code");
  if (!code || code->empty()) {
    throw OAuthError(Kind::kMalformed, "the callback carried no code");
  }
  return *code;
}

std::string OAuthFlow::post(
    const std::string& url,
    std::vector<std::pair<std::string, std::string>> form) const {
  FormPost call;
  call.url = url;
  if (provider_.clientAuth == ClientAuth::kForm) {
    form.emplace_back("client_id", clientID_);
  } else {
    const std::string pair = clientID_ + ":";
    call.headers.push_back("authorization: Basic " + toBase64(asBytes(pair)));
  }
  call.body = FormEncoding::body(form);
  for (auto& [name, value] : form) wipe(value);
  WipeOnExit wipeBody{call.body};
  HTTPAnswer answer = transport_->post(call);
  return std::move(answer.body);
}

OAuthTokens OAuthFlow::exchange(std::string_view code,
                                std::string_view verifier) const {
  std::string body =
      post(provider_.tokenURL, {{"grant_type", "authorization_code"},
                                {"code", std::string(code)},
                                {"redirect_uri", redirectURI()},
                                {"code_verifier", std::string(verifier)}});
  WipeOnExit wipeBody{body};
  return OAuthTokens::parse(body, std::nullopt, clock_(), provider_.name);
}

OAuthTokens OAuthFlow::refresh(const OAuthTokens& tokens) const {
  if (!tokens.refreshToken) {
    throw OAuthError(Kind::kNeedsReconnect, "no refresh token was issued");
  }
  std::string body =
      post(provider_.tokenURL, {{"grant_type", "refresh_token"},
                                {"refresh_token", *tokens.refreshToken}});
  WipeOnExit wipeBody{body};
  return OAuthTokens::parse(body, tokens.refreshToken, clock_(),
                            provider_.name);
}

DeviceCode OAuthFlow::deviceCode(const std::vector<std::string>& scopes) const {
  if (provider_.grant.kind != Grant::Kind::kDevice) {
    throw OAuthError(Kind::kMalformed,
                     provider_.name + " does not use the device flow");
  }
  std::string scope;
  for (const std::string& s : scopes) {
    if (!scope.empty()) scope += ' ';
    scope += s;
  }
  // The device endpoint always takes the client id in the form.
  FormPost call;
  call.url = provider_.grant.deviceURL;
  call.body = FormEncoding::body({{"client_id", clientID_}, {"scope", scope}});
  std::string body = transport_->post(call).body;
  WipeOnExit wipeBody{body};
  return DeviceCode::parse(body, clock_());
}

OAuthTokens OAuthFlow::waitForDevice(const DeviceCode& code) const {
  int64_t interval = code.interval;
  while (true) {
    if (clock_() > code.expiresAt) {
      throw OAuthError(Kind::kDenied,
                       "The code expired before it was entered. Start "
                       "again.");
    }
    sleep_(interval);
    std::string body =
        post(provider_.tokenURL,
             {{"grant_type", kDeviceGrant}, {"device_code", code.deviceCode}});
    WipeOnExit wipeBody{body};
    DevicePoll poll = devicePoll(body, clock_(), provider_.name);
    switch (poll.kind) {
      case DevicePoll::Kind::kTokens:
        return std::move(*poll.tokens);
      case DevicePoll::Kind::kWaiting:
        break;
      case DevicePoll::Kind::kSlower:
        interval = std::min(interval + 5, kMaxInterval);
        break;
    }
  }
}

DevicePoll OAuthFlow::devicePoll(std::string_view data, int64_t now,
                                 std::string_view providerName) {
  const json object = data.size() > OAuthTokens::kMaxAnswer
                          ? json(json::value_t::discarded)
                          : PhoneJSON::parseObject(data);
  if (object.is_object()) {
    if (const std::string* error = PhoneJSON::text(object, "error")) {
      if (*error == "authorization_pending")
        return {DevicePoll::Kind::kWaiting};
      if (*error == "slow_down") return {DevicePoll::Kind::kSlower};
      if (*error == "expired_token") {
        throw OAuthError(Kind::kDenied,
                         "The code expired before it was entered. Start "
                         "again.");
      }
      if (*error == "access_denied") {
        throw OAuthError(Kind::kDenied, "You declined the sign-in.");
      }
    }
  }
  return {DevicePoll::Kind::kTokens,
          OAuthTokens::parse(data, std::nullopt, now, providerName)};
}

}  // namespace tolvanger::phone
