#include "tolvanger/phone/phone_client.h"

#include <curl/curl.h>
#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <cerrno>
#include <limits>
#include <utility>

#include "curl_codes.h"
#include "tolvanger/kit/clock.h"
#include "tolvanger/kit/cloud_store.h"
#include "tolvanger/kit/curl_memory.h"
#include "tolvanger/kit/ids.h"
#include "tolvanger/phone/oauth_flow.h"

namespace tolvanger::phone {

using nlohmann::json;

namespace {

struct Sink {
  std::string* body;
  size_t cap;
  bool overflowed = false;
};

size_t receive(char* data, size_t size, size_t count, void* user) {
  auto* sink = static_cast<Sink*>(user);
  const size_t n = size * count;
  if (n > sink->cap - sink->body->size()) {
    sink->overflowed = true;
    return 0;  // aborts the transfer
  }
  sink->body->append(data, n);
  return n;
}

std::string joinURL(std::string_view base, std::string_view path) {
  while (!base.empty() && base.back() == '/') base.remove_suffix(1);
  std::string url(base);
  url += path;
  return url;
}

bool isTrimmable(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' ||
         c == '\f';
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && isTrimmable(text.front())) text.remove_prefix(1);
  while (!text.empty() && isTrimmable(text.back())) text.remove_suffix(1);
  return text;
}

// `text` with its first character upper-cased by Unicode's simple mapping.
std::string upperFirst(std::string_view text) {
  int32_t offset = 0;
  UChar32 first = 0;
  U8_NEXT(reinterpret_cast<const uint8_t*>(text.data()), offset,
          static_cast<int32_t>(text.size()), first);
  if (first < 0) return std::string(text);
  uint8_t buffer[U8_MAX_LENGTH];
  int32_t length = 0;
  UBool failed = false;
  U8_APPEND(buffer, length, U8_MAX_LENGTH, u_toupper(first), failed);
  if (failed) return std::string(text);
  std::string out(reinterpret_cast<const char*>(buffer),
                  static_cast<size_t>(length));
  out += text.substr(static_cast<size_t>(offset));
  return out;
}

bool containsFolded(std::string_view haystack, std::string_view needle) {
  std::string lower(haystack);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return lower.find(needle) != std::string::npos;
}

std::string requestSentence(const RequestError& error) {
  switch (error.kind()) {
    case RequestError::Kind::kMalformed:
      return "The daemon sent a request this app cannot read.";
    case RequestError::Kind::kDaemon:
    case RequestError::Kind::kUnreachable:
      return Failures::finish(error.what());
    case RequestError::Kind::kNotCanonical:
      return "This request was rewritten on the way here. Nothing was "
             "signed.";
    case RequestError::Kind::kDigestMismatch:
      return "The daemon's digest is not the one these bytes hash to. "
             "Nothing was signed.";
    case RequestError::Kind::kNotFromMyDaemon:
      return "This request is not signed by the Mac this phone paired with. "
             "Nothing was signed.";
    case RequestError::Kind::kExpired:
      return "This request has expired.";
  }
  return "Something went wrong.";
}

std::string transportSentence(TransportError::Code code) {
  using Code = TransportError::Code;
  switch (code) {
    case Code::kInsecureNotAllowed:
      return "iOS will not allow plain http to that address. Use the Mac's "
             "local network address.";
    case Code::kCannotFindHost:
      return "Nothing on the network answers to that name.";
    case Code::kCannotConnectToHost:
      return "Nothing is listening there. The daemon is probably not "
             "running.";
    case Code::kTimedOut:
      return "The daemon did not answer. This phone is most likely on the "
             "wrong network.";
    case Code::kNetworkConnectionLost:
    case Code::kNotConnectedToInternet:
      return "This phone is off the network.";
    case Code::kBadURL:
    case Code::kUnsupportedURL:
      return "That is not an address this phone can use.";
    case Code::kCancelled:
      return "The request was cancelled.";
    case Code::kOther:
      break;
  }
  return "Could not reach the daemon.";
}

json withTiming(json body,
                std::optional<std::chrono::system_clock::time_point> drawnAt,
                DrawnFrom drawnFrom) {
  body.update(AnswerStamps::of(drawnAt, drawnFrom));
  return body;
}

}  // namespace

TransportError::Code transportCodeFor(CURLcode code, long osError) {
  using Code = TransportError::Code;
  switch (code) {
    case CURLE_UNSUPPORTED_PROTOCOL:
      return Code::kUnsupportedURL;
    case CURLE_URL_MALFORMAT:
      return Code::kBadURL;
    case CURLE_COULDNT_RESOLVE_HOST:
      return Code::kCannotFindHost;
    case CURLE_COULDNT_CONNECT:
      return osError == ENETUNREACH ? Code::kNotConnectedToInternet
                                    : Code::kCannotConnectToHost;
    case CURLE_OPERATION_TIMEDOUT:
      return Code::kTimedOut;
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
      return Code::kNetworkConnectionLost;
    case CURLE_ABORTED_BY_CALLBACK:
      return Code::kCancelled;
    default:
      return Code::kOther;
  }
}

namespace PhoneJSON {

const std::string* text(const json& object, const char* key) {
  if (!object.is_object()) return nullptr;
  const auto it = object.find(key);
  if (it == object.end() || !it->is_string()) return nullptr;
  return &it->get_ref<const std::string&>();
}

std::optional<int64_t> integer(const json& object, const char* key) {
  if (!object.is_object()) return std::nullopt;
  const auto it = object.find(key);
  if (it == object.end()) return std::nullopt;
  if (it->is_number_unsigned()) {
    const uint64_t value = it->get<uint64_t>();
    if (value > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
      return std::nullopt;
    }
    return static_cast<int64_t>(value);
  }
  if (it->is_number_integer()) return it->get<int64_t>();
  return std::nullopt;
}

json parseObject(std::string_view text) {
  constexpr int kMaxDepth = 64;
  bool deep = false;
  json::parser_callback_t limit = [&deep](int depth, json::parse_event_t,
                                          json&) {
    if (depth <= kMaxDepth) return true;
    deep = true;
    return false;
  };
  json parsed = json::parse(text.begin(), text.end(), limit, false);
  if (deep || !parsed.is_object()) return json(json::value_t::discarded);
  return parsed;
}

std::string dump(const json& value) {
  return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

}  // namespace PhoneJSON

CurlTransport::CurlTransport(size_t maxBody) : maxBody_(maxBody) {}

HTTPAnswer CurlTransport::send(const HTTPCall& call) {
  using Code = TransportError::Code;
  initialiseCurl();
  std::unique_ptr<CURL, void (*)(CURL*)> handle(curl_easy_init(),
                                                curl_easy_cleanup);
  if (!handle) throw TransportError(Code::kOther, "curl_easy_init failed");
  CURL* h = handle.get();

  HTTPAnswer answer;
  Sink sink{&answer.body, maxBody_};
  char error[CURL_ERROR_SIZE] = {};
  // "Expect:" stops curl from waiting for a 100 Continue that the listener
  // never sends.
  curl_slist* headers = curl_slist_append(nullptr, "Expect:");
  headers = curl_slist_append(headers, "accept: application/json");
  if (call.body) {
    headers = curl_slist_append(headers, "content-type: application/json");
  }
  std::unique_ptr<curl_slist, void (*)(curl_slist*)> headerList(
      headers, curl_slist_free_all);
  if (!headers) throw TransportError(Code::kOther, "curl_slist_append failed");

  const long timeout = static_cast<long>(call.timeout.count());
  bool ok = curl_easy_setopt(h, CURLOPT_URL, call.url.c_str()) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http") == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_NOPROXY, "*") == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 0L) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_TIMEOUT_MS, timeout) == CURLE_OK;
  ok =
      ok && curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT_MS, timeout) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_FORBID_REUSE, 1L) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_ERRORBUFFER, error) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, receive) == CURLE_OK;
  ok = ok && curl_easy_setopt(h, CURLOPT_WRITEDATA, &sink) == CURLE_OK;
  if (call.body) {
    // POSTFIELDS does not copy: the caller's buffer is the only one, so a
    // caller that wipes it leaves no copy here.
    ok = ok && curl_easy_setopt(h, CURLOPT_POST, 1L) == CURLE_OK;
    ok = ok && curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE,
                                static_cast<curl_off_t>(call.body->size())) ==
                   CURLE_OK;
    ok = ok &&
         curl_easy_setopt(h, CURLOPT_POSTFIELDS, call.body->data()) == CURLE_OK;
  } else {
    ok = ok && curl_easy_setopt(h, CURLOPT_HTTPGET, 1L) == CURLE_OK;
  }
  if (!ok) throw TransportError(Code::kOther, "curl refused an option");

  const CURLcode result = curl_easy_perform(h);
  if (sink.overflowed) {
    throw TransportError(Code::kOther, "the answer was larger than " +
                                           std::to_string(maxBody_) + " bytes");
  }
  if (result != CURLE_OK) {
    long osError = 0;
    curl_easy_getinfo(h, CURLINFO_OS_ERRNO, &osError);
    throw TransportError(transportCodeFor(result, osError),
                         error[0] != '\0' ? error : curl_easy_strerror(result));
  }
  curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &answer.status);
  return answer;
}

namespace AnswerStamps {

std::string_view name(DrawnFrom from) {
  switch (from) {
    case DrawnFrom::kPush:
      return "push";
    case DrawnFrom::kCloud:
      return "cloud";
    case DrawnFrom::kPoll:
      return "poll";
  }
  return "poll";
}

int64_t milliseconds(std::chrono::system_clock::time_point at) {
  using namespace std::chrono;
  return round<std::chrono::milliseconds>(at.time_since_epoch()).count();
}

json of(std::optional<std::chrono::system_clock::time_point> drawnAt,
        DrawnFrom from) {
  json timing = {{"posted_at", milliseconds(std::chrono::system_clock::now())},
                 {"source", name(from)}};
  if (drawnAt) timing["drawn_at"] = milliseconds(*drawnAt);
  return json{{"timing", std::move(timing)}};
}

}  // namespace AnswerStamps

std::optional<Nudge> Nudge::from(const json& object) {
  const std::string* id = PhoneJSON::text(object, "id");
  const std::string* kind = PhoneJSON::text(object, "kind");
  const std::optional<int64_t> expiresAt =
      PhoneJSON::integer(object, "expires_at");
  if (id == nullptr || kind == nullptr || !expiresAt) return std::nullopt;
  return Nudge{*id, *kind, *expiresAt};
}

std::optional<OpenAllowance> OpenAllowance::from(const json& object,
                                                 int64_t now) {
  const std::string* requestID = PhoneJSON::text(object, "request_id");
  const std::string* name = PhoneJSON::text(object, "name");
  const std::string* client = PhoneJSON::text(object, "client");
  const std::optional<int64_t> left =
      PhoneJSON::integer(object, "seconds_left");
  if (requestID == nullptr || name == nullptr || client == nullptr || !left) {
    return std::nullopt;
  }
  OpenAllowance allowance{*requestID, *name, *client, now + *left, 0};
  if (const auto uses = PhoneJSON::integer(object, "uses")) {
    allowance.uses = *uses;
  }
  return allowance;
}

int64_t OpenAllowance::secondsLeft(int64_t now) const {
  return until > now ? until - now : 0;
}

PendingList PendingList::from(const json& answer, int64_t now) {
  PendingList list;
  if (!answer.is_object()) return list;
  if (const auto it = answer.find("pending");
      it != answer.end() && it->is_array()) {
    for (const json& row : *it) {
      const std::string* id = PhoneJSON::text(row, "request_id");
      const std::optional<int64_t> expiresAt =
          PhoneJSON::integer(row, "expires_at");
      if (id != nullptr && expiresAt) list.rows.push_back({*id, *expiresAt});
    }
  }
  if (const auto it = answer.find("nudge"); it != answer.end()) {
    list.nudge = Nudge::from(*it);
  }
  if (const auto it = answer.find("allowances");
      it != answer.end() && it->is_array()) {
    list.allowances.emplace();
    for (const json& item : *it) {
      if (auto allowance = OpenAllowance::from(item, now)) {
        list.allowances->push_back(*std::move(allowance));
      }
    }
  }
  return list;
}

DaemonClient::DaemonClient(std::string base, std::chrono::milliseconds timeout,
                           std::shared_ptr<HTTPTransport> transport)
    : base_(std::move(base)),
      timeout_(timeout),
      transport_(transport ? std::move(transport)
                           : std::make_shared<CurlTransport>()) {}

std::optional<std::string> DaemonClient::baseFor(std::string_view address) {
  const std::string_view text = trimmed(address);
  if (text.empty()) return std::nullopt;
  std::string url(text);
  if (url.find("://") == std::string::npos) url = "http://" + url;
  std::unique_ptr<CURLU, void (*)(CURLU*)> parsed(curl_url(), curl_url_cleanup);
  if (!parsed || curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(),
                              CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK) {
    return std::nullopt;
  }
  return url;
}

std::optional<DaemonClient> DaemonClient::atAddress(
    std::string_view address, std::chrono::milliseconds timeout,
    std::shared_ptr<HTTPTransport> transport) {
  std::optional<std::string> base = baseFor(address);
  if (!base) return std::nullopt;
  return DaemonClient(*std::move(base), timeout, std::move(transport));
}

json DaemonClient::call(std::string_view path,
                        const std::optional<json>& body) const {
  HTTPCall request{body ? "POST" : "GET", joinURL(base_, path), std::nullopt,
                   timeout_};
  if (body) request.body = PhoneJSON::dump(*body);
  HTTPAnswer answer;
  try {
    answer = transport_->send(request);
  } catch (...) {
    if (request.body) wipe(*request.body);
    throw;
  }
  // The body may have carried the device's secret.
  if (request.body) wipe(*request.body);

  const json parsed = PhoneJSON::parseObject(answer.body);
  if (!parsed.is_object()) {
    throw RequestError::daemon("the daemon sent something unreadable");
  }
  if (const auto ok = parsed.find("ok");
      ok != parsed.end() && ok->is_boolean() && ok->get<bool>()) {
    return parsed;
  }
  if (const std::string* error = PhoneJSON::text(parsed, "error")) {
    throw RequestError::daemon(*error);
  }
  throw RequestError::daemon("the daemon refused (" +
                             std::to_string(answer.status) + ")");
}

Health DaemonClient::health() const {
  const json answer = call("/v1/health", std::nullopt);
  Health health;
  if (const std::string* id = PhoneJSON::text(answer, "daemon_id")) {
    health.daemonID = *id;
  }
  if (const std::string* host = PhoneJSON::text(answer, "host")) {
    health.host = *host;
  }
  health.version = PhoneJSON::integer(answer, "version").value_or(0);
  if (const auto it = answer.find("cloud");
      it != answer.end() && it->is_boolean()) {
    health.cloud = it->get<bool>();
  }
  return health;
}

PendingList DaemonClient::pending() const {
  return PendingList::from(call("/v1/pending", std::nullopt),
                           SystemClock::seconds());
}

TolvangerRequest DaemonClient::request(
    std::string_view id, ByteView pinnedDaemonSPKI,
    const std::optional<Bytes>& pinnedDaemonPQ) const {
  if (!Ids::isID(id)) throw RequestError::malformed("that is not a request id");
  const json answer = call("/v1/request/" + std::string(id), std::nullopt);
  return TolvangerRequest::fromDaemon(answer, pinnedDaemonSPKI, pinnedDaemonPQ);
}

json DaemonClient::approve(
    const TolvangerRequest& request, std::string_view deviceID,
    ByteView signature, std::optional<ByteView> pqSignature,
    std::optional<std::chrono::system_clock::time_point> drawnAt,
    DrawnFrom drawnFrom, const std::optional<json>& credential) const {
  json body = {{"request_id", request.requestID},
               {"device_id", deviceID},
               {"digest", request.digest},
               {"signature", toBase64(signature)}};
  if (pqSignature) body["signature_pq"] = toBase64(*pqSignature);
  if (credential) body["credential"] = *credential;
  return call("/v1/approve", withTiming(std::move(body), drawnAt, drawnFrom));
}

json DaemonClient::deny(
    std::string_view requestID,
    std::optional<std::chrono::system_clock::time_point> drawnAt,
    DrawnFrom drawnFrom) const {
  return call("/v1/deny",
              withTiming(json{{"request_id", requestID}}, drawnAt, drawnFrom));
}

void DaemonClient::nudgeSeen(std::string_view id, std::string_view deviceID,
                             std::string_view deviceSecret) const {
  json body = {
      {"id", id}, {"device_id", deviceID}, {"device_secret", deviceSecret}};
  try {
    call("/v1/nudge/seen", body);
  } catch (...) {
    wipe(body["device_secret"].get_ref<std::string&>());
    throw;
  }
  wipe(body["device_secret"].get_ref<std::string&>());
}

namespace Failures {

std::string finish(std::string_view text) {
  const std::string_view core = trimmed(text);
  if (core.empty()) return "The daemon refused.";
  std::string sentence = upperFirst(core);
  if (sentence.back() != '.') sentence += '.';
  return sentence;
}

Failure signing(const SignerError& error, std::string detail) {
  switch (error.kind()) {
    case SignerError::Kind::kAccessControl:
      return {"This phone refused to make a key that only Face ID can use.",
              std::move(detail), false};
    case SignerError::Kind::kCreate:
      return {"Could not create a key on this phone.", std::move(detail),
              false};
    case SignerError::Kind::kRestore:
      return {
          "Could not open this phone's key. Changing the enrolled faces "
          "destroys it — pair again.",
          std::move(detail), false};
    case SignerError::Kind::kNoEnclave:
      return {"This phone has no Secure Enclave, so it cannot sign approvals.",
              std::move(detail), false};
    case SignerError::Kind::kSign:
      break;
  }
  const std::string_view text = error.what();
  for (const std::string_view mark :
       {"-128", "-2", "usercancel", "canceled", "cancelled"}) {
    if (containsFolded(text, mark)) return {"", std::move(detail), true};
  }
  return {"Face ID did not pass, so nothing was signed.", std::move(detail),
          false};
}

Failure of(const std::exception& error) {
  std::string detail = error.what();
  if (const auto* request = dynamic_cast<const RequestError*>(&error)) {
    return {requestSentence(*request), std::move(detail), false};
  }
  if (const auto* signer = dynamic_cast<const SignerError*>(&error)) {
    return signing(*signer, std::move(detail));
  }
  if (const auto* transport = dynamic_cast<const TransportError*>(&error)) {
    return {transportSentence(transport->code()), std::move(detail), false};
  }
  if (dynamic_cast<const OAuthError*>(&error)) {
    return {finish(detail), std::move(detail), false};
  }
  if (const auto* cloud = dynamic_cast<const CloudError*>(&error)) {
    if (cloud->kind() == CloudError::Kind::kRefused) {
      return {finish(cloud->detail()), std::move(detail), false};
    }
    return {"iCloud is not reachable from this phone right now. " +
                finish(cloud->detail()),
            std::move(detail), false};
  }
  return {"Something went wrong.", std::move(detail), false};
}

Failure of(std::exception_ptr error) {
  try {
    if (error) std::rethrow_exception(error);
  } catch (const std::exception& e) {
    return of(e);
  } catch (...) {
  }
  return {"Something went wrong.", "", false};
}

}  // namespace Failures

}  // namespace tolvanger::phone
