#include "tolvanger/phone/sealed_road.h"

#include <cstring>
#include <initializer_list>
#include <stdexcept>
#include <utility>

#include "tolvanger/kit/clock.h"
#include "tolvanger/kit/ids.h"
#include "tolvanger/kit/random.h"
#include "tolvanger/kit/text.h"

namespace tolvanger::phone {

using nlohmann::json;

namespace {

std::string joinURL(std::string_view base, std::string_view path) {
  while (!base.empty() && base.back() == '/') base.remove_suffix(1);
  std::string url(base);
  url += path;
  return url;
}

// A new call id: a random version 4 UUID's 16 bytes as 32 lower-case
// hexadecimal digits.
std::string newCallID() {
  Bytes b = Random::bytes(16);
  b[6] = static_cast<uint8_t>((b[6] & 0x0F) | 0x40);
  b[8] = static_cast<uint8_t>((b[8] & 0x3F) | 0x80);
  return toHex(b);
}

// One piece of a JSON text being put together in wipeable memory: either
// bytes that stand as they are, or a text to be written as a JSON string.
struct Piece {
  ByteView bytes;
  bool quoted = false;
};

Piece raw(std::string_view text) { return Piece{asBytes(text), false}; }
Piece quoted(ByteView text) { return Piece{text, true}; }

size_t quotedSize(ByteView text) {
  size_t size = 2;
  for (const uint8_t b : text) {
    size += (b == '"' || b == '\\') ? 2 : (b < 0x20 ? 6 : 1);
  }
  return size;
}

void writeQuoted(uint8_t* out, size_t& at, ByteView text) {
  static constexpr char kHex[] = "0123456789abcdef";
  out[at++] = '"';
  for (const uint8_t b : text) {
    if (b == '"' || b == '\\') {
      out[at++] = '\\';
      out[at++] = b;
    } else if (b < 0x20) {
      for (const char c : {'\\', 'u', '0', '0'}) out[at++] = c;
      out[at++] = kHex[b >> 4];
      out[at++] = kHex[b & 0x0F];
    } else {
      out[at++] = b;
    }
  }
  out[at++] = '"';
}

// The pieces joined in one buffer of the exact size, allocated once, so that
// no partial copy of a secret is left behind in freed memory.
SecretBytes assemble(std::initializer_list<Piece> pieces) {
  size_t size = 0;
  for (const Piece& piece : pieces) {
    size += piece.quoted ? quotedSize(piece.bytes) : piece.bytes.size();
  }
  SecretBytes out(size);
  size_t at = 0;
  for (const Piece& piece : pieces) {
    if (piece.quoted) {
      writeQuoted(out.mutableData(), at, piece.bytes);
    } else if (!piece.bytes.empty()) {
      std::memcpy(out.mutableData() + at, piece.bytes.data(),
                  piece.bytes.size());
      at += piece.bytes.size();
    }
  }
  return out;
}

std::string_view asText(const SecretBytes& bytes) {
  const ByteView view = bytes.reveal();
  return {reinterpret_cast<const char*>(view.data()), view.size()};
}

}  // namespace

namespace Roads {

std::string_view name(Road road) {
  switch (road) {
    case Road::kHome:
      return "home";
    case Road::kAway:
      return "away";
    case Road::kGone:
      return "gone";
  }
  return "gone";
}

bool reachable(Road road) { return road != Road::kGone; }

std::string sentence(Road road, bool hasCloud) {
  switch (road) {
    case Road::kHome:
      return "at home, on your network";
    case Road::kAway:
      return "away, through iCloud";
    case Road::kGone:
      break;
  }
  return hasCloud ? "not answering" : "only on your own network";
}

}  // namespace Roads

CredentialOffer CredentialOffer::forRequest(
    const TolvangerRequest& request, std::string name, std::string kind,
    ByteView value, int64_t lifetime, std::optional<int64_t> holdSeconds) {
  return CredentialOffer{request.requestID,
                         std::move(name),
                         std::move(kind),
                         SecretBytes(value),
                         SystemClock::seconds() + lifetime,
                         holdSeconds};
}

SecretBytes CredentialOffer::text() const {
  if (value.empty()) {
    throw std::invalid_argument("a credential needs a value");
  }
  if (!Text::isValidUTF8(asText(value))) {
    throw std::invalid_argument("a credential's value must be UTF-8 text");
  }
  const std::string expires = "{\"expires_at\":" + std::to_string(expiresAt);
  const std::string hold =
      holdSeconds && *holdSeconds >= 1
          ? ",\"hold_seconds\":" + std::to_string(*holdSeconds)
          : std::string();
  const std::string labels = ",\"kind\":" + PhoneJSON::dump(kind) +
                             ",\"name\":" + PhoneJSON::dump(name) +
                             ",\"request_id\":" + PhoneJSON::dump(requestID) +
                             ",\"value\":";
  return assemble(
      {raw(expires), raw(hold), raw(labels), quoted(value.reveal()), raw("}")});
}

CloudEnvelope CredentialOffer::seal(ByteView cardKey) const {
  const SecretBytes plain = text();
  return CloudSeal::seal(plain.reveal(), cardKey, "cred", requestID);
}

SealedRoad::SealedRoad(std::string base, std::string daemonID,
                       std::string deviceID, std::string deviceSecret,
                       crypto::XWingPrivateKey cloudKey, Bytes pinnedDaemonSPKI,
                       std::optional<Bytes> pinnedDaemonPQ,
                       std::chrono::milliseconds timeout,
                       std::shared_ptr<HTTPTransport> transport)
    : base_(std::move(base)),
      timeout_(timeout),
      transport_(transport ? std::move(transport)
                           : std::make_shared<CurlTransport>()),
      daemonID_(std::move(daemonID)),
      deviceID_(std::move(deviceID)),
      deviceSecret_(std::move(deviceSecret)),
      cloudKey_(std::move(cloudKey)),
      pinnedDaemonSPKI_(std::move(pinnedDaemonSPKI)),
      pinnedDaemonPQ_(std::move(pinnedDaemonPQ)) {}

SealedRoad::~SealedRoad() { wipe(deviceSecret_); }

json SealedRoad::plain(std::string_view path, const std::optional<json>& body,
                       bool expectOK) const {
  HTTPCall request{body ? "POST" : "GET", joinURL(base_, path), std::nullopt,
                   timeout_};
  if (body) request.body = PhoneJSON::dump(*body);
  const HTTPAnswer answer = transport_->send(request);
  json parsed = PhoneJSON::parseObject(answer.body);
  if (!parsed.is_object()) {
    throw RequestError::malformed("that Mac sent something unreadable");
  }
  if (!expectOK) return parsed;
  if (const auto ok = parsed.find("ok");
      ok != parsed.end() && ok->is_boolean() && ok->get<bool>()) {
    return parsed;
  }
  if (const std::string* error = PhoneJSON::text(parsed, "error")) {
    throw RequestError::daemon(*error);
  }
  throw RequestError::daemon("the Mac refused");
}

CloudCard SealedRoad::refreshCard() {
  const json answer = plain("/v1/card", std::nullopt, true);
  std::optional<ByteView> pinnedPQ;
  if (pinnedDaemonPQ_) pinnedPQ = *pinnedDaemonPQ_;
  std::optional<CloudCard> card =
      CloudCard::read(PhoneJSON::dump(answer), pinnedDaemonSPKI_, pinnedPQ);
  if (!card || card->daemonID != daemonID_) {
    throw RequestError::daemon("that Mac's card came back wrong");
  }
  MutexLock lock(mu_);
  card_ = card;
  return *std::move(card);
}

std::optional<CloudCard> SealedRoad::card() const {
  MutexLock lock(mu_);
  return card_;
}

CloudCard SealedRoad::currentCard() {
  if (std::optional<CloudCard> kept = card()) return *std::move(kept);
  return refreshCard();
}

json SealedRoad::call(std::string_view method, std::string_view path,
                      const std::optional<json>& body) {
  const CloudCard card = currentCard();
  const std::string id = newCallID();
  CloudEnvelope envelope;
  {
    // The inner call carries the device's secret: it is put together and
    // padded only in wipeable memory.
    const std::string head =
        "{\"body\":" + PhoneJSON::dump(body ? *body : json::object()) +
        ",\"device_id\":" + PhoneJSON::dump(deviceID_) + ",\"device_secret\":";
    const std::string tail = ",\"method\":" + PhoneJSON::dump(method) +
                             ",\"path\":" + PhoneJSON::dump(path) + "}";
    const SecretBytes inner =
        assemble({raw(head), quoted(asBytes(deviceSecret_)), raw(tail)});
    envelope = CloudSeal::seal(inner.reveal(), card.key, "call", id);
  }

  const json answer = plain("/v1/sealed", envelope.asDictionary(), false);
  std::optional<CloudEnvelope> reply;
  if (const auto sealed = answer.find("sealed"); sealed != answer.end()) {
    try {
      reply = CloudEnvelope::from(*sealed);
    } catch (const SealedError&) {
      reply.reset();
    }
  }
  if (!reply) {
    if (const std::string* error = PhoneJSON::text(answer, "error")) {
      throw RequestError::daemon(*error);
    }
    throw RequestError::daemon("that was not a sealed reply");
  }
  if (reply->kind != "reply" || reply->id != id) {
    throw RequestError::daemon("that reply is not this call's");
  }

  json opened;
  try {
    const SecretBytes inner = CloudSeal::open(*reply, cloudKey_);
    opened = PhoneJSON::parseObject(asText(inner));
  } catch (const SealedError&) {
    throw RequestError::daemon("the reply did not decode");
  }
  const auto payload =
      opened.is_object() ? opened.find("payload") : opened.end();
  if (payload == opened.end() || !payload->is_object()) {
    throw RequestError::daemon("the reply did not decode");
  }
  if (const auto ok = payload->find("ok");
      ok != payload->end() && ok->is_boolean() && ok->get<bool>()) {
    return *payload;
  }
  if (const std::string* error = PhoneJSON::text(*payload, "error")) {
    throw RequestError::daemon(*error);
  }
  throw RequestError::daemon("the Mac refused");
}

PendingList SealedRoad::pending() {
  return PendingList::from(call("GET", "/v1/pending", std::nullopt),
                           SystemClock::seconds());
}

void SealedRoad::nudgeSeen(std::string_view id) {
  call("POST", "/v1/nudge/seen", json{{"id", id}});
}

TolvangerRequest SealedRoad::request(std::string_view id) {
  if (!Ids::isID(id)) throw RequestError::malformed("that is not a request id");
  return TolvangerRequest::fromDaemon(
      call("GET", "/v1/request/" + std::string(id), std::nullopt),
      pinnedDaemonSPKI_, pinnedDaemonPQ_);
}

json SealedRoad::approve(
    const TolvangerRequest& request, ByteView signature,
    std::optional<ByteView> pqSignature, const CredentialOffer* credential,
    std::optional<std::chrono::system_clock::time_point> drawnAt,
    DrawnFrom drawnFrom) {
  json body = sealedApproval(deviceID_, request, signature, pqSignature,
                             credential, drawnAt, drawnFrom);
  if (credential != nullptr) {
    body["credential"] = credential->seal(currentCard().key).asDictionary();
  }
  return call("POST", "/v1/approve", body);
}

json sealedApproval(
    std::string_view deviceID, const TolvangerRequest& request,
    ByteView signature, std::optional<ByteView> pqSignature,
    const CredentialOffer* credential,
    std::optional<std::chrono::system_clock::time_point> drawnAt,
    DrawnFrom drawnFrom) {
  json body = {{"request_id", request.requestID},
               {"device_id", deviceID},
               {"digest", request.digest},
               {"signature", toBase64(signature)}};
  if (pqSignature) body["signature_pq"] = toBase64(*pqSignature);
  body.update(AnswerStamps::of(drawnAt, drawnFrom));
  if (credential != nullptr && credential->requestID != request.requestID) {
    throw std::invalid_argument("that credential is for another request");
  }
  return body;
}

json SealedRoad::deny(
    std::string_view requestID,
    std::optional<std::chrono::system_clock::time_point> drawnAt,
    DrawnFrom drawnFrom) {
  json body = {{"request_id", requestID}};
  body.update(AnswerStamps::of(drawnAt, drawnFrom));
  return call("POST", "/v1/deny", body);
}

json SealedRoad::endAllowance(std::string_view requestID) {
  return call("POST", "/v1/allowance/end", json{{"request_id", requestID}});
}

json SealedRoad::announce(const json& secrets, std::optional<int64_t> seq) {
  json body = {{"secrets", secrets}};
  if (seq) body["seq"] = *seq;
  return call("POST", "/v1/secrets", body);
}

void SealedRoad::registerCloudKey(ByteView publicKey) {
  call("POST", "/v1/cloud-key",
       json{{"cloud_public_key", toBase64(publicKey)}});
}

}  // namespace tolvanger::phone
