// Hashes and key derivation over OpenSSL: SHA-256, SHA3-256, SHAKE256 and
// HKDF-SHA256 (extract and expand, RFC 5869).
//
// Thread safety: pure functions. Each throws `CryptoError` only if OpenSSL
// itself fails, which a correct build never sees.
#ifndef TOLVANGER_KIT_CRYPTO_DIGEST_H_
#define TOLVANGER_KIT_CRYPTO_DIGEST_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "tolvanger/kit/bytes.h"

namespace tolvanger::crypto {

// A failure inside the cryptographic library: out of memory, an algorithm
// missing from the build. Never thrown for bad input; functions that judge
// input (verify, open, parse) answer with false or nothing instead.
class CryptoError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

using Digest32 = std::array<uint8_t, 32>;

Digest32 sha256(ByteView data);
// SHA-256 as 64 lowercase hexadecimal digits.
std::string sha256Hex(ByteView data);
Digest32 sha3_256(ByteView data);
Bytes shake256(ByteView data, size_t outLength);

// HKDF-Extract(salt, ikm) with SHA-256: the 32-byte pseudorandom key.
SecretBytes hkdfExtract(ByteView salt, ByteView ikm);
// HKDF-Expand(prk, info, length) with SHA-256; length at most 255 * 32
// (std::invalid_argument above that, a caller's mistake).
SecretBytes hkdfExpand(ByteView prk, ByteView info, size_t length);

// Frees the cryptographic library's per-thread state (its random generators
// among it). Threads that used the library call it before they end; the
// library does not always manage it by itself when linked statically.
void releaseThreadState();

}  // namespace tolvanger::crypto

#endif  // TOLVANGER_KIT_CRYPTO_DIGEST_H_
