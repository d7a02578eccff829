#include "tolvanger/service/routes.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <exception>
#include <utility>

#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/cloud_seal.h"
#include "tolvanger/kit/crypto/xwing.h"
#include "tolvanger/kit/ids.h"
#include "tolvanger/kit/secret_json.h"
#include "tolvanger/kit/service_error.h"

namespace tolvanger::service {

using nlohmann::json;

namespace {

// What an unforeseen failure reads: it names nothing of its cause, which may
// hold anything.
constexpr const char* kGeneric = "this Mac could not answer that";
constexpr const char* kNotPaired = "that device is not paired here";
constexpr const char* kCouldNotSeal = "the answer could not be sealed";

// No body a phone sends nests deeper than a handful of levels. Deeper ones
// are refused at parsing, so nothing downstream walks a tree so deep that
// recursion over it could exhaust a connection thread's stack.
constexpr int kMaxDepth = 64;

RouteResult failure(int status, std::string sentence) {
  return RouteResult{status,
                     json{{"ok", false}, {"error", std::move(sentence)}}};
}

RouteResult success(json payload) {
  return RouteResult{200, std::move(payload)};
}

int64_t nowSeconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// Parses a JSON object no deeper than kMaxDepth; anything else gives null.
// Subtrees past the limit are dropped while parsing, never built.
template <typename J, typename Iterator>
J parseObject(Iterator begin, Iterator end) {
  bool deep = false;
  typename J::parser_callback_t limit = [&deep](int depth,
                                                typename J::parse_event_t, J&) {
    if (depth <= kMaxDepth) return true;
    deep = true;
    return false;
  };
  J parsed = J::parse(begin, end, limit, /*allow_exceptions=*/false);
  if (deep || !parsed.is_object()) return J();
  return parsed;
}

// The text under `key`, or null when the body is no object or the value no
// text.
template <typename J>
const typename J::string_t* text(const J& body, const char* key) {
  if (!body.is_object()) return nullptr;
  const auto it = body.find(key);
  if (it == body.end() || !it->is_string()) return nullptr;
  return &it->template get_ref<const typename J::string_t&>();
}

const json* member(const json& body, const char* key) {
  if (!body.is_object()) return nullptr;
  const auto it = body.find(key);
  return it == body.end() ? nullptr : &*it;
}

// Compact JSON; a text that is not UTF-8 is written with replacement
// characters rather than failing.
std::string serialise(const json& value) {
  return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

// Serialises into one buffer allocated up front, so that growing it leaves no
// partial copies of a secret behind in freed memory; the caller wipes it.
std::string serialiseSecret(const json& value) {
  std::string out;
  out.reserve(16384);
  nlohmann::detail::serializer<json> writer(
      nlohmann::detail::output_adapter<char, std::string>(out), ' ',
      json::error_handler_t::replace);
  writer.dump(value, false, false, 0);
  return out;
}

// Overwrites every text in `value`, keys aside.
void wipeTexts(json& value) {
  if (value.is_string()) {
    wipe(value.get_ref<std::string&>());
  } else if (value.is_structured()) {
    for (auto& item : value) wipeTexts(item);
  }
}

bool is(std::string_view method, std::string_view path, std::string_view m,
        std::string_view p) {
  return method == m && path == p;
}

}  // namespace

Routes::Routes(Service& service) : service_(service) {}

bool Routes::openInTheClear(std::string_view method, std::string_view path) {
  return std::any_of(kOpenInTheClear.begin(), kOpenInTheClear.end(),
                     [&](std::string_view call) {
                       return call.size() == method.size() + 1 + path.size() &&
                              call.starts_with(method) &&
                              call[method.size()] == ' ' &&
                              call.ends_with(path);
                     });
}

RouteHandler Routes::handler() {
  return [this](std::string_view method, std::string_view path,
                std::string_view body) { return handle(method, path, body); };
}

RouteResult Routes::handle(std::string_view method, std::string_view path,
                           std::string_view body) {
  try {
    // An empty body stands for the empty object.
    json parsed = json::object();
    if (!body.empty()) {
      parsed = parseObject<json>(body.begin(), body.end());
      if (!parsed.is_object()) return failure(400, "that is not json");
    }
    if (service_.config.requireSealed && !openInTheClear(method, path) &&
        !path.starts_with("/v1/sealed")) {
      return failure(400, "this Mac only answers that on the sealed road");
    }
    if (method == "POST" && path == "/v1/sealed") {
      return sealed(parsed, kLANRoad);
    }
    return dispatch(method, path, parsed, std::nullopt, kLANRoad);
  } catch (...) {
    return failure(500, kGeneric);
  }
}

RouteResult Routes::dispatch(std::string_view method, std::string_view path,
                             const json& body,
                             const std::optional<Device>& device,
                             std::string_view road) {
  try {
    static const json kEmpty = json::object();
    return route(method, path, body.is_object() ? body : kEmpty, device, road);
  } catch (const ServiceError& e) {
    return failure(400, e.what());
  } catch (...) {
    return failure(500, kGeneric);
  }
}

RouteResult Routes::route(std::string_view method, std::string_view path,
                          const json& body, const std::optional<Device>& device,
                          std::string_view road) {
  if (is(method, path, "GET", "/v1/health")) return health();
  if (is(method, path, "GET", "/v1/card")) return card();
  if (is(method, path, "GET", "/v1/pending")) return pending(device);
  if (is(method, path, "POST", "/v1/pair")) return pair(body);
  if (is(method, path, "POST", "/v1/pair/confirm")) return confirm(body);
  if (is(method, path, "POST", "/v1/recover")) return recover(body);
  if (is(method, path, "POST", "/v1/approve")) {
    return approve(body, device, road);
  }
  if (is(method, path, "POST", "/v1/deny")) return deny(body, road);
  if (is(method, path, "POST", "/v1/allowance/end")) {
    return endAllowance(body, device);
  }
  if (is(method, path, "POST", "/v1/cloud-key")) return cloudKey(body, device);
  if (is(method, path, "POST", "/v1/secrets")) return announce(body, device);
  if (is(method, path, "POST", "/v1/nudge/seen")) {
    return nudgeSeen(body, device);
  }
  constexpr std::string_view kRequestPrefix = "/v1/request/";
  if (method == "GET" && path.starts_with(kRequestPrefix)) {
    return request(path.substr(kRequestPrefix.size()));
  }
  return failure(404, "no such route");
}

std::optional<Device> Routes::authenticated(
    const json& body, const std::optional<Device>& device) const {
  if (device) return device;
  const std::string* id = text(body, "device_id");
  const std::string* secret = text(body, "device_secret");
  if (id == nullptr || secret == nullptr) return std::nullopt;
  return service_.authenticate(*id, *secret);
}

RouteResult Routes::sealed(const json& body, std::string_view road) {
  try {
    CloudEnvelope envelope;
    try {
      envelope = CloudEnvelope::from(body);
    } catch (const std::exception&) {
      return failure(400, "that is not a sealed call");
    }
    if (envelope.kind != "call")
      return failure(400, "that is not a sealed call");

    // The inner text carries the device secret: it is parsed into storage
    // that is wiped when freed, and the opened bytes wipe themselves.
    SecretJson inner;
    try {
      const SecretBytes plain = CloudSeal::open(envelope, service_.cloudKey());
      const ByteView bytes = plain.reveal();
      inner = parseObject<SecretJson>(bytes.begin(), bytes.end());
    } catch (const std::exception&) {
      inner = nullptr;
    }
    if (!inner.is_object()) return failure(400, "the box did not open");

    const SecretString* deviceID = text(inner, "device_id");
    const SecretString* secret = text(inner, "device_secret");
    std::optional<Device> device;
    if (deviceID != nullptr && secret != nullptr) {
      device = service_.authenticate(std::string_view(*deviceID),
                                     std::string_view(*secret));
    }
    if (!device) return failure(400, kNotPaired);

    const SecretString* method = text(inner, "method");
    const SecretString* path = text(inner, "path");
    if (method == nullptr || path == nullptr) {
      return failure(400, "that call has no route in it");
    }
    json callBody = json::object();
    if (const auto it = inner.find("body");
        it != inner.end() && it->is_object()) {
      const SecretString dumped = it->dump();
      callBody = json::parse(dumped.begin(), dumped.end());
    }

    const RouteResult answer =
        dispatch(std::string_view(*method), std::string_view(*path), callBody,
                 device, road);
    // The device's copy of its secret is not needed past authentication.
    wipe(device->secret);

    // The call has taken effect; only now is the key to answer to looked up,
    // as it stands after the call.
    std::optional<Bytes> replyKey = device->cloudKey;
    if (const auto current = service_.device(device->deviceID)) {
      replyKey = current->cloudKey;
    }
    if (!replyKey) {
      return failure(400, "this device has registered no cloud key");
    }
    try {
      const std::string reply = serialise(
          json{{"status", answer.status}, {"payload", answer.payload}});
      const CloudEnvelope out =
          CloudSeal::seal(asBytes(reply), *replyKey, "reply", envelope.id);
      return success(json{{"ok", true}, {"sealed", out.asDictionary()}});
    } catch (...) {
      return failure(500, kCouldNotSeal);
    }
  } catch (...) {
    return failure(500, kGeneric);
  }
}

RouteResult Routes::wrap(json& payload, const Device& device) {
  std::string text;
  RouteResult result;
  if (!device.cloudKey) {
    result = failure(400, "that phone offered no key to seal the answer to");
  } else {
    try {
      text = serialiseSecret(payload);
      const CloudEnvelope out = CloudSeal::seal(asBytes(text), *device.cloudKey,
                                                "pairing", device.deviceID);
      result = success(json{{"ok", true}, {"sealed", out.asDictionary()}});
    } catch (...) {
      result = failure(500, kCouldNotSeal);
    }
  }
  wipe(text);
  wipeTexts(payload);
  return result;
}

RouteResult Routes::health() {
  return success(json{{"ok", true},
                      {"daemon_id", service_.config.daemonID},
                      {"host", service_.config.host},
                      {"addresses", service_.phoneAddresses()},
                      {"cloud", service_.config.cloud.enabled},
                      {"version", 1}});
}

RouteResult Routes::card() {
  try {
    return success(service_.cardOffer());
  } catch (const std::exception&) {
    return failure(500, "this Mac has no card");
  }
}

RouteResult Routes::pending(const std::optional<Device>& device) {
  json list = json::array();
  for (const StoredRequest& request : service_.pendingRequests()) {
    list.push_back(
        json{{"request_id", request.id}, {"expires_at", request.expiresAt}});
  }
  json out{{"ok", true}, {"pending", std::move(list)}};
  if (const auto nudge = service_.currentNudge()) {
    out["nudge"] = nudge->asDictionary();
  }
  if (device) {
    json open = json::array();
    const int64_t now = nowSeconds();
    for (const Allowance& allowance : service_.openAllowances()) {
      if (allowance.deviceID == device->deviceID) {
        open.push_back(allowance.asDictionary(now));
      }
    }
    out["allowances"] = std::move(open);
  }
  return success(std::move(out));
}

RouteResult Routes::pair(const json& body) {
  return success(service_.pairOffer(body));
}

RouteResult Routes::confirm(const json& body) {
  PairResult result = service_.pairConfirm(body);
  RouteResult answer = wrap(result.payload, result.device);
  wipe(result.device.secret);
  service_.pokeCloud();  // a new phone to leave notices for
  return answer;
}

RouteResult Routes::recover(const json& body) {
  PairResult result = service_.pairRecover(body);
  RouteResult answer = wrap(result.payload, result.device);
  wipe(result.device.secret);
  service_.pokeCloud();
  return answer;
}

RouteResult Routes::approve(const json& body,
                            const std::optional<Device>& device,
                            std::string_view road) {
  const std::string* requestID = text(body, "request_id");
  const std::string* deviceID = text(body, "device_id");
  const std::string* digest = text(body, "digest");
  const std::string* signature = text(body, "signature");
  if (requestID == nullptr || deviceID == nullptr || digest == nullptr ||
      signature == nullptr) {
    return failure(400, "that approval is missing something");
  }
  // Sealed, the envelope proved one device; it may approve only as itself.
  // In the clear the signature is the only proof, and it is checked below.
  if (device && device->deviceID != *deviceID) {
    return failure(400, "that approval is not from the device that sent it");
  }
  Approval approval;
  approval.requestID = *requestID;
  approval.deviceID = *deviceID;
  approval.digest = *digest;
  approval.signatureBase64 = *signature;
  if (const std::string* pq = text(body, "signature_pq")) {
    approval.pqSignatureBase64 = *pq;
  }
  if (const json* credential = member(body, "credential");
      credential != nullptr && credential->is_object()) {
    approval.credentialEnvelope = credential;
  }
  approval.road = std::string(road);
  approval.stamps = member(body, "timing");
  service_.approve(approval);
  json out{{"ok", true}, {"state", "approved"}};
  for (const Allowance& allowance : service_.openAllowances()) {
    if (allowance.requestID != *requestID) continue;
    out["allowed_until"] = allowance.until;
    out["seconds_left"] = allowance.secondsLeft(nowSeconds());
  }
  return success(std::move(out));
}

RouteResult Routes::deny(const json& body, std::string_view road) {
  const std::string* requestID = text(body, "request_id");
  if (requestID == nullptr) return failure(400, "no request named");
  service_.deny(*requestID, std::string(road), member(body, "timing"));
  return success(json{{"ok", true}, {"state", "denied"}});
}

RouteResult Routes::endAllowance(const json& body,
                                 const std::optional<Device>& device) {
  if (!authenticated(body, device)) return failure(400, kNotPaired);
  const std::string* requestID = text(body, "request_id");
  if (requestID == nullptr) return failure(400, "no allowance named");
  const bool ended = service_.endAllowance(*requestID, "phone").has_value();
  return success(json{{"ok", true}, {"ended", ended}});
}

RouteResult Routes::cloudKey(const json& body,
                             const std::optional<Device>& device) {
  const auto who = authenticated(body, device);
  if (!who) return failure(400, kNotPaired);
  const std::string* keyText = text(body, "cloud_public_key");
  std::optional<Bytes> raw = keyText ? fromBase64(*keyText) : std::nullopt;
  if (!raw || !crypto::XWingPublicKey::fromRaw(*raw)) {
    return failure(400, "that is not an X-Wing public key");
  }
  // A device forgotten in the meantime stays forgotten.
  service_.setDeviceCloudKey(who->deviceID, *raw);
  service_.pokeCloud();
  return success(json{{"ok", true}});
}

RouteResult Routes::announce(const json& body,
                             const std::optional<Device>& device) {
  const auto who = authenticated(body, device);
  if (!who) return failure(400, kNotPaired);
  const json* list = member(body, "secrets");
  if (list == nullptr || !list->is_array() ||
      !std::all_of(list->begin(), list->end(),
                   [](const json& entry) { return entry.is_object(); })) {
    return failure(400, "no list of secrets in that");
  }
  std::optional<int64_t> seq;
  if (const json* value = member(body, "seq")) {
    if (value->is_number_unsigned()) {
      seq = static_cast<int64_t>(
          std::min<uint64_t>(value->get<uint64_t>(), INT64_MAX));
    } else if (value->is_number_integer()) {
      seq = value->get<int64_t>();
    }
  }
  const Announced announced = service_.announce(*list, seq, who->deviceID);
  return success(json{{"ok", true},
                      {"added", announced.added},
                      {"count", list->size()},
                      {"stale", announced.stale}});
}

RouteResult Routes::nudgeSeen(const json& body,
                              const std::optional<Device>& device) {
  if (!authenticated(body, device)) return failure(400, kNotPaired);
  const std::string* id = text(body, "id");
  if (id == nullptr) return failure(400, "no nudge named");
  // A stale id leaves the held nudge alone.
  service_.clearNudgeIf(*id);
  return success(json{{"ok", true}});
}

RouteResult Routes::request(std::string_view id) {
  if (Ids::isID(id)) {
    const auto found = service_.request(id);
    if (found && found->state == RequestState::kPending) {
      try {
        return success(service_.requestPayload(*found));
      } catch (...) {
        return failure(500, "that request could not be signed");
      }
    }
  }
  return failure(404, "no such request");
}

}  // namespace tolvanger::service
