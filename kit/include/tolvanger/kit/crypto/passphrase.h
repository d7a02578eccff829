// Sealing bytes under a passphrase: Argon2id stretches the passphrase into a
// key (memory-hard, so guessing costs memory as well as time) and AES-256-GCM
// seals with it. Both come from OpenSSL.
//
// Thread safety: pure functions. They throw `CryptoError` only if OpenSSL
// itself fails; a wrong passphrase or damaged bytes give nothing from `open`.
#ifndef TOLVANGER_KIT_CRYPTO_PASSPHRASE_H_
#define TOLVANGER_KIT_CRYPTO_PASSPHRASE_H_

#include <cstddef>
#include <cstdint>
#include <optional>

#include "tolvanger/kit/bytes.h"
#include "tolvanger/kit/crypto/digest.h"

namespace tolvanger::crypto {

struct Argon2Cost {
  // Memory in KiB, passes over it, and parallel lanes.
  uint32_t memoryKiB = 64 * 1024;
  uint32_t iterations = 3;
  uint32_t lanes = 1;
};

// The Argon2id key of `length` bytes for `passphrase` and `salt`.
SecretBytes argon2id(ByteView passphrase, ByteView salt, size_t length,
                     const Argon2Cost& cost);

// AES-256-GCM with a 32-byte key and 12-byte nonce: ciphertext then the
// 16-byte tag.
Bytes aesGcmSeal(ByteView key, ByteView nonce, ByteView aad,
                 ByteView plaintext);
// Nothing when the tag does not verify.
std::optional<SecretBytes> aesGcmOpen(ByteView key, ByteView nonce,
                                      ByteView aad, ByteView sealed);

// A self-describing sealed blob: "TPS1", the cost (three big-endian 32-bit
// numbers), a 16-byte salt, a 12-byte nonce, then the AES-GCM output; the
// header is the associated data. Each seal draws a new salt and nonce.
Bytes sealWithPassphrase(ByteView passphrase, ByteView plaintext,
                         const Argon2Cost& cost = {});
// Nothing for a wrong passphrase, damaged bytes, or a cost above
// `maxMemoryKiB` (so a planted file cannot make the phone allocate without
// bound).
std::optional<SecretBytes> openWithPassphrase(
    ByteView passphrase, ByteView sealed, uint32_t maxMemoryKiB = 1024 * 1024);

}  // namespace tolvanger::crypto

#endif  // TOLVANGER_KIT_CRYPTO_PASSPHRASE_H_
