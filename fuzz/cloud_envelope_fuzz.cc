// Fuzz target for reading and opening sealed envelopes.
//
// The input is read as an envelope's JSON text and what reads is opened with
// a key made from a fixed seed (the bytes 0 to 31), so the corpus's valid
// envelope, sealed to that key, keeps opening and its mutations reach the
// HPKE layer. Every failure must be a SealedError of the kind its stage can
// give; an envelope that reads must survive its own JSON form unchanged; and
// a payload that opens must seal again under the same kind and id and open to
// the same bytes.
#include <array>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/cloud_seal.h"
#include "tolvanger/kit/crypto/xwing.h"

namespace {

void check(bool ok) {
  if (!ok) std::abort();
}

const tolvanger::crypto::XWingPrivateKey& fixedKey() {
  static const tolvanger::crypto::XWingPrivateKey key = [] {
    std::array<uint8_t, 32> seed{};
    for (size_t i = 0; i < seed.size(); ++i) seed[i] = static_cast<uint8_t>(i);
    auto made = tolvanger::crypto::XWingPrivateKey::fromSeed(seed);
    check(made.has_value());
    return *made;
  }();
  return key;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using tolvanger::CloudEnvelope;
  using tolvanger::SealedError;
  namespace CloudSeal = tolvanger::CloudSeal;

  const std::string_view text(reinterpret_cast<const char*>(data), size);
  CloudEnvelope envelope;
  try {
    envelope = CloudEnvelope::fromJSON(text);
  } catch (const SealedError& e) {
    check(e.kind() == SealedError::Kind::kMalformed);
    return 0;
  }
  check(envelope.v == CloudSeal::version);
  check(CloudEnvelope::fromJSON(envelope.json()) == envelope);

  tolvanger::SecretBytes payload;
  try {
    payload = CloudSeal::open(envelope, fixedKey());
  } catch (const SealedError& e) {
    check(e.kind() != SealedError::Kind::kTooLarge);
    return 0;
  }
  check(payload.size() <= CloudSeal::maxPayload);
  const CloudEnvelope again = CloudSeal::seal(
      payload.reveal(), fixedKey().publicKey(), envelope.kind, envelope.id);
  check(tolvanger::constantTimeEqual(
      CloudSeal::open(again, fixedKey()).reveal(), payload.reveal()));
  return 0;
}
