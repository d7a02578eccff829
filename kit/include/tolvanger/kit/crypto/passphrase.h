// Sealing bytes under a passphrase: scrypt stretches the passphrase into a
// key (memory-hard, so guessing costs memory as well as time) and AES-256-GCM
// seals with it. Both come from OpenSSL. (OpenSSL's Argon2id draws its memory
// from the secure heap when one is running, which the phone keeps small and
// locked; scrypt uses ordinary memory, so it works beside that heap.)
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

struct ScryptCost {
  // N = 2^log2N, block size r and parallelism p; memory is 128 * N * r
  // bytes: 32 MiB by default.
  uint32_t log2N = 15;
  uint32_t r = 8;
  uint32_t p = 1;
};

// The scrypt key of `length` bytes for `passphrase` and `salt`.
SecretBytes scrypt(ByteView passphrase, ByteView salt, size_t length,
                   const ScryptCost& cost);

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
                         const ScryptCost& cost = {});
// Nothing for a wrong passphrase, damaged bytes, or a cost beyond 2^20 for
// N, 32 for r or 16 for p (so a planted file cannot make the phone allocate
// or compute without bound).
std::optional<SecretBytes> openWithPassphrase(ByteView passphrase,
                                              ByteView sealed);

}  // namespace tolvanger::crypto

#endif  // TOLVANGER_KIT_CRYPTO_PASSPHRASE_H_
