#include "tolvanger/kit/cloud_seal.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <optional>
#include <utility>

#include "tolvanger/kit/crypto/hpke.h"
#include "tolvanger/kit/json_fields.h"

namespace tolvanger {

using Json = nlohmann::json;

namespace {

constexpr std::string_view kMalformedPrefix = "not a usable envelope: ";

// The string under `key`, or nothing when it is absent or not a string.
const std::string* stringField(const Json& object, const char* key) {
  auto it = object.find(key);
  if (it == object.end() || !it->is_string()) return nullptr;
  return it->get_ptr<const std::string*>();
}

// Whether "v" holds the integer 2. A float, even 2.0, a boolean or a text
// does not count.
bool versionIsCurrent(const Json& object) {
  return JsonFields::integer(object, "v") == CloudSeal::version;
}

}  // namespace

SealedError::SealedError(Kind kind, std::string description, std::string detail)
    : std::runtime_error(std::move(description)),
      kind_(kind),
      detail_(std::move(detail)) {}

SealedError SealedError::malformed(std::string detail) {
  std::string description(kMalformedPrefix);
  description += detail;
  return SealedError(Kind::kMalformed, std::move(description),
                     std::move(detail));
}

SealedError SealedError::tooLarge() {
  return SealedError(Kind::kTooLarge,
                     "the payload does not fit the largest bucket", "");
}

SealedError SealedError::refused() {
  return SealedError(Kind::kRefused, "the box did not open", "");
}

Json CloudEnvelope::asDictionary() const {
  return Json{{"v", v}, {"kind", kind}, {"id", id}, {"enc", enc}, {"box", box}};
}

std::string CloudEnvelope::json() const {
  // nlohmann keeps object keys sorted, and dump() with no indent is compact.
  // It throws on a string that is not UTF-8.
  try {
    return asDictionary().dump();
  } catch (const Json::exception&) {
    return "{}";
  }
}

CloudEnvelope CloudEnvelope::from(const Json& dictionary) {
  const std::string *kind = nullptr, *id = nullptr, *enc = nullptr,
                    *box = nullptr;
  if (!dictionary.is_object() || !versionIsCurrent(dictionary) ||
      (kind = stringField(dictionary, "kind")) == nullptr ||
      (id = stringField(dictionary, "id")) == nullptr ||
      (enc = stringField(dictionary, "enc")) == nullptr ||
      (box = stringField(dictionary, "box")) == nullptr) {
    throw SealedError::malformed("a cloud envelope field is missing");
  }
  return CloudEnvelope{CloudSeal::version, *kind, *id, *enc, *box};
}

CloudEnvelope CloudEnvelope::fromJSON(std::string_view text) {
  const Json parsed = Json::parse(text.begin(), text.end(), nullptr, false);
  if (parsed.is_discarded() || !parsed.is_object()) {
    throw SealedError::malformed("a cloud envelope is a json object");
  }
  return from(parsed);
}

void to_json(Json& out, const CloudEnvelope& envelope) {
  out = envelope.asDictionary();
}

void from_json(const Json& in, CloudEnvelope& envelope) {
  envelope = CloudEnvelope::from(in);
}

namespace CloudSeal {

SecretBytes pad(ByteView payload) {
  const size_t needed = payload.size() + prefixSize;
  if (payload.size() > maxPayload) throw SealedError::tooLarge();
  const size_t bucket =
      *std::find_if(buckets.begin(), buckets.end(),
                    [needed](size_t size) { return size >= needed; });
  SecretBytes padded(bucket);  // zero-filled
  uint8_t* out = padded.mutableData();
  const auto n = static_cast<uint32_t>(payload.size());
  out[0] = static_cast<uint8_t>(n >> 24);
  out[1] = static_cast<uint8_t>(n >> 16);
  out[2] = static_cast<uint8_t>(n >> 8);
  out[3] = static_cast<uint8_t>(n);
  if (!payload.empty()) {
    std::memcpy(out + prefixSize, payload.data(), payload.size());
  }
  return padded;
}

SecretBytes unpad(ByteView padded) {
  if (padded.size() < prefixSize) {
    throw SealedError::malformed("shorter than its own length prefix");
  }
  const uint64_t length = (uint64_t{padded[0]} << 24) |
                          (uint64_t{padded[1]} << 16) |
                          (uint64_t{padded[2]} << 8) | uint64_t{padded[3]};
  if (length + prefixSize > padded.size()) {
    throw SealedError::malformed("the length prefix points past the end");
  }
  return SecretBytes(padded.subspan(prefixSize, static_cast<size_t>(length)));
}

Bytes aad(std::string_view kind, std::string_view id) {
  std::string text(info);
  text.reserve(info.size() + kind.size() + id.size() + 2);
  text += '|';
  text += kind;
  text += '|';
  text += id;
  return toBytes(text);
}

bool bucketed(size_t count) {
  if (count < tagSize) return false;
  return std::find(buckets.begin(), buckets.end(), count - tagSize) !=
         buckets.end();
}

CloudEnvelope seal(ByteView payload, ByteView recipientKey,
                   std::string_view kind, std::string_view id) {
  std::optional<crypto::XWingPublicKey> recipient =
      crypto::XWingPublicKey::fromRaw(recipientKey);
  if (!recipient) throw std::invalid_argument("not an X-Wing public key");
  return seal(payload, *recipient, kind, id);
}

CloudEnvelope seal(ByteView payload, const crypto::XWingPublicKey& recipient,
                   std::string_view kind, std::string_view id) {
  // `padded` is SecretBytes, so the copy of the payload it holds is wiped
  // when this returns or throws.
  const SecretBytes padded = pad(payload);
  const crypto::hpke::Sealed sealed = crypto::hpke::seal(
      recipient, asBytes(info), aad(kind, id), padded.reveal());
  return CloudEnvelope{version, std::string(kind), std::string(id),
                       toBase64(sealed.encapsulatedKey),
                       toBase64(sealed.ciphertext)};
}

SecretBytes open(const CloudEnvelope& envelope,
                 const crypto::XWingPrivateKey& privateKey) {
  std::optional<Bytes> enc;
  std::optional<Bytes> box;
  if (envelope.v != version || !(enc = fromBase64(envelope.enc)) ||
      !(box = fromBase64(envelope.box))) {
    throw SealedError::malformed("a cloud envelope field will not decode");
  }
  std::optional<SecretBytes> padded;
  try {
    padded = crypto::hpke::open(privateKey, *enc, asBytes(info),
                                aad(envelope.kind, envelope.id), *box);
  } catch (const std::exception&) {
    // Whatever went wrong inside reads the same as a wrong key.
    padded.reset();
  }
  if (!padded) throw SealedError::refused();
  return unpad(padded->reveal());
}

}  // namespace CloudSeal

}  // namespace tolvanger
