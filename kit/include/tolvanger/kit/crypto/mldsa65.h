// ML-DSA-65 (FIPS 204), pure mode with an empty context, in the byte forms a
// phone's platform uses: the private key as its 32-byte seed, the public key
// raw (1952 bytes), signatures raw (3309 bytes).
//
// Thread safety: keys are immutable once made; one key may sign or verify
// from many threads at once.
#ifndef TOLVANGER_KIT_CRYPTO_MLDSA65_H_
#define TOLVANGER_KIT_CRYPTO_MLDSA65_H_

#include <cstddef>
#include <memory>
#include <optional>

#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/crypto/digest.h"

namespace tolvanger::crypto {

class MLDSA65PublicKey {
 public:
  static constexpr size_t kSize = 1952;
  static constexpr size_t kSignatureSize = 3309;

  // Nothing unless `raw` is exactly 1952 bytes that decode as a key.
  static std::optional<MLDSA65PublicKey> fromRaw(ByteView raw);
  Bytes raw() const;

  // Pure ML-DSA verification with an empty context. False on any mismatch or
  // malformed signature.
  bool verify(ByteView message, ByteView signature) const;

  // Verify with a context of up to 255 bytes (the empty one is the system's
  // own; others exist for the published test vectors).
  bool verify(ByteView message, ByteView signature, ByteView context) const;

  struct Impl;

 private:
  explicit MLDSA65PublicKey(std::shared_ptr<const Impl> impl)
      : impl_(std::move(impl)) {}
  std::shared_ptr<const Impl> impl_;
  friend class MLDSA65PrivateKey;
};

class MLDSA65PrivateKey {
 public:
  static constexpr size_t kSeedSize = 32;

  static MLDSA65PrivateKey generate();
  // Nothing unless `seed` is exactly 32 bytes.
  static std::optional<MLDSA65PrivateKey> fromSeed(ByteView seed);

  SecretBytes seed() const;
  MLDSA65PublicKey publicKey() const;

  // A hedged (randomised) pure ML-DSA signature with an empty context.
  Bytes sign(ByteView message) const;

  struct Impl;

 private:
  explicit MLDSA65PrivateKey(std::shared_ptr<const Impl> impl)
      : impl_(std::move(impl)) {}
  std::shared_ptr<const Impl> impl_;
};

}  // namespace tolvanger::crypto

#endif  // TOLVANGER_KIT_CRYPTO_MLDSA65_H_
