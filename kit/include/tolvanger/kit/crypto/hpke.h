// HPKE base mode (RFC 9180) with the X-Wing KEM (id 0x647a), HKDF-SHA256 and
// AES-256-GCM: the suite a phone's platform calls
// XWingMLKEM768X25519_SHA256_AES_GCM_256. The key schedule is ours (it is
// protocol glue); HKDF and AES-GCM come from OpenSSL.
//
// The one-shot `seal` and `open` use sequence number 0, which is all the
// system needs: every envelope has its own encapsulation.
//
// Thread safety: pure functions; contexts are single-threaded values.
#ifndef TOLVANGER_KIT_CRYPTO_HPKE_H_
#define TOLVANGER_KIT_CRYPTO_HPKE_H_

#include <cstdint>
#include <optional>

#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/crypto/xwing.h"

namespace tolvanger::crypto::hpke {

inline constexpr uint16_t kKemXWing = 0x647a;
inline constexpr uint16_t kKdfHkdfSha256 = 0x0001;
inline constexpr uint16_t kAeadAes128Gcm = 0x0001;
inline constexpr uint16_t kAeadAes256Gcm = 0x0002;
// Not used by the system; supported so the published X-Wing vectors for
// this AEAD can be checked end to end.
inline constexpr uint16_t kAeadChaCha20Poly1305 = 0x0003;

struct Sealed {
  Bytes encapsulatedKey;  // the X-Wing ciphertext, 1120 bytes
  Bytes ciphertext;       // plaintext length + 16-byte tag
};

// Seals `plaintext` to `recipient` under `info`, authenticating `aad`.
Sealed seal(const XWingPublicKey& recipient, ByteView info, ByteView aad,
            ByteView plaintext);

// Opens what `seal` made. Nothing if anything fails: wrong key, altered
// encapsulation, ciphertext, info or aad.
std::optional<SecretBytes> open(const XWingPrivateKey& recipient,
                                ByteView encapsulatedKey, ByteView info,
                                ByteView aad, ByteView ciphertext);

// The key schedule, exposed for test vectors and for suites that differ only
// in the AEAD. A context holds the AEAD key, base nonce and exporter secret
// for one shared secret, and counts sequence numbers from 0.
class Context {
 public:
  // KeySchedule(mode_base, shared_secret, info, "", "") of RFC 9180 for the
  // suite (kem, kdf = HKDF-SHA256, aead). `aead` is one of the kAead
  // constants; any other value throws std::invalid_argument.
  static Context fromSharedSecret(uint16_t kem, uint16_t aead,
                                  ByteView sharedSecret, ByteView info);

  ByteView key() const { return key_.reveal(); }
  ByteView baseNonce() const { return baseNonce_.reveal(); }
  ByteView exporterSecret() const { return exporterSecret_.reveal(); }

  // Seal/open at the current sequence number, then step it. `open` gives
  // nothing, and keeps the sequence number, if authentication fails. Both
  // throw std::overflow_error rather than let the sequence number wrap.
  Bytes seal(ByteView aad, ByteView plaintext);
  std::optional<SecretBytes> open(ByteView aad, ByteView ciphertext);
  // Sets the sequence number (for test vectors that skip ahead).
  void setSequence(uint64_t seq) { seq_ = seq; }
  // Export(exporter_context, L).
  SecretBytes exportSecret(ByteView exporterContext, size_t length) const;

 private:
  Context() = default;
  Bytes nonce() const;
  uint16_t kem_ = 0;
  uint16_t aead_ = 0;
  SecretBytes key_;
  SecretBytes baseNonce_;
  SecretBytes exporterSecret_;
  uint64_t seq_ = 0;
};

}  // namespace tolvanger::crypto::hpke

#endif  // TOLVANGER_KIT_CRYPTO_HPKE_H_
