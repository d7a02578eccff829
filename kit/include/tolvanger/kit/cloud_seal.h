// Sealed envelopes: how the phone and the computer say things to each other
// through a store or a network that must learn nothing from them.
//
// A `CloudEnvelope` is a small JSON object holding an HPKE encapsulated key
// and ciphertext, plus the `kind` and `id` it claims, which are bound into the
// seal so an envelope moved to another kind or id does not open. `CloudSeal`
// makes and opens envelopes with HPKE in base mode over the X-Wing KEM
// (ML-KEM-768 + X25519), HKDF-SHA256 and AES-256-GCM, with a new encapsulation
// for every envelope. Before sealing, a payload is framed with its length and
// padded to one of five bucket sizes, so whoever stores an envelope learns
// only which bucket it fell into.
//
// Thread safety: `CloudEnvelope` is a plain value; `CloudSeal` is a namespace
// of functions with no shared state, safe from any thread. `SealedError` is
// immutable after construction.
#ifndef TOLVANGER_KIT_CLOUD_SEAL_H_
#define TOLVANGER_KIT_CLOUD_SEAL_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>

#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/crypto/xwing.h"

namespace tolvanger {

// Why an envelope could not be made, read or opened. `what()` is one of
// "not a usable envelope: <detail>" (kMalformed), "the payload does not fit
// the largest bucket" (kTooLarge) or "the box did not open" (kRefused).
// Callers must not tell the sender which of kMalformed and kRefused it was.
class SealedError : public std::runtime_error {
 public:
  enum class Kind { kMalformed, kTooLarge, kRefused };

  static SealedError malformed(std::string detail);
  static SealedError tooLarge();
  static SealedError refused();

  Kind kind() const { return kind_; }
  // The text after "not a usable envelope: " (kMalformed); empty otherwise.
  const std::string& detail() const { return detail_; }

 private:
  SealedError(Kind kind, std::string description, std::string detail);
  Kind kind_;
  std::string detail_;
};

struct CloudEnvelope {
  // Always CloudSeal::version for an envelope this code makes or reads.
  int64_t v = 2;
  // What the envelope is, chosen by the caller; bound into the seal.
  std::string kind;
  // The id of what it answers or carries; bound into the seal.
  std::string id;
  // Standard Base64 of the HPKE encapsulated key.
  std::string enc;
  // Standard Base64 of the HPKE ciphertext, tag included.
  std::string box;

  // {"box", "enc", "id", "kind", "v"} as a JSON object.
  nlohmann::json asDictionary() const;
  // asDictionary() as compact JSON with sorted keys; "{}" if it cannot be
  // encoded (a field that is not UTF-8).
  std::string json() const;

  // Reads an envelope from a JSON value. Throws
  // SealedError::malformed("a cloud envelope field is missing") unless the
  // value is an object whose "v" is the integer 2 (not 2.0, not "2") and
  // whose "kind", "id", "enc" and "box" are strings. Other keys are ignored.
  // Base64 is not checked here; `CloudSeal::open` does that.
  static CloudEnvelope from(const nlohmann::json& dictionary);
  // Parses `text` and reads it as `from` does. Text that is not JSON, or JSON
  // that is not an object, throws
  // SealedError::malformed("a cloud envelope is a json object").
  static CloudEnvelope fromJSON(std::string_view text);

  bool operator==(const CloudEnvelope&) const = default;
};

// The coded form for nlohmann::json: the same five keys. `from_json` throws
// as CloudEnvelope::from.
void to_json(nlohmann::json& out, const CloudEnvelope& envelope);
void from_json(const nlohmann::json& in, CloudEnvelope& envelope);

namespace CloudSeal {

inline constexpr int64_t version = 2;
// The HPKE info, and the first bytes of every envelope's additional data.
inline constexpr std::string_view info = "tolvanger-cloud-v1";
// The padded sizes, smallest first. A padded payload has exactly one of them.
inline constexpr std::array<size_t, 5> buckets = {1024, 4096, 16384, 65536,
                                                  262144};
// The big-endian length prefix of the padded form.
inline constexpr size_t prefixSize = 4;
// The largest payload that fits: the largest bucket less the prefix.
inline constexpr size_t maxPayload = buckets.back() - prefixSize;
// The AES-GCM tag that a box carries beyond its padded plaintext.
inline constexpr size_t tagSize = 16;

// The padded form: the payload's length as a big-endian 32-bit integer, the
// payload, then zero bytes up to the smallest bucket that holds both. Throws
// SealedError::tooLarge when the payload is longer than maxPayload. The
// result is secret storage, wiped when it dies.
SecretBytes pad(ByteView payload);

// The payload of a padded form. The padding is not looked at: it need not be
// zero and the size need not be a bucket. Throws SealedError::malformed with
// "shorter than its own length prefix" for fewer than four bytes, and with
// "the length prefix points past the end" when the prefix claims more than
// follows it.
SecretBytes unpad(ByteView padded);

// The additional data that binds an envelope to its kind and id: `info`,
// then "|" + kind + "|" + id in UTF-8.
Bytes aad(std::string_view kind, std::string_view id);

// Whether `count` less the tag is one of the buckets: the size a well-made
// box decodes to.
bool bucketed(size_t count);

// Pads `payload` and seals it to `recipientKey`, the raw 1216-byte form of
// the peer's X-Wing public key, binding `kind` and `id`. Throws
// std::invalid_argument if `recipientKey` is not a usable X-Wing key (checked
// first), then SealedError::tooLarge if the payload does not fit; a fault
// inside the crypto library passes on as crypto::CryptoError. The caller
// keeps ownership of `payload`; the padded copy is wiped before returning,
// whether or not sealing succeeded.
CloudEnvelope seal(ByteView payload, ByteView recipientKey,
                   std::string_view kind, std::string_view id);
// As above, to a key already read.
CloudEnvelope seal(ByteView payload, const crypto::XWingPublicKey& recipient,
                   std::string_view kind, std::string_view id);

// Opens `envelope` with one's own X-Wing key and returns the payload, which
// the caller owns and which is wiped when it dies. Throws
// SealedError::malformed("a cloud envelope field will not decode") if `v` is
// not 2 or `enc` or `box` is not strict standard Base64; SealedError::refused
// for everything the HPKE layer rejects (wrong key, any altered byte of enc or
// box, another kind or id, an unusable encapsulated key), with no cause
// given; and SealedError::malformed as `unpad` for a box that opened but
// whose length prefix does not fit.
SecretBytes open(const CloudEnvelope& envelope,
                 const crypto::XWingPrivateKey& privateKey);

}  // namespace CloudSeal

}  // namespace tolvanger

#endif  // TOLVANGER_KIT_CLOUD_SEAL_H_
