// The X-Wing hybrid KEM (ML-KEM-768 + X25519 with the SHA3-256 combiner), in
// the byte forms of a phone's platform: the private key as its 32-byte seed,
// the public key raw (1216 bytes: ML-KEM-768 key then X25519 key), the
// ciphertext 1120 bytes (ML-KEM ciphertext then X25519 ephemeral key), the
// shared secret 32 bytes. ML-KEM-768 and X25519 come from OpenSSL; only the
// key expansion and the combiner are ours.
//
// Thread safety: keys are immutable once made and may be used from many
// threads at once.
#ifndef TOLVANGER_KIT_CRYPTO_XWING_H_
#define TOLVANGER_KIT_CRYPTO_XWING_H_

#include <cstddef>
#include <memory>
#include <optional>

#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/crypto/digest.h"

namespace tolvanger::crypto {

struct XWingEncapsulation {
  SecretBytes sharedSecret;  // 32 bytes
  Bytes ciphertext;          // 1120 bytes
};

class XWingPublicKey {
 public:
  static constexpr size_t kSize = 1216;
  static constexpr size_t kCiphertextSize = 1120;

  // Nothing unless `raw` is exactly 1216 bytes whose ML-KEM part decodes and
  // whose X25519 part is not a low-order point.
  static std::optional<XWingPublicKey> fromRaw(ByteView raw);
  Bytes raw() const;

  // Encapsulates to this key with fresh randomness.
  XWingEncapsulation encapsulate() const;
  // Encapsulates with the given 64-byte randomness (32 for ML-KEM, then the
  // 32-byte X25519 ephemeral secret). For test vectors only; throws
  // std::invalid_argument if `eseed` is not 64 bytes.
  XWingEncapsulation encapsulateDerand(ByteView eseed) const;

  struct Impl;

 private:
  explicit XWingPublicKey(std::shared_ptr<const Impl> impl)
      : impl_(std::move(impl)) {}
  std::shared_ptr<const Impl> impl_;
  friend class XWingPrivateKey;
};

class XWingPrivateKey {
 public:
  static constexpr size_t kSeedSize = 32;

  static XWingPrivateKey generate();
  // Nothing unless `seed` is exactly 32 bytes.
  static std::optional<XWingPrivateKey> fromSeed(ByteView seed);

  SecretBytes seed() const;
  XWingPublicKey publicKey() const;

  // The shared secret for a ciphertext; nothing if it is not 1120 bytes or
  // its X25519 part is unusable. A well-formed but wrong ciphertext gives a
  // different secret (ML-KEM's implicit rejection), not a failure.
  std::optional<SecretBytes> decapsulate(ByteView ciphertext) const;

  struct Impl;

 private:
  explicit XWingPrivateKey(std::shared_ptr<const Impl> impl)
      : impl_(std::move(impl)) {}
  std::shared_ptr<const Impl> impl_;
};

}  // namespace tolvanger::crypto

#endif  // TOLVANGER_KIT_CRYPTO_XWING_H_
