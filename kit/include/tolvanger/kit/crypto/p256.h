// ECDSA over P-256 with SHA-256, in the byte forms a phone's platform uses:
// the private key as its raw 32-byte scalar, the public key as DER
// SubjectPublicKeyInfo (uncompressed point), signatures as DER
// ECDSA-Sig-Value.
//
// Thread safety: keys are immutable once made; one key may sign or verify
// from many threads at once.
#ifndef TOLVANGER_KIT_CRYPTO_P256_H_
#define TOLVANGER_KIT_CRYPTO_P256_H_

#include <memory>
#include <optional>

#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/crypto/digest.h"

namespace tolvanger::crypto {

class P256PublicKey {
 public:
  // Parses a DER SubjectPublicKeyInfo for id-ecPublicKey on prime256v1.
  // Nothing on any other input, including trailing bytes.
  static std::optional<P256PublicKey> fromDER(ByteView spki);

  // The DER SubjectPublicKeyInfo with the uncompressed point.
  Bytes der() const;

  // Verifies a DER signature over SHA-256(message). False on any malformed
  // signature (BER forms, trailing bytes) or mismatch; high-S is accepted.
  bool verify(ByteView message, ByteView derSignature) const;

  struct Impl;

 private:
  explicit P256PublicKey(std::shared_ptr<const Impl> impl)
      : impl_(std::move(impl)) {}
  std::shared_ptr<const Impl> impl_;
  friend class P256PrivateKey;
};

class P256PrivateKey {
 public:
  // Draws a new key. With `compactRepresentable` the draw repeats until the
  // public point's y is the smaller of y and p - y, so the point has a
  // compact form; phones draw keys this way too.
  static P256PrivateKey generate(bool compactRepresentable = true);

  // Builds a key from its raw 32-byte scalar; nothing if the length is wrong
  // or the scalar is zero or not below the group order.
  static std::optional<P256PrivateKey> fromRaw(ByteView scalar);

  // The raw 32-byte scalar.
  SecretBytes raw() const;
  P256PublicKey publicKey() const;

  // Signs SHA-256(message); returns the DER signature.
  Bytes sign(ByteView message) const;

  struct Impl;

 private:
  explicit P256PrivateKey(std::shared_ptr<const Impl> impl)
      : impl_(std::move(impl)) {}
  std::shared_ptr<const Impl> impl_;
};

}  // namespace tolvanger::crypto

#endif  // TOLVANGER_KIT_CRYPTO_P256_H_
